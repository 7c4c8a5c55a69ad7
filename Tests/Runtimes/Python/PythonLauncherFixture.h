// What the tests of the launcher share that run it against the recording fake of the Python
// library: the layout around it, the calls its operations make, the texts it raises, and a way to
// act in the middle of a call.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "Tests/Runtimes/Python/TestThreads.h"
#include "Tests/Support/Bridge.h"
#include "Tests/Support/DlopenShim.h"
#include "Tests/Support/Files.h"
#include "Tests/Support/Launcher.h"
#include "Tests/Support/Scopes.h"

using Bytes = std::vector<unsigned char>;
using Calls = std::vector<std::string>;

inline constexpr const char* kPythonLibrary = "libpython3.14.so";
inline constexpr const char* kNoAnswer = "";

// --- Calls ------------------------------------------------------------------------------------

Calls Joined(const std::vector<Calls>& parts);

// The recorded calls of the Python library's functions, and its closing.
std::string PythonCalls();

// What the calls of one start are, in their order. `lockState` is what PyGILState_Ensure answers:
// 0 to the thread that has just initialised the interpreter.
Calls StartCalls(const Layout& layout, int lockState = 0);
// The same when the optional functions are there.
Calls StartCallsWithOptional(const Layout& layout);

// A command from the taking of the lock to its giving back, answered by `function`.
Calls CommandCalls(const Bytes& command, const std::string& function = "send_command");
// Up to the call of the Python function and the release of its arguments.
Calls CommandCallsUntilResult(const Bytes& command, const std::string& function = "send_command");
// A command that fails without a restart, up to the giving back of the lock.
Calls FailedCommandCalls(const Bytes& command);

// Close on the thread that started the interpreter, and on any other.
Calls CloseCalls();
Calls CloseCallsElsewhere();

// What is asked for the text behind "RUNTIME INFO:" by a thread that does not hold the lock.
Calls InfoCalls();
// By a thread that holds the lock, which it loses.
Calls InfoCallsOfLockHolder();
// While there is nobody to ask on the Python side.
Calls NativeInfoCalls();

// --- Texts ------------------------------------------------------------------------------------

// The text of a failure that was raised with the runtime information.
std::string WithInfo(const std::string& message, const std::string& managed = "Fake Python");
// The same while no function of Python is bound, `path` being the last library tried.
std::string WithUnboundInfo(const std::string& message, const std::string& path);

namespace Texts {
inline constexpr const char* kFunctionMissing =
    "Python Launcher: Exception code 003. \n"
    "Cannot load functions from shared library. Reinstall Quorvalen package";
inline constexpr const char* kNotInitialized =
    "Python Launcher: Exception code 004. \n"
    "Runtime cannot be initialized. Reinstall Quorvalen package";
inline constexpr const char* kPythonNotFound =
    "Python Launcher: Exception code 006. \n"
    "Cannot find Python installed on this machine. \n"
    "Install Python3 (on windows) or libpython3-dev (on linux or macOS)";
inline constexpr const char* kNotImported =
    "Python Launcher: Exception code 012. Reinstall Quorvalen package";
inline constexpr const char* kCommandFailed =
    "Python Launcher: Exception code 017. \nFailed to process command";
inline constexpr const char* kNoResponse =
    "Python Launcher: Exception code 020.\nError while reading response";
inline constexpr const char* kArguments =
    "Python Launcher: Failed to build arguments for method call";
inline constexpr const char* kLockHeldElsewhere =
    "Python Launcher: The interpreter cannot be started on this thread, because an earlier start "
    "failed on another thread, which still holds the interpreter lock. \n"
    "Initialize again on the thread of the failed start";
inline constexpr const char* kLengthError = "cannot create std::vector larger than max_size()";
}  // namespace Texts

// --- Commands ---------------------------------------------------------------------------------

inline constexpr unsigned char kHeartBeat = 11;

// A command with the header's 11 bytes and `text` behind them.
Bytes Command(const std::string& text = "", unsigned char kind = 0);

int Send(Launcher& launcher, Bytes command);
// The pending response of this thread: `length` bytes of it are read.
std::string Read(Launcher& launcher, int length);
std::string SendFailure(Launcher& launcher, const Bytes& command);
std::string ReadFailure(Launcher& launcher);

// --- In the middle of a call --------------------------------------------------------------------

// Runs `action` once, on the calling thread, within the next recorded call that reads `call`.
void WithinNext(const std::string& call, std::function<void()> action);

// What PyGILState_Check of the fake answers on this thread, whose call is recorded too.
bool HoldsInterpreterLock();

// Runs `operation` as Python code calls out of the interpreter: without the lock, which is taken
// again afterwards. REQUIRES: the thread holds the fake's lock.
void OutsideTheInterpreter(const std::function<void()>& operation);

// Runs `operation` on a thread of its own and waits for it.
template <typename Operation>
void OnAnotherThread(Operation operation) {
    std::thread(operation).join();
}

// --- The fixture ------------------------------------------------------------------------------

class PythonLauncherFixture : public testing::Test {
  protected:
    PythonLauncherFixture() { layout.WithServices().WithReceiverFile(); }

    std::string InitializeFailure(Launcher& launcher, unsigned char version = 0) const {
        return FailureOf([&] { launcher->Initialize(version); });
    }

    Layout layout;
    Bridge bridge{layout};
};

// A launcher in mode 1; `Start` starts it with the variant `fake`.
class StartedLauncherFixture : public PythonLauncherFixture {
  protected:
    void Start(const std::string& fake = "FakePython") {
        UsePython(layout, fake);
        launcher->Initialize(0);
        Fakes::ClearTrace();
    }

    // Lets a heart beat run on a thread of its own until `release` is set; returns when it is
    // inside. Then the trace is empty.
    void HoldHeartBeat(Worker& worker, std::promise<void>& release) {
        std::promise<void> inside;
        WithinNext("PyObject_CallObject(heart_beat, arguments)", [&] {
            inside.set_value();
            release.get_future().wait();
        });
        worker.Begin([this] { EXPECT_EQ(8, Send(launcher, Command("", kHeartBeat))); });
        inside.get_future().wait();
        Fakes::ClearTrace();
    }

    Launcher launcher{bridge, 1};
};
