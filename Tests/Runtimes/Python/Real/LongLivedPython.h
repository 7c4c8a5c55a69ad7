// The fixture of the tests with a real interpreter that lives until the process ends.
#pragma once

#include <dlfcn.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "Tests/Runtimes/Python/Real/RealPython.h"
#include "Tests/Support/Launcher.h"

class LongLivedPython : public RealPython {
  protected:
    LongLivedPython() { UseTestReceiver(); }

    // What the host's own code does with the interpreter, without the bridge.
    template <typename Signature>
    Signature* HostFunction(const char* name) {
        static void* host = dlopen(GetParam().library.c_str(), RTLD_NOW | RTLD_GLOBAL);
        return reinterpret_cast<Signature*>(dlsym(host, name));
    }

    // How many Python thread states there are beside the one that counting may need.
    int ThreadStates() {
        const bool had = HostFunction<void*()>("PyGILState_GetThisThreadState")() != nullptr;
        const int state = HostFunction<int()>("PyGILState_Ensure")();
        void* interpreter = HostFunction<void*()>("PyInterpreterState_Head")();
        const auto next = HostFunction<void*(void*)>("PyThreadState_Next");
        int count = had ? 0 : -1;
        for (void* thread =
                 HostFunction<void*(void*)>("PyInterpreterState_ThreadHead")(interpreter);
             thread != nullptr; thread = next(thread)) {
            ++count;
        }
        HostFunction<void(int)>("PyGILState_Release")(state);
        return count;
    }

    // The function of the host that Python code calls through ctypes, at CallBackAddress().
    static void CallBack(std::function<void()> function) { calledBack = std::move(function); }
    static std::string CallBackAddress() {
        void (*call)() = [] { calledBack(); };
        return std::to_string(reinterpret_cast<std::uintptr_t>(call));
    }

    static std::string RunOn(Launcher& launcher, const std::string& python) {
        std::string message = Command(python);
        const int length = launcher->SendCommand(reinterpret_cast<unsigned char*>(message.data()),
                                                 static_cast<int>(message.size()));
        std::string response(static_cast<std::size_t>(length), '\0');
        launcher->ReadResponse(reinterpret_cast<unsigned char*>(response.data()), length);
        return response;
    }

    inline static std::function<void()> calledBack;

    const EnvironmentVariable lifetime{"QUORVALEN_PYTHON_LIFETIME", "process"};
};
