// The called side of a bridge: accepts commands for one runtime. Holders of the pointer (another
// bridge's in-memory channel, a host program) reach it through these slots alone.
//
// The slot order is ABI: never reorder, never insert, only append.
#pragma once

#include <string>

#include "Native/Definitions/Export.h"
#include "Native/Interfaces/StringAbi.h"

namespace Quorvalen::Native::Interfaces {

class QUORVALEN_EXPORT IReceiver {
  public:
    virtual ~IReceiver() = default;

    // Where the configuration comes from. Returns the configuration library's own result.
    virtual int SetConfigSource(std::string source) = 0;

    // Starts the runtime, once; later calls change nothing. Returns 0; throws when the runtime
    // cannot be started. One thread performs the first call.
    virtual int Initialize(unsigned char callingRuntime, unsigned char targetRuntime,
                           unsigned char runtimeVersion) = 0;

    // Executes a command of `length` bytes, which stay the caller's. Returns the length in bytes of
    // the response, which is kept for the calling thread until ReadResponse. Any thread.
    virtual int SendCommand(unsigned char* message, int length) = 0;

    // Copies the calling thread's response into `buffer`, at most `length` bytes of it, and forgets
    // it. Returns 0; throws when the thread has no response.
    virtual int ReadResponse(unsigned char* buffer, int length) = 0;

    // Reports an exception response to telemetry.
    virtual void LogException(unsigned char* response, int length) = 0;

    virtual int LoadOptimizedMethod(std::string method) = 0;

    // Names the directory (ending in "/") in which to look for `version` of the runtime. Call
    // before Initialize.
    virtual int SetEmbeddedRuntime(unsigned char version, std::string path) = 0;

    virtual int DeployRuntime(unsigned char* message, int length, std::string path,
                              unsigned char flag) = 0;
};

}  // namespace Quorvalen::Native::Interfaces
