#include "Native/Transmitter/NativeTransmitter.h"

#include <utility>

#include "Native/Definitions/CommandHeader.h"
#include "Native/QuorvalenNativeException/Messages.h"
#include "Native/QuorvalenNativeException/QuorvalenNativeException.h"
#include "Native/Transport/TransportNetwork.h"

namespace Quorvalen::Native::Transmitter {
namespace {

namespace Header = Definitions::CommandHeader;
using Definitions::ConnectionType;

std::string HostText(const unsigned char* message) {
    std::string host = std::to_string(message[Header::kAddress]);
    for (int octet = 1; octet < 4; ++octet) {
        host += "." + std::to_string(message[Header::kAddress + octet]);
    }
    return host;
}

unsigned short Port(const unsigned char* message) {
    return static_cast<unsigned short>(message[Header::kPortLow] +
                                       256 * message[Header::kPortHigh]);
}

ConnectionType ConnectionTypeOf(const unsigned char* message) {
    return static_cast<ConnectionType>(message[Header::kConnectionType]);
}

}  // namespace

NativeTransmitter::NativeTransmitter(Definitions::RuntimeOperationMode mode)
    : operationMode(mode) {}

NativeTransmitter::~NativeTransmitter() = default;

int NativeTransmitter::SendCommand(unsigned char* message, int length) {
    if (length < Header::kLength) {
        throw QuorvalenNativeException(Messages::MessageTooShort(Header::kLength),
                                       Messages::kUnknownRuntime);
    }
    InitializeTransportChannel(message);
    return currentChannel->SendCommand(message, length);
}

int NativeTransmitter::ReadResponse(unsigned char* buffer, int length) {
    if (currentChannel == nullptr) {
        throw QuorvalenNativeException(Messages::kNoCurrentChannel, Messages::kUnknownRuntime);
    }
    return currentChannel->ReadResponse(buffer, length);
}

void NativeTransmitter::SetTransportChannel(Interfaces::ITransport* channel) {
    currentChannel = std::shared_ptr<Interfaces::ITransport>(channel);
}

int NativeTransmitter::SetEmbeddedRuntime(unsigned char callingRuntime, unsigned char targetRuntime,
                                          unsigned char version, std::string path) {
    currentChannel = CreateInMemoryTransportChannel();
    return currentChannel->SetEmbeddedRuntime(callingRuntime, targetRuntime, version,
                                              std::move(path));
}

int NativeTransmitter::DeployRuntime(unsigned char* message, int length, std::string path,
                                     unsigned char flag) {
    InitializeTransportChannel(message);
    return currentChannel->DeployRuntime(message, length, std::move(path), flag);
}

void NativeTransmitter::InitializeTransportChannel(unsigned char* message) {
    if (message == nullptr) {
        throw QuorvalenNativeException(Messages::kNoMessage, Messages::kUnknownRuntime);
    }
    GetTransportChannel(message);
    currentChannel->Initialize(message[Header::kCallingRuntime], message[Header::kTargetRuntime],
                               message[Header::kRuntimeVersion]);
}

void NativeTransmitter::GetTransportChannel(unsigned char* message) {
    switch (ConnectionTypeOf(message)) {
        case ConnectionType::InMemory:
            currentChannel = CreateInMemoryTransportChannel();
            return;
        case ConnectionType::Tcp:
        case ConnectionType::TcpTls:
            currentChannel = CreateNetworkChannel(message);
            return;
    }
    throw QuorvalenNativeException(Messages::kUnknownConnectionType, Messages::kUnknownRuntime);
}

std::shared_ptr<Interfaces::ITransport> NativeTransmitter::CreateInMemoryTransportChannel() {
    if (inMemoryChannel == nullptr) {
        inMemoryChannel = std::make_shared<Transport::TransportInMemory>();
    }
    return inMemoryChannel;
}

// By design: the connection type takes no part in the key, so an address keeps the kind of channel
// that its first command asked for.
std::shared_ptr<Interfaces::ITransport> NativeTransmitter::CreateNetworkChannel(
    unsigned char* message) {
    const std::string host = HostText(message);
    const unsigned short port = Port(message);
    const std::string key = host + ":" + std::to_string(port);
    const auto known = channels.find(key);
    if (known != channels.end()) return known->second;

    const bool tls = ConnectionTypeOf(message) == ConnectionType::TcpTls;
    auto channel = std::make_shared<Transport::TransportNetwork>(host, port, tls);
    channels.emplace(key, channel);
    return channel;
}

}  // namespace Quorvalen::Native::Transmitter
