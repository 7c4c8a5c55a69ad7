#include "Companions/Host/Listener.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <spdlog/spdlog.h>
#include <sys/socket.h>
#include <unistd.h>

#include <asio/post.hpp>
#include <cerrno>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace Quorvalen::Companions::Network::Host {

namespace {

constexpr std::chrono::milliseconds kRetryAfter(100);
constexpr int kBacklog = 4096;
constexpr int kAcceptsInARow = 64;

using Tcp = asio::ip::tcp;

std::string TextOf(const Tcp::endpoint& endpoint) {
    std::ostringstream text;
    text << endpoint;
    return text.str();
}

// Accepted sockets have the options of the listening one.
void SetOptions(int socket) {
    struct Option {
        int level;
        int name;
        int value;
    };
    constexpr Option options[] = {
        {IPPROTO_TCP, TCP_NODELAY, 1},   {SOL_SOCKET, SO_KEEPALIVE, 1},
        {IPPROTO_TCP, TCP_KEEPIDLE, 30}, {IPPROTO_TCP, TCP_KEEPINTVL, 10},
        {IPPROTO_TCP, TCP_KEEPCNT, 3},   {IPPROTO_TCP, TCP_USER_TIMEOUT, 60000},
        {SOL_SOCKET, SO_REUSEADDR, 1},
    };
    for (const Option& option : options) {
        setsockopt(socket, option.level, option.name, &option.value, sizeof option.value);
    }
    // Programs that Python code starts have no business with it.
    fcntl(socket, F_SETFD, FD_CLOEXEC);
}

}  // namespace

bool LogLimit::Passes(std::size_t& held) {
    const Clock::time_point now = Clock::now();
    if (now < next) {
        ++kept;
        return false;
    }
    next = now + std::chrono::seconds(1);
    held = std::exchange(kept, 0);
    return true;
}

Listener::Listener(asio::io_context& context, const Tcp::endpoint& endpoint)
    : acceptor(context), retry(context) {
    try {
        acceptor.open(endpoint.protocol());
        SetOptions(acceptor.native_handle());
        acceptor.non_blocking(true);
        acceptor.bind(endpoint);
    } catch (const std::system_error& error) {
        throw std::runtime_error("cannot listen on " + TextOf(endpoint) + ": " +
                                 error.code().message());
    }
}

void Listener::Start(Connections& served, MakeSession maker) {
    connections = &served;
    makeSession = std::move(maker);
    asio::error_code error;
    acceptor.listen(kBacklog, error);
    if (error) {
        throw std::runtime_error("cannot listen on " + Address() + ": " + error.message());
    }
    Wait();
}

// The thread that accepts finds the socket shut, and does the rest.
void Listener::Stop() {
    const std::lock_guard lock(stopping);
    isStopped = true;
    shutdown(acceptor.native_handle(), SHUT_RDWR);
}

std::string Listener::Address() const {
    return TextOf(acceptor.local_endpoint());
}

void Listener::Wait() {
    acceptor.async_wait(Tcp::acceptor::wait_read, [this](const asio::error_code&) { AcceptAll(); });
}

void Listener::AcceptAll() {
    for (int i = 0; i < kAcceptsInARow; ++i) {
        const std::lock_guard lock(stopping);
        if (isStopped) {
            asio::error_code ignored;
            acceptor.close(ignored);
            return;
        }
        if (!Accept()) return;
    }
    Wait();
}

// False when the next one is waited for.
bool Listener::Accept() {
    Tcp::endpoint client;
    auto length = static_cast<socklen_t>(client.capacity());
    const int socket =
        accept4(acceptor.native_handle(), client.data(), &length, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (socket < 0) return AcceptFailed(errno);
    client.resize(length);
    try {
        Serve(socket, client);
    } catch (const std::exception& error) {
        spdlog::error("{}: refused: {}", TextOf(client), error.what());
    }
    return true;
}

void Listener::Serve(int socket, const Tcp::endpoint& client) {
    if (!connections->HasRoom()) {
        close(socket);
        std::size_t held = 0;
        if (!refusals.Passes(held)) return;
        spdlog::warn(
            "{}: refused: all connections are taken (--max-connections); {} more since "
            "the last such line",
            TextOf(client), held);
        return;
    }
    const std::shared_ptr<Connection> session = makeSession(socket, client);
    connections->Add(*session);
    try {
        session->Start();
    } catch (const std::exception&) {
        connections->Remove(*session);
        throw;
    }
}

bool Listener::AcceptFailed(int error) {
    if (error == EINTR || error == ECONNABORTED) return true;
    if (error == EAGAIN || isStopped) {
        Wait();
        return false;
    }
    std::size_t held = 0;
    if (failures.Passes(held)) {
        spdlog::error("cannot accept a connection on {}: {}", Address(),
                      std::generic_category().message(error));
    }
    retry.expires_after(kRetryAfter);
    retry.async_wait([this](const asio::error_code&) { AcceptAll(); });
    return false;
}

}  // namespace Quorvalen::Companions::Network::Host
