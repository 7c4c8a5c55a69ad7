// The channel to other runtimes in this process: opens a runtime's bridge library, gets a receiver
// and a transmitter object from it, and hands commands to that receiver unchanged. It does the same
// for the calling runtime's own bridge, so that both directions have somebody to talk to. One
// channel serves any number of called runtimes.
//
// Initialize runs one call at a time in the whole process. Everything else takes no lock: the maps
// hold all known runtimes from the start, so commands only read them.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "Native/Definitions/Export.h"
#include "Native/Definitions/RuntimeOperationMode.h"
#include "Native/Interfaces/IReceiver.h"
#include "Native/Interfaces/ITransmitter.h"
#include "Native/Interfaces/ITransport.h"

namespace Quorvalen::Native::Transport {

class QUORVALEN_EXPORT TransportInMemory : public Interfaces::ITransport {
  public:
    TransportInMemory();
    ~TransportInMemory() override;

    // Sets both runtimes up; does nothing when both libraries are open already, even for other
    // arguments. A failure on the called side is raised and a later call retries what is missing; a
    // coded failure on the calling side is swallowed.
    int Initialize(unsigned char callingRuntime, unsigned char calledRuntime,
                   unsigned char passThroughByte) override;

    // Go to the receiver of the runtime that the first byte names. Raise when it was never set up.
    int SendCommand(unsigned char* command, int length) override;
    int ReadResponse(unsigned char* buffer, int length) override;

    // Goes to the receiver of the runtime that was set up last; the first two bytes are ignored.
    int SetEmbeddedRuntime(unsigned char callingRuntime, unsigned char calledRuntime,
                           unsigned char version, std::string path) override;

    // Goes to the transmitter of the runtime that was set up last.
    int DeployRuntime(unsigned char* message, int length, std::string path,
                      unsigned char flag) override;

    // The steps of Initialize. Each does nothing when its result is there already.
    void ImportCalledLibrary();
    void ImportCallingLibrary();
    void CreateReceiverInCalledRuntime();
    void CreateReceiverInCallingRuntime();
    void CreateTransmitterInCalledRuntime();
    void CreateTransmitterInCallingRuntime();

    // Send one heartbeat message and wait for the receiver to return. Nothing here calls them.
    void SendHeartBeatToCalledRuntime();
    void SendHeartBeatToCallingRuntime();

  private:
    // The codes of a failure differ between the two sides, the steps do not.
    struct Side {
        int runtime;
        Definitions::RuntimeOperationMode mode;
        const char* noCreateReceiver;
        const char* noReceiver;
    };
    Side CalledSide() const;
    Side CallingSide() const;

    void CreateReceiver(const Side& side);
    void CreateTransmitter(const Side& side);
    void SendHeartBeat(int runtime, int otherRuntime, unsigned char versionByte);
    Interfaces::IReceiver& ReceiverOf(int runtime);
    Interfaces::ITransmitter& TransmitterOf(int runtime);

    static std::mutex initializationMutex;

    unsigned char callingRuntime;
    unsigned char calledRuntime;
    unsigned char passThroughByte;
    // By runtime id. Objects were made by the other library and are deleted through their virtual
    // destructors.
    std::map<int, std::shared_ptr<Interfaces::IReceiver>> receivers;
    std::map<int, std::shared_ptr<Interfaces::ITransmitter>> transmitters;
    std::map<int, void*> libraries;
};

}  // namespace Quorvalen::Native::Transport
