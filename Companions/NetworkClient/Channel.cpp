#include "Companions/NetworkClient/Channel.h"

#include <algorithm>
#include <utility>

#include "Companions/NetworkClient/Messages.h"
#include "Companions/NetworkClient/NetworkError.h"

namespace Quorvalen::Companions::Network {
namespace {

// An IPv6 address has colons of its own.
std::string PeerName(const std::string& host, unsigned short port) {
    const bool bracketed = host.find(':') != std::string::npos;
    return (bracketed ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

}  // namespace

Channel::Channel(std::string hostName, unsigned short portNumber)
    : host(std::move(hostName)), port(portNumber), peer(PeerName(host, port)) {}

int Channel::Initialize(unsigned char, unsigned char, unsigned char) {
    return 0;
}

int Channel::SendCommand(unsigned char* message, int length) {
    std::vector<unsigned char>& response = responses.Begin();
    ConnectionOpener& connections = Opener();
    const auto command = Command(message, length, connections.ChosenSettings().maxFrame);
    std::unique_ptr<Connection> connection = pool.Take();
    if (connection == nullptr) connection = connections.Open();
    connection->Exchange(command, response);
    responses.Keep();
    if (connection->IsReusable()) pool.Give(std::move(connection));
    return static_cast<int>(response.size());
}

int Channel::ReadResponse(unsigned char* buffer, int length) {
    if (buffer == nullptr || length < 0) {
        throw NetworkError(Messages::NoRoomForResponse(peer, std::to_string(length)));
    }
    const std::vector<unsigned char>* response = responses.Find();
    if (response == nullptr) throw NetworkError(Messages::NoResponse(peer));
    std::copy_n(response->begin(), std::min(response->size(), static_cast<std::size_t>(length)),
                buffer);
    responses.Forget();
    return 0;
}

int Channel::SetEmbeddedRuntime(unsigned char, unsigned char, unsigned char, std::string) {
    return 0;
}

int Channel::DeployRuntime(unsigned char*, int, std::string, unsigned char) {
    return 0;
}

ConnectionOpener& Channel::Opener() {
    ConnectionOpener* ready = opener.load(std::memory_order_acquire);
    if (ready != nullptr) return *ready;
    const std::lock_guard lock(creatingOpener);
    if (ownedOpener == nullptr) ownedOpener = std::make_unique<ConnectionOpener>(host, port, peer);
    opener.store(ownedOpener.get(), std::memory_order_release);
    return *ownedOpener;
}

std::span<const unsigned char> Channel::Command(const unsigned char* message, int length,
                                                std::size_t longest) const {
    if (message == nullptr || length < 0) {
        throw NetworkError(Messages::NoCommand(peer, std::to_string(length)));
    }
    const auto size = static_cast<std::size_t>(length);
    if (size > longest) {
        throw NetworkError(
            Messages::CommandTooLong(peer, std::to_string(size), std::to_string(longest)));
    }
    return {message, size};
}

}  // namespace Quorvalen::Companions::Network
