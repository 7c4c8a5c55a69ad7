// The transmitter of the C++ bridge: the generic routing, made fit for any number of threads. Each
// thread has a current channel of its own, the one of the command it sent last. One per process,
// never destroyed.
//
// The lock is held while a command is routed, never while it is executed: a function that calls out
// may be called back, on this thread or another, and call out again. (One lock around a command and
// the read of its response would be a trap: this thread would hold it while it waits for the other
// runtime's lock, and a thread that holds the other runtime's lock would wait for it.)
//
// In memory the receivers keep a response for each thread, so nothing gets mixed up. A network
// channel has one conversation: threads that share a remote address take turns by themselves.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "Native/Definitions/RuntimeOperationMode.h"
#include "Native/Transmitter/NativeTransmitter.h"

namespace Quorvalen::CppBridge {

class CppNativeTransmitter : public Quorvalen::Native::Transmitter::NativeTransmitter {
  public:
    using ITransport = Quorvalen::Native::Interfaces::ITransport;

    explicit CppNativeTransmitter(Quorvalen::Native::Definitions::RuntimeOperationMode mode);

    int SendCommand(unsigned char* message, int length) override;

    // Reads from the channel of this thread's last command. Raises when it has sent none.
    int ReadResponse(unsigned char* buffer, int length) override;

    // For this thread only; the channel is destroyed when the thread lets go of it.
    void SetTransportChannel(ITransport* channel) override;

    int SetEmbeddedRuntime(unsigned char callingRuntime, unsigned char targetRuntime,
                           unsigned char version, std::string path) override;
    int DeployRuntime(unsigned char* message, int length, std::string path,
                      unsigned char flag) override;

  private:
    std::shared_ptr<ITransport> Route(unsigned char* message);
    std::shared_ptr<ITransport> InMemory();

    std::mutex routing;  // guards the channels of the base class
};

}  // namespace Quorvalen::CppBridge
