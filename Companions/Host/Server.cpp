#include "Companions/Host/Server.h"

#include <spdlog/spdlog.h>
#include <unistd.h>

#include <asio/ip/address.hpp>
#include <asio/post.hpp>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <thread>
#include <vector>

namespace Quorvalen::Companions::Network::Host {

namespace {

// How exact deadlines of connections are kept.
constexpr std::chrono::milliseconds kSweepInterval(100);

[[noreturn]] void EndAtOnce() {
    spdlog::default_logger()->flush();
    std::_Exit(EXIT_FAILURE);
}

}  // namespace

Server::Server(const Settings& chosen)
    : settings(chosen),
      context(2),
      signals(context),
      sweepTimer(context),
      drainTimer(context),
      slots(chosen.threads),
      connections(chosen.maxConnections) {
    const asio::ip::address address = asio::ip::make_address(settings.address);
    if (settings.tlsPort) {
        tls.emplace(settings.tls);
        tlsListener.emplace(context, asio::ip::tcp::endpoint(address, *settings.tlsPort));
    }
    if (settings.port) {
        plainListener.emplace(context, asio::ip::tcp::endpoint(address, *settings.port));
    }
}

// Python has installed its own signal handlers by now.
void Server::Run(const Runtime& runtime) {
    Services services{events, settings, runtime, slots, connections};
    AwaitSignal(services);
    StartListeners(services);
    Sweep();
    std::cout << ReadyLine(runtime) << std::endl;
    RunThreads();
    std::cout << "quorvalen-host stopped: " << services.executed << " commands, "
              << connections.Total() << " connections" << std::endl;
}

void Server::StartListeners(Services& services) {
    using Endpoint = asio::ip::tcp::endpoint;
    if (plainListener) {
        plainListener->Start(connections, [&services](int socket, const Endpoint& client) {
            return std::make_shared<Session<PlainStream>>(services, client, socket);
        });
    }
    if (tlsListener) {
        tlsListener->Start(connections, [&services, this](int socket, const Endpoint& client) {
            return std::make_shared<Session<TlsStream>>(services, client, socket, *tls);
        });
    }
}

std::string Server::ReadyLine(const Runtime& runtime) const {
    std::string line = "quorvalen-host ready: ";
    if (plainListener) line += "tcp " + plainListener->Address() + ", ";
    if (tlsListener) line += "tls " + tlsListener->Address() + ", ";
    return line + std::to_string(settings.threads) + " threads, Python " + runtime.PythonVersion() +
           ", pid " + std::to_string(getpid());
}

// One thread more than commands are executed at the same time: it answers heartbeats and receives
// what waits for a slot.
void Server::RunThreads() {
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < settings.threads + 1; ++i) {
        threads.emplace_back([this] { events.Run(); });
    }
    std::thread second([this] { context.run(); });
    context.run();
    second.join();
    events.Stop();
    for (std::thread& thread : threads) thread.join();
}

void Server::Sweep() {
    connections.CutOffLateOnes();
    sweepTimer.expires_after(kSweepInterval);
    sweepTimer.async_wait([this](const asio::error_code&) { Sweep(); });
}

void Server::AwaitSignal(Services& services) {
    signals.add(SIGTERM);
    signals.add(SIGINT);
    signals.async_wait(
        [this, &services](const asio::error_code&, int signal) { Drain(services, signal); });
}

void Server::Drain(Services& services, int signal) {
    spdlog::info("signal {}: finishing {} commands", signal, services.unanswered.load());
    AwaitSecondSignal();
    AwaitDrainTimeout(services);
    if (plainListener) plainListener->Stop();
    if (tlsListener) tlsListener->Stop();
    connections.Drain([this, &services] {
        asio::post(context, [this, &services] {
            services.runtime.FlushOutput();
            context.stop();
        });
    });
}

void Server::AwaitSecondSignal() {
    signals.async_wait([](const asio::error_code&, int signal) {
        spdlog::error("signal {} while finishing: stopped at once", signal);
        EndAtOnce();
    });
}

void Server::AwaitDrainTimeout(const Services& services) {
    drainTimer.expires_after(Duration(settings.drainTimeout));
    drainTimer.async_wait([this, &services](const asio::error_code&) {
        spdlog::error("not finished within {} s (--drain-timeout): {} commands are lost",
                      settings.drainTimeout, services.unanswered.load());
        EndAtOnce();
    });
}

}  // namespace Quorvalen::Companions::Network::Host
