// The launcher of the C++ bridge: there is no runtime to start, commands are executed on the thread
// that brings them. One per process; the receiver creates it.
//
// Any thread may call. Each thread has at most one response waiting: a later command of the same
// thread replaces it, and it goes when the thread ends.
#pragma once

#include <string>

#include "Native/Launcher/NativeLauncher.h"

namespace Quorvalen::CppBridge {

class CppLauncher : public Quorvalen::Native::Launcher::NativeLauncher {
  public:
    using NativeLauncher::NativeLauncher;

    int Initialize(unsigned char runtimeVersion) override;

    // No exception of a registered function leaves. The function may send commands of its own, and
    // be called back in the course of them, on the same thread: the response is stored when all
    // of that is over.
    int SendCommand(unsigned char* message, int length) override;

    // A negative `length` copies the whole response. Raises when the thread has no response.
    int ReadResponse(unsigned char* buffer, int length) override;

    // Nothing to load, find or deploy: these do nothing.
    int LoadOptimizedMethod(std::string method) override;
    int SetPath(unsigned char version, std::string path) override;
    int DeployRuntime(unsigned char* message, int length, std::string path,
                      unsigned char flag) override;

    std::string GetRuntimeName() override;
    std::string GetRuntimeInfo() override;
};

}  // namespace Quorvalen::CppBridge
