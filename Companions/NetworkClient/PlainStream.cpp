#include "Companions/NetworkClient/PlainStream.h"

#include <sys/socket.h>

#include <array>
#include <asio/buffer.hpp>
#include <asio/write.hpp>

namespace Quorvalen::Companions::Network {
namespace {

class PlainStreamMaker : public StreamMaker {
  public:
    std::unique_ptr<Stream> Make(asio::ip::tcp::socket connected, const Deadline&,
                                 Seconds) const override {
        return std::make_unique<PlainStream>(std::move(connected));
    }
};

}  // namespace

void PlainStream::Write(const FramePrefix& prefix, std::span<const unsigned char> message,
                        std::error_code& error) {
    const std::array<asio::const_buffer, 2> frame{asio::buffer(prefix),
                                                  asio::buffer(message.data(), message.size())};
    asio::write(socket, frame, error);
}

std::size_t PlainStream::ReadSome(std::span<unsigned char> space, std::error_code& error) {
    return socket.read_some(asio::buffer(space.data(), space.size()), error);
}

bool PlainStream::IsAlive() {
    char byte = 0;
    const ssize_t count = recv(socket.Descriptor(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
}

std::unique_ptr<StreamMaker> CreateStreamMaker(const std::string&, const std::string&) {
    return std::make_unique<PlainStreamMaker>();
}

}  // namespace Quorvalen::Companions::Network
