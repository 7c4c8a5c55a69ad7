// The host's threads: listeners, sessions, signals and the orderly end. The main thread makes it
// and runs it; nothing else is called from outside.
#ifndef QUORVALEN_COMPANIONS_HOST_SERVER_H
#define QUORVALEN_COMPANIONS_HOST_SERVER_H

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>
#include <optional>
#include <string>

#include "Companions/Host/Connections.h"
#include "Companions/Host/Listener.h"
#include "Companions/Host/Session.h"
#include "Companions/Host/Settings.h"
#include "Companions/Host/SocketEvents.h"
#include "Companions/Host/TlsStream.h"
#include "Companions/Host/WorkerSlots.h"

namespace Quorvalen::Companions::Network::Host {

class Server {
  public:
    // Reads the TLS files and takes the ports, without letting anybody in. Throws TlsFileError, or
    // std::runtime_error when a port is not to be had. `settings` have to outlive the server.
    explicit Server(const Settings& settings);

    // Serves until a signal has asked for the end and all commands are answered. Ends the process
    // when that takes too long or a second signal comes.
    void Run(const Runtime& runtime);

  private:
    void StartListeners(Services& services);
    std::string ReadyLine(const Runtime& runtime) const;
    void RunThreads();
    void Sweep();
    void AwaitSignal(Services& services);
    void Drain(Services& services, int signal);
    void AwaitSecondSignal();
    void AwaitDrainTimeout(const Services& services);

    const Settings& settings;
    std::optional<TlsContext> tls;
    // Listeners, timers, signals. Two threads run it: one may be kept by Python's last output, and
    // the time for that and a second signal must not be missed.
    asio::io_context context;
    SocketEvents events;
    asio::signal_set signals;
    asio::steady_timer sweepTimer;
    asio::steady_timer drainTimer;
    std::optional<Listener> plainListener;
    std::optional<Listener> tlsListener;
    WorkerSlots slots;
    Connections connections;
};

}  // namespace Quorvalen::Companions::Network::Host

#endif
