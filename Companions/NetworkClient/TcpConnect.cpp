#include "Companions/NetworkClient/TcpConnect.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

#include "Companions/NetworkClient/DeadlineSocket.h"

namespace Quorvalen::Companions::Network {
namespace {

using asio::ip::tcp;

struct SocketOption {
    int level;
    int name;
    int value;
};

// Without the last four a connection whose other side lost its power would never end.
constexpr SocketOption kOptions[] = {
    {IPPROTO_TCP, TCP_NODELAY, 1},           {SOL_SOCKET, SO_KEEPALIVE, 1},     // switches
    {IPPROTO_TCP, TCP_KEEPIDLE, 30},         {IPPROTO_TCP, TCP_KEEPINTVL, 10},  // seconds
    {IPPROTO_TCP, TCP_KEEPCNT, 3},                                              // probes
    {IPPROTO_TCP, TCP_USER_TIMEOUT, 60'000},                                    // milliseconds
};

std::error_code LastError() {
    return std::error_code(errno, std::system_category());
}

void SetOptions(int descriptor) {
    for (const SocketOption& option : kOptions) {
        setsockopt(descriptor, option.level, option.name, &option.value, sizeof(option.value));
    }
}

// Asio's sockets would stay open in the programs that this process starts.
tcp::socket OpenSocket(asio::io_context& io, const tcp& protocol, std::error_code& error) {
    tcp::socket opened(io);
    const int descriptor =
        socket(protocol.family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, protocol.protocol());
    if (descriptor < 0) {
        error = LastError();
        return opened;
    }
    opened.assign(protocol, descriptor, error);
    if (error) {
        close(descriptor);
        return opened;
    }
    opened.non_blocking(true, error);
    SetOptions(descriptor);
    return opened;
}

// Asio's own connect would wait without a deadline.
void ConnectSocket(tcp::socket& opened, const tcp::endpoint& address, const Deadline& deadline,
                   std::error_code& error) {
    const int descriptor = opened.native_handle();
    if (connect(descriptor, address.data(), static_cast<socklen_t>(address.size())) == 0) return;
    if (errno != EINPROGRESS && errno != EINTR) {
        error = LastError();
        return;
    }
    if (!WaitFor(descriptor, POLLOUT, deadline, error)) return;
    int outcome = 0;
    socklen_t length = sizeof(outcome);
    getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &outcome, &length);
    error = std::error_code(outcome, std::system_category());
}

// When nobody listens at a port of this machine, the system may choose that very port for our end:
// TCP then connects the socket to itself, and a command would come back as its own response.
bool IsConnectedToItself(const tcp::socket& opened) {
    std::error_code local;
    std::error_code remote;
    return opened.local_endpoint(local) == opened.remote_endpoint(remote) && !local && !remote;
}

}  // namespace

std::vector<tcp::endpoint> Resolve(asio::io_context& io, const std::string& host,
                                   unsigned short port, std::error_code& error) {
    const auto address = asio::ip::make_address(host, error);
    if (!error) return {tcp::endpoint(address, port)};
    tcp::resolver resolver(io);
    const auto found =
        resolver.resolve(host, std::to_string(port), tcp::resolver::numeric_service, error);
    return {found.begin(), found.end()};
}

tcp::socket Connect(asio::io_context& io, const std::vector<tcp::endpoint>& addresses,
                    const Deadline& deadline, std::error_code& error) {
    for (const tcp::endpoint& address : addresses) {
        error.clear();
        tcp::socket opened = OpenSocket(io, address.protocol(), error);
        if (!error) ConnectSocket(opened, address, deadline, error);
        if (!error && IsConnectedToItself(opened)) error = asio::error::connection_refused;
        if (!error) return opened;
    }
    return tcp::socket(io);
}

}  // namespace Quorvalen::Companions::Network
