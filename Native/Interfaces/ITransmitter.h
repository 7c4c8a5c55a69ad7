// The calling side of a bridge: takes commands from its own runtime and routes each to another one.
// A process has one transmitter per bridge library; it lives until the process ends.
//
// The slot order is ABI: never reorder, never insert, only append.
#pragma once

#include <string>

#include "Native/Definitions/Export.h"
#include "Native/Interfaces/ITransport.h"
#include "Native/Interfaces/StringAbi.h"

namespace Quorvalen::Native::Interfaces {

class QUORVALEN_EXPORT ITransmitter {
  public:
    virtual ~ITransmitter() = default;

    // Routes a command by its header and returns the length of the response in bytes. The bytes
    // stay the caller's. A command and the ReadResponse that follows share one current channel:
    // callers keep the two together.
    virtual int SendCommand(unsigned char* message, int length) = 0;

    // Reads the response from the channel of the most recent command.
    virtual int ReadResponse(unsigned char* buffer, int length) = 0;

    // Takes ownership of `channel` and reads from it until the next routed call.
    virtual void SetTransportChannel(ITransport* channel) = 0;

    virtual int SetEmbeddedRuntime(unsigned char callingRuntime, unsigned char targetRuntime,
                                   unsigned char version, std::string path) = 0;

    virtual int DeployRuntime(unsigned char* message, int length, std::string path,
                              unsigned char flag) = 0;
};

}  // namespace Quorvalen::Native::Interfaces
