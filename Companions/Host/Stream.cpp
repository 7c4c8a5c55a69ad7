#include "Companions/Host/Stream.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace Quorvalen::Companions::Network::Host {

Descriptor::~Descriptor() {
    close(number);
}

// A process that Python code has forked may still have the socket: closing it alone would not tell
// the client.
Socket::~Socket() {
    shutdown(descriptor, SHUT_RDWR);
    close(descriptor);
}

IoResult PlainStream::Read(std::span<unsigned char> space) {
    const ssize_t result = recv(Descriptor(), space.data(), space.size(), 0);
    if (result == 0 || (result < 0 && errno == ECONNRESET)) return {Io::Ended};
    return Outcome(result, Io::WantsRead);
}

IoResult PlainStream::Write(std::span<const unsigned char> bytes) {
    return Outcome(send(Descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL), Io::WantsWrite);
}

IoResult PlainStream::Outcome(ssize_t result, Io blocked) {
    if (result >= 0) return {Io::Done, static_cast<std::size_t>(result)};
    if (errno == EAGAIN || errno == EINTR) return {blocked};
    error = errno;
    return {Io::Failed};
}

std::string PlainStream::Failure() const {
    return std::generic_category().message(error);
}

}  // namespace Quorvalen::Companions::Network::Host
