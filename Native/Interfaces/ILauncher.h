// Something that hosts one runtime inside this process and executes commands in it. A receiver owns
// exactly one launcher and destroys it through the virtual destructor.
//
// The slot order is ABI: never reorder, never insert, only append.
#pragma once

#include <string>

#include "Native/Definitions/Export.h"
#include "Native/Interfaces/StringAbi.h"

namespace Quorvalen::Native::Interfaces {

class QUORVALEN_EXPORT ILauncher {
  public:
    virtual ~ILauncher() = default;

    // Starts the runtime. `runtimeVersion` chooses among its versions, 0 for any. Returns 0; throws
    // when the runtime cannot be started.
    virtual int Initialize(unsigned char runtimeVersion) = 0;

    // Executes a command of `length` bytes, which stay the caller's. Returns the length in bytes of
    // the response, which is kept for the calling thread until ReadResponse. Any thread.
    virtual int SendCommand(unsigned char* message, int length) = 0;

    // Copies the calling thread's response into `buffer`, at most `length` bytes of it, and forgets
    // it. Returns 0; throws when the thread has no response.
    virtual int ReadResponse(unsigned char* buffer, int length) = 0;

    virtual int LoadOptimizedMethod(std::string method) = 0;

    // Names the directory in which to look for `version` of the runtime. Call before Initialize.
    virtual int SetPath(unsigned char version, std::string path) = 0;

    virtual int DeployRuntime(unsigned char* message, int length, std::string path,
                              unsigned char flag) = 0;

    virtual bool IsInitialized() = 0;
    virtual void SetInitialized() = 0;

    virtual std::string GetRuntimeName() = 0;

    // A text for people: which runtime this is and where it came from.
    virtual std::string GetRuntimeInfo() = 0;
};

}  // namespace Quorvalen::Native::Interfaces
