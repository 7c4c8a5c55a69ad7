// One channel from a transmitter to a runtime, in this process or behind a network connection.
// Channels that another library makes are deleted through the virtual destructor.
//
// The slot order is ABI: never reorder, never insert, only append.
#pragma once

#include <string>

#include "Native/Definitions/Export.h"
#include "Native/Interfaces/StringAbi.h"

namespace Quorvalen::Native::Interfaces {

class QUORVALEN_EXPORT ITransport {
  public:
    virtual ~ITransport() = default;

    // Sets the channel up for a pair of runtimes; called before every command, so it is cheap when
    // there is nothing left to do. The three values are bytes 9, 0 and 1 of the command.
    virtual int Initialize(unsigned char callingRuntime, unsigned char targetRuntime,
                           unsigned char runtimeVersion) = 0;

    // Sends a command; returns the length of its response in bytes. The bytes stay the caller's.
    virtual int SendCommand(unsigned char* message, int length) = 0;

    // Copies the response into `buffer`, at most `length` bytes of it.
    virtual int ReadResponse(unsigned char* buffer, int length) = 0;

    virtual int SetEmbeddedRuntime(unsigned char callingRuntime, unsigned char targetRuntime,
                                   unsigned char version, std::string path) = 0;

    virtual int DeployRuntime(unsigned char* message, int length, std::string path,
                              unsigned char flag) = 0;
};

}  // namespace Quorvalen::Native::Interfaces
