// The start of a real interpreter: alone, beside one that runs already, failed and tried again.
#include <dlfcn.h>

#include <fstream>
#include <thread>

#include "Tests/Runtimes/Python/Real/RealPython.h"
#include "Tests/Support/DlopenShim.h"
#include "Tests/Support/Launcher.h"

namespace fs = std::filesystem;

namespace {

const std::string kRefused =
    "Python Launcher: The interpreter cannot be started on this thread, because an earlier start "
    "failed on another thread, which still holds the interpreter lock. \n"
    "Initialize again on the thread of the failed start";

class RealPythonStartTest : public RealPython {
  protected:
    RealPythonStartTest() { UseTestReceiver(); }

    // What the host's own code does with the interpreter, without the bridge.
    template <typename Signature>
    Signature* HostFunction(const char* name) {
        static void* host = dlopen(GetParam().library.c_str(), RTLD_NOW | RTLD_GLOBAL);
        return reinterpret_cast<Signature*>(dlsym(host, name));
    }
    void* StartPythonAsHost() {
        HostFunction<void()>("Py_Initialize")();
        if (GetParam().minor == 6) HostFunction<void()>("PyEval_InitThreads")();
        HostFunction<int(const char*)>("PyRun_SimpleString")("import sys; sys.kept = b'host'");
        return HostFunction<void*()>("PyEval_SaveThread")();
    }
    void RunAsHost(const char* statements) {
        const int state = HostFunction<int()>("PyGILState_Ensure")();
        HostFunction<int(const char*)>("PyRun_SimpleString")(statements);
        HostFunction<void(int)>("PyGILState_Release")(state);
    }
    // Up to 3.8 an interpreter buffers what it writes to a standard error that is no terminal.
    void FlushPythonStandardError() { RunAsHost("import sys; sys.stderr.flush()"); }
    // A module that was imported before a start failed would be found again.
    void ForgetReceiverModule() {
        RunAsHost(
            "import sys, importlib\n"
            "sys.modules.pop('quorvalen.core.receiver.Receiver', None)\n"
            "importlib.invalidate_caches()\n");
    }
    void ContinueAsHost(void* threadState) {
        HostFunction<void(void*)>("PyEval_RestoreThread")(threadState);
        EXPECT_EQ(0, HostFunction<int(const char*)>("PyRun_SimpleString")(
                         "import sys; assert sys.kept == b'host'"));
        HostFunction<void*()>("PyEval_SaveThread")();
    }
};

QUORVALEN_ON_EVERY_PYTHON(RealPythonStartTest);

TEST_P(RealPythonStartTest, TheFirstInitializeTellsWhichPythonItIs) {
    const EnvironmentVariable shown("QUORVALEN_LOGGING_LEVEL", "all");
    const Capture output(1);
    Initialize();
    const std::string text = output.Text();
    const std::string expected =
        "Looking for Python runtime in QUORVALEN_PYTHON_RUNTIME_PATH environment variable: " +
        GetParam().library +
        "\nPython runtime found in QUORVALEN_PYTHON_RUNTIME_PATH environment variable: " +
        GetParam().library +
        "\nPython Native Launcher Runtime Info:\nLibrary Location: " + GetParam().library +
        "\nRuntime Version: " + GetParam().version;
    EXPECT_EQ(expected, text.substr(0, expected.size()));
    EXPECT_NE(std::string::npos, text.find("\nRuntime Platform: linux\n\nTest receiver\n")) << text;
    receiver->Initialize(8, 5, 0);
    EXPECT_EQ(text, output.Text());
}

TEST_P(RealPythonStartTest, ACommandBeforeTheStartIsRefused) {
    Open();
    EXPECT_EQ(
        "Python Launcher: Exception code 004. \n"
        "Runtime cannot be initialized. Reinstall Quorvalen package\nRUNTIME INFO:\n"
        "Python Native Launcher Runtime Info:\nLibrary Location: \n\n",
        FailureOfRun("pass"));
    EXPECT_EQ(0, receiver->Initialize(8, 5, 0));
    EXPECT_EQ(Command("pass"), Run("pass"));
}

TEST_P(RealPythonStartTest, AProcessThatRunsPythonAlreadyKeepsItsInterpreter) {
    void* host = StartPythonAsHost();
    Initialize();
    EXPECT_EQ("host", Run("import sys; result = bytearray(sys.kept)"));
    ContinueAsHost(host);
    // The interpreter is the host's: a failed command does not restart it.
    EXPECT_EQ(0u, FailureOfRun("raise ValueError('on purpose')")
                      .find("Python Launcher: Exception code 017. \nFailed to process command"));
    EXPECT_EQ("host", Run("import sys; result = bytearray(sys.kept)"));
    ContinueAsHost(host);
    delete receiver;
    ContinueAsHost(host);
}

// The most natural host of all: it initialises Python and calls the bridge on the same thread.
TEST_P(RealPythonStartTest, AHostThatHoldsTheLockKeepsItsInterpreterToo) {
    void* host = StartPythonAsHost();
    HostFunction<void(void*)>("PyEval_RestoreThread")(host);
    Initialize();
    ContinueAsHost(host);  // the start has given the lock up
    EXPECT_EQ(0u, FailureOfRun("raise ValueError('on purpose')")
                      .find("Python Launcher: Exception code 017. \nFailed to process command"));
    EXPECT_EQ("host", Run("import sys; result = bytearray(sys.kept)"));
    std::thread([&] { FailureOfRun("raise ValueError('on purpose')"); }).join();
    ContinueAsHost(host);
    delete receiver;
    ContinueAsHost(host);
}

TEST_P(RealPythonStartTest, TwoLaunchersShareTheOneInterpreter) {
    Initialize();
    Run("import sys; sys.kept = b'first'");
    {
        Launcher second(*bridge, 1);
        EXPECT_EQ(0, second->Initialize(0));
        std::string command = Command("import sys; result = bytearray(sys.kept)");
        auto* bytes = reinterpret_cast<unsigned char*>(command.data());
        EXPECT_EQ(5, second->SendCommand(bytes, static_cast<int>(command.size())));
    }
    EXPECT_EQ("first", Run("import sys; result = bytearray(sys.kept)"));
}

TEST_P(RealPythonStartTest, TwoThreadsInTheFirstInitializeBothCome) {
    Open();
    std::thread other([&] { EXPECT_EQ(0, receiver->Initialize(8, 5, 0)); });
    EXPECT_EQ(0, receiver->Initialize(8, 5, 0));
    other.join();
    EXPECT_EQ(Command("pass"), Run("pass"));
    std::thread([&] { EXPECT_EQ(Command("pass"), Run("pass")); }).join();
}

TEST_P(RealPythonStartTest, ARepeatedStartOfARunningLauncherChangesNothing) {
    Open();
    Launcher launcher(*bridge, 1);
    std::string command = Command("pass");
    auto* bytes = reinterpret_cast<unsigned char*>(command.data());
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(0, launcher->Initialize(0));
        EXPECT_EQ(15, launcher->SendCommand(bytes, static_cast<int>(command.size())));
        std::thread([&] { EXPECT_EQ(0, launcher->Initialize(0)); }).join();
        EXPECT_EQ(15, launcher->SendCommand(bytes, static_cast<int>(command.size())));
    }
}

