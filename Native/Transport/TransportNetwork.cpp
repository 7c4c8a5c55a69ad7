#include "Native/Transport/TransportNetwork.h"

#include <utility>

#include "Native/Definitions/SymbolLookup.h"
#include "Native/LibrariesFinder/LibrariesFinder.h"
#include "Native/QuorvalenNativeException/Messages.h"
#include "Native/QuorvalenNativeException/QuorvalenNativeException.h"

namespace Quorvalen::Native::Transport {

using Interfaces::ITransport;
using LibrariesFinder::LibrariesFinder;

TransportNetwork::TransportNetwork(std::string targetHost, unsigned short targetPort, bool tls)
    : tcpClientLibrary(nullptr),
      tcpTlsClientLibrary(nullptr),
      createTransportChannel(nullptr),
      host(std::move(targetHost)),
      port(targetPort),
      useTls(tls) {}

TransportNetwork::~TransportNetwork() = default;

int TransportNetwork::Initialize(unsigned char callingRuntime, unsigned char targetRuntime,
                                 unsigned char runtimeVersion) {
    if (useTls) {
        ImportTcpTlsClientLibrary();
        CreateTransportTcpTlsChannel(callingRuntime, targetRuntime, runtimeVersion);
        activeChannel = tcpTlsChannel;
    } else {
        ImportTcpClientLibrary();
        CreateTransportTcpChannel(callingRuntime, targetRuntime, runtimeVersion);
        activeChannel = tcpChannel;
    }
    if (activeChannel == nullptr) {
        throw QuorvalenNativeException(Messages::kNoActiveChannel, Messages::kUnknownRuntime);
    }
    return 0;
}

int TransportNetwork::SendCommand(unsigned char* command, int length) {
    return ActiveChannel().SendCommand(command, length);
}

int TransportNetwork::ReadResponse(unsigned char* buffer, int length) {
    return ActiveChannel().ReadResponse(buffer, length);
}

int TransportNetwork::SetEmbeddedRuntime(unsigned char, unsigned char, unsigned char, std::string) {
    return 0;
}

int TransportNetwork::DeployRuntime(unsigned char*, int, std::string, unsigned char) {
    return 0;
}

int TransportNetwork::ImportTcpClientLibrary() {
    if (tcpClientLibrary == nullptr) {
        tcpClientLibrary = LibrariesFinder::loadTcpClientLibrary(true);
    }
    return 0;
}

int TransportNetwork::ImportTcpTlsClientLibrary() {
    if (tcpTlsClientLibrary == nullptr) {
        tcpTlsClientLibrary = LibrariesFinder::loadTcpTlsClientLibrary(true);
    }
    return 0;
}

int TransportNetwork::ImportLibraryAndExportedFunctions() {
    return 0;
}

int TransportNetwork::CreateTransportTcpChannel(unsigned char callingRuntime,
                                                unsigned char targetRuntime,
                                                unsigned char runtimeVersion) {
    return CreateChannel(tcpClientLibrary, tcpChannel, callingRuntime, targetRuntime,
                         runtimeVersion);
}

int TransportNetwork::CreateTransportTcpTlsChannel(unsigned char callingRuntime,
                                                   unsigned char targetRuntime,
                                                   unsigned char runtimeVersion) {
    return CreateChannel(tcpTlsClientLibrary, tcpTlsChannel, callingRuntime, targetRuntime,
                         runtimeVersion);
}

int TransportNetwork::CreateChannel(void* library, std::shared_ptr<ITransport>& channel,
                                    unsigned char callingRuntime, unsigned char targetRuntime,
                                    unsigned char runtimeVersion) {
    if (channel != nullptr) return 0;
    createTransportChannel =
        Definitions::LookUpSymbol<CreateChannelFunction>(library, "CreateTransportChannel");
    if (createTransportChannel == nullptr) {
        throw QuorvalenNativeException(Messages::kNoClientFactory, Messages::kUnknownRuntime);
    }
    channel = std::shared_ptr<ITransport>(createTransportChannel(host.c_str(), port));
    if (channel == nullptr) {
        throw QuorvalenNativeException(Messages::kClientFactoryReturnedNull,
                                       Messages::kUnknownRuntime);
    }
    channel->Initialize(callingRuntime, targetRuntime, runtimeVersion);
    return 0;
}

ITransport& TransportNetwork::ActiveChannel() {
    if (activeChannel == nullptr) {
        throw QuorvalenNativeException(Messages::kNetworkChannelNotInitialized,
                                       Messages::kUnknownRuntime);
    }
    return *activeChannel;
}

}  // namespace Quorvalen::Native::Transport
