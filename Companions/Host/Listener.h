// Accepts the connections of one port and starts their sessions. The main thread makes it, starts
// it and destroys it after the event loop's end; Stop may be called by any thread.
#ifndef QUORVALEN_COMPANIONS_HOST_LISTENER_H
#define QUORVALEN_COMPANIONS_HOST_LISTENER_H

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "Companions/Host/Connections.h"

namespace Quorvalen::Companions::Network::Host {

// Lets one line a second pass, and counts the others.
class LogLimit {
  public:
    // True when the line may be written. `held` is how many were not since the last one.
    bool Passes(std::size_t& held);

  private:
    Clock::time_point next = Clock::time_point::min();
    std::size_t kept = 0;
};

class Listener {
  public:
    // Makes the session of an accepted socket, which it owns from the call on.
    using MakeSession =
        std::function<std::shared_ptr<Connection>(int socket, const asio::ip::tcp::endpoint&)>;

    // Takes the port. Throws std::runtime_error when that is not possible.
    Listener(asio::io_context& context, const asio::ip::tcp::endpoint& endpoint);

    // Lets clients in. What is passed has to outlive the event loop.
    void Start(Connections& served, MakeSession maker);

    // Lets nobody in any more.
    void Stop();

    // Address and port as in "127.0.0.1:5000".
    std::string Address() const;

  private:
    void Wait();
    void AcceptAll();
    bool Accept();
    void Serve(int socket, const asio::ip::tcp::endpoint& client);
    bool AcceptFailed(int error);

    asio::ip::tcp::acceptor acceptor;
    asio::steady_timer retry;
    Connections* connections = nullptr;
    MakeSession makeSession;
    LogLimit refusals;
    LogLimit failures;
    std::atomic<bool> isStopped = false;
    // The socket is not closed while Stop uses it, and whoever was let in before is being served.
    std::mutex stopping;
};

}  // namespace Quorvalen::Companions::Network::Host

#endif