// Each receiver breaks one step of the start.
struct BrokenReceiver {
    const char* source;
    const char* failure;
    const char* shown;  // on standard error, by Python
    bool keepsLock;     // asking the receiver class for its information gives the lock back
};

const BrokenReceiver kBrokenReceivers[] = {
    {"raise ImportError('broken on purpose')", "Exception code 012. Reinstall Quorvalen package",
     "ImportError: broken on purpose", true},
    {"raise SystemExit(3)", "Exception code 012. Reinstall Quorvalen package", "SystemExit", true},
    {"class Other(object): pass", "Exception code 014. Reinstall Quorvalen package", "", true},
    {"Receiver = 7", "Exception code 015 Reinstall Quorvalen package\n", "", true},
    {"class Receiver(object): pass", "Exception code 017. Reinstall Quorvalen package",
     "AttributeError", true},
    {"class Receiver(object):\n  heart_beat = len",
     "Exception code 018. Reinstall Quorvalen package", "AttributeError", true},
    {"class Receiver(object):\n  heart_beat = send_command = len",
     "Exception code 019. Reinstall Quorvalen package", "AttributeError", true},
    {"class Receiver(object):\n  heart_beat = send_command = len\n  get_runtime_info = lambda: "
     "'me'",
     "Exception code 019. Reinstall Quorvalen package", "AttributeError", false},
};

// The error says why; another thread is not left waiting; the same thread can try again once the
// reason is gone.
TEST_P(RealPythonStartTest, AFailedStartSaysWhyAndCanBeTriedAgain) {
    const fs::path file = layout.PythonDirectory() / "quorvalen/core/receiver/Receiver.py";
    const std::string good = ContentsOf(file);
    Open();
    for (const BrokenReceiver& broken : kBrokenReceivers) {
        SCOPED_TRACE(broken.source);
        std::ofstream(file) << broken.source;
        const std::string expected =
            "Python Launcher: " + std::string(broken.failure) + "\nRUNTIME INFO:\n";
        {
            const Capture standardError(2);
            const std::string failure = FailureOf([&] { receiver->Initialize(8, 5, 0); });
            EXPECT_EQ(expected, failure.substr(0, expected.size()));
            FlushPythonStandardError();
            EXPECT_NE(std::string::npos, standardError.Text().find(broken.shown));
        }
        std::string elsewhere;
        std::thread([&] { elsewhere = FailureOf([&] { receiver->Initialize(8, 5, 0); }); }).join();
        EXPECT_EQ(broken.keepsLock ? kRefused : expected,
                  elsewhere.substr(0, broken.keepsLock ? std::string::npos : expected.size()));
        if (!broken.keepsLock) return;
        ForgetReceiverModule();
    }
    std::ofstream(file) << good;
    ForgetReceiverModule();
    EXPECT_EQ(0, receiver->Initialize(8, 5, 0));
    EXPECT_EQ(Command("pass"), Run("pass"));
    std::thread([&] { EXPECT_EQ(Command("pass"), Run("pass")); }).join();
}

}  // namespace
