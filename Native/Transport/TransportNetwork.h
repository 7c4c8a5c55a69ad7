// The channel to a runtime in another process: a thin adapter that opens one of the two network
// client libraries, gets one channel object for one host and port from it, and forwards to that
// object. Opens nothing until Initialize.
//
// Takes no lock: Initialize is complete before the first command. What happens at the same time
// after that is up to the client library's channel.
#pragma once

#include <memory>
#include <string>

#include "Native/Definitions/Export.h"
#include "Native/Interfaces/ITransport.h"

namespace Quorvalen::Native::Transport {

class QUORVALEN_EXPORT TransportNetwork : public Interfaces::ITransport {
  public:
    // `host` is passed on as it is, the empty one included.
    TransportNetwork(std::string host, unsigned short port, bool useTls);
    ~TransportNetwork() override;

    int Initialize(unsigned char callingRuntime, unsigned char targetRuntime,
                   unsigned char runtimeVersion) override;
    int SendCommand(unsigned char* command, int length) override;
    int ReadResponse(unsigned char* buffer, int length) override;

    // Nothing to do over this channel: both return 0 and ignore their arguments.
    int SetEmbeddedRuntime(unsigned char callingRuntime, unsigned char targetRuntime,
                           unsigned char version, std::string path) override;
    int DeployRuntime(unsigned char* message, int length, std::string path,
                      unsigned char flag) override;

    // The steps of Initialize; all return 0 or raise.
    int ImportTcpClientLibrary();
    int ImportTcpTlsClientLibrary();
    int ImportLibraryAndExportedFunctions();
    int CreateTransportTcpChannel(unsigned char callingRuntime, unsigned char targetRuntime,
                                  unsigned char runtimeVersion);
    int CreateTransportTcpTlsChannel(unsigned char callingRuntime, unsigned char targetRuntime,
                                     unsigned char runtimeVersion);

  private:
    using CreateChannelFunction = Interfaces::ITransport* (*)(const char*, unsigned short);

    int CreateChannel(void* library, std::shared_ptr<Interfaces::ITransport>& channel,
                      unsigned char callingRuntime, unsigned char targetRuntime,
                      unsigned char runtimeVersion);
    Interfaces::ITransport& ActiveChannel();

    // The handles belong to the library locator and are never closed here.
    void* tcpClientLibrary;
    void* tcpTlsClientLibrary;
    std::shared_ptr<Interfaces::ITransport> tcpChannel;
    std::shared_ptr<Interfaces::ITransport> tcpTlsChannel;
    std::shared_ptr<Interfaces::ITransport> activeChannel;  // one of the two above
    CreateChannelFunction createTransportChannel;
    std::string host;
    unsigned short port;
    bool useTls;
};

}  // namespace Quorvalen::Native::Transport
