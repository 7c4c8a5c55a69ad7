#include "Companions/NetworkClient/ConnectionOpener.h"

#include <asio/error.hpp>
#include <utility>

#include "Companions/NetworkClient/Messages.h"
#include "Companions/NetworkClient/NetworkError.h"
#include "Companions/NetworkClient/TcpConnect.h"

namespace Quorvalen::Companions::Network {

ConnectionOpener::ConnectionOpener(std::string hostName, unsigned short portNumber,
                                   std::string peerName)
    : host(std::move(hostName)),
      port(portNumber),
      peer(std::move(peerName)),
      settings(ReadSettings(peer)),
      streams(CreateStreamMaker(host, peer)) {}

std::unique_ptr<Connection> ConnectionOpener::Open() {
    backoff.Wait(settings.connectTimeout);
    const auto began = Clock::now();
    try {
        auto opened = Attempt();
        backoff.Succeeded();
        return opened;
    } catch (const NetworkError&) {
        backoff.Failed(began);
        throw;
    } catch (const std::system_error& failure) {
        // Asio had no descriptor left for itself.
        backoff.Failed(began);
        throw NetworkError(Messages::ConnectFailed(peer, failure.code().message()));
    }
}

std::unique_ptr<Connection> ConnectionOpener::Attempt() {
    const Deadline deadline = Deadline::In(settings.connectTimeout);
    const auto addresses = Addresses(deadline);
    std::error_code error;
    auto socket = Connect(io, addresses, deadline, error);
    if (error == MissedDeadline()) MissDeadline(Messages::kConnect);
    if (error) throw NetworkError(Messages::ConnectFailed(peer, error.message()));
    return std::make_unique<Connection>(
        streams->Make(std::move(socket), deadline, settings.connectTimeout), peer, settings);
}

std::vector<asio::ip::tcp::endpoint> ConnectionOpener::Addresses(const Deadline& deadline) {
    // The system's resolver would take it for this machine.
    if (host.empty()) throw NetworkError(Messages::HostNotResolved(peer, Messages::kEmptyHostName));
    std::error_code error;
    auto found = Resolve(io, host, port, error);
    if (deadline.HasPassed()) MissDeadline(Messages::kResolve);
    if (error) throw NetworkError(Messages::HostNotResolved(peer, error.message()));
    return found;
}

void ConnectionOpener::MissDeadline(const char* phase) const {
    throw NetworkError(Messages::DeadlineMissed(peer, phase, TextOf(settings.connectTimeout)));
}

}  // namespace Quorvalen::Companions::Network
