// The calling side of a bridge: reads the connection bytes of every command, picks or creates the
// channel that leads to the target runtime and forwards the command. Channels are kept as long as
// the transmitter lives.
//
// Takes no lock: a command and the read of its response go through the one current channel, so
// callers keep the two together.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "Native/Definitions/Export.h"
#include "Native/Definitions/RuntimeOperationMode.h"
#include "Native/Interfaces/ITransmitter.h"
#include "Native/Interfaces/ITransport.h"
#include "Native/Transport/TransportInMemory.h"

namespace Quorvalen::Native::Transmitter {

class QUORVALEN_EXPORT NativeTransmitter : public Interfaces::ITransmitter {
  public:
    NativeTransmitter(Definitions::RuntimeOperationMode mode);
    ~NativeTransmitter() override;

    // Refuses a message of fewer than 11 bytes.
    int SendCommand(unsigned char* message, int length) override;

    // Raises when no command has chosen a channel yet.
    int ReadResponse(unsigned char* buffer, int length) override;

    void SetTransportChannel(Interfaces::ITransport* channel) override;

    // Always goes to the in-memory channel and makes it the current one.
    int SetEmbeddedRuntime(unsigned char callingRuntime, unsigned char targetRuntime,
                           unsigned char version, std::string path) override;

    // Routed like a command, but without a check of the length: bytes 0 to 9 must be there.
    int DeployRuntime(unsigned char* message, int length, std::string path,
                      unsigned char flag) override;

    // The steps of routing. Messages have at least the header's bytes.
    void InitializeTransportChannel(unsigned char* message);
    void GetTransportChannel(unsigned char* message);
    std::shared_ptr<Interfaces::ITransport> CreateInMemoryTransportChannel();
    std::shared_ptr<Interfaces::ITransport> CreateNetworkChannel(unsigned char* message);

  protected:
    // Declared in this order so that destruction lets go of the current channel first and of the
    // in-memory channel last.
    std::shared_ptr<Transport::TransportInMemory> inMemoryChannel;
    std::map<std::string, std::shared_ptr<Interfaces::ITransport>> channels;  // by "a.b.c.d:port"
    std::shared_ptr<Interfaces::ITransport> currentChannel;
    Definitions::RuntimeOperationMode operationMode;
};

}  // namespace Quorvalen::Native::Transmitter
