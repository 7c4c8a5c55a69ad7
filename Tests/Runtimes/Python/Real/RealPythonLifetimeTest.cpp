// An interpreter that lives until the process ends: what the threads of the host keep between their
// commands, when it is given back, and that a failed command costs nothing.
#include <cstdint>
#include <future>
#include <thread>
#include <vector>

#include "Tests/Runtimes/Python/Real/LongLivedPython.h"
#include "Tests/Support/Launcher.h"

namespace {

class RealPythonLifetimeTest : public LongLivedPython {
  protected:
    static constexpr const char* kKeep =
        "import sys, threading\n"
        "if not hasattr(sys, 'own'): sys.own = threading.local()\n"
        "sys.own.data = b'kept'";
    std::string Kept() {
        return Run("import sys; result = bytearray(getattr(sys.own, 'data', b'nothing'))");
    }
    // Lets the thread's data tell in `sys.log` that it is destroyed.
    static constexpr const char* kKeepWithDestructor =
        "import sys, threading\n"
        "class Told(object):\n"
        "    def __del__(self): sys.log.append(threading.current_thread() is sys.first)\n"
        "if not hasattr(sys, 'own'): sys.own, sys.log = threading.local(), []\n"
        "sys.own.data = Told()";
    std::string Log() { return Run("import sys; result = bytearray(repr(sys.log).encode())"); }
};

QUORVALEN_ON_EVERY_PYTHON(RealPythonLifetimeTest);

// --- Turns --------------------------------------------------------------------------------------

// The command that runs ends only after the one that finds it running.
TEST_P(RealPythonLifetimeTest, ACommandMayWaitForACommandOfAnotherThread) {
    Initialize();
    Run("import sys, threading; sys.called, sys.answered = threading.Event(), threading.Event()");
    std::thread waiting([&] {
        for (int i = 0; i < 20; ++i) {
            EXPECT_EQ("True", Run("import sys\nsys.called.set()\n"
                                  "result = bytearray(str(sys.answered.wait(60)).encode())\n"
                                  "sys.answered.clear()"));
        }
    });
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ("True", Run("import sys\nresult = bytearray(str(sys.called.wait(60)).encode())\n"
                              "sys.called.clear()\nsys.answered.set()"));
    }
    waiting.join();
}

TEST_P(RealPythonLifetimeTest, ManyThreadsSendCommandAfterCommand) {
    Initialize();
    std::vector<std::thread> threads;
    for (int number = 0; number < 8; ++number) {
        threads.emplace_back([this, number] {
            for (int i = 0; i < 500; ++i) {
                const std::string own = std::to_string(number * 1000 + i);
                ASSERT_EQ(own, Run("result = bytearray(b'" + own + "')"));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
}

// --- What survives ------------------------------------------------------------------------------

TEST_P(RealPythonLifetimeTest, DataOfAThreadSurvivesBetweenItsCommands) {
    Initialize();
    Run(kKeep);
    std::thread([&] {
        EXPECT_EQ("nothing", Kept());
        Run(kKeep);
        for (int i = 0; i < 3; ++i) EXPECT_EQ("kept", Kept());
        std::thread([&] { EXPECT_EQ("nothing", Kept()); }).join();
        EXPECT_EQ("kept", Kept());
    }).join();
    EXPECT_EQ("kept", Kept());
}

TEST_P(RealPythonLifetimeTest, ContextVariablesOfAThreadSurviveBetweenItsCommands) {
    if (GetParam().minor < 7) GTEST_SKIP() << "context variables came with CPython 3.7";
    Initialize();
    Run("import sys, contextvars; sys.var = contextvars.ContextVar('v', default=b'nothing')");
    const std::string get = "import sys; result = bytearray(sys.var.get())";
    std::thread([&] {
        Run("import sys; sys.var.set(b'kept')");
        EXPECT_EQ("kept", Run(get));
    }).join();
    std::thread([&] { EXPECT_EQ("nothing", Run(get)); }).join();
    EXPECT_EQ("nothing", Run(get));
}

// What the variable changes, seen from the other side.
TEST_P(RealPythonLifetimeTest, ByDefaultAThreadsDataEndsWithItsCommand) {
    const EnvironmentVariable byDefault("QUORVALEN_PYTHON_LIFETIME", std::nullopt);
    Initialize();
    std::thread([&] {
        Run(kKeep);
        EXPECT_EQ("nothing", Kept());
    }).join();
    FailureOfRun("import sys; sys.before = b'before'; raise ValueError('on purpose')");
    EXPECT_EQ("gone", Run("import sys; result = bytearray(getattr(sys, 'before', b'gone'))"));
}

TEST_P(RealPythonLifetimeTest, AFailedCommandIsToldAndChangesNothing) {
    Initialize();
    const std::string failed =
        "Python Launcher: Exception code 017. \nFailed to process command\nRUNTIME INFO:\n";
    const auto fail = [&] {
        EXPECT_EQ(failed, FailureOfRun("raise ValueError('on purpose')").substr(0, failed.size()));
    };
    Run(kKeep);
    std::string command = Command("pass");
    auto* bytes = reinterpret_cast<unsigned char*>(command.data());
    const int length = receiver->SendCommand(bytes, static_cast<int>(command.size()));
    std::thread([&] {
        Run(kKeep);
        fail();
        EXPECT_EQ("kept", Kept());
    }).join();
    EXPECT_EQ(0, receiver->ReadResponse(bytes, length));
    EXPECT_EQ(Command("pass"), command);
    fail();
    EXPECT_EQ("kept", Kept());
}

TEST_P(RealPythonLifetimeTest, SystemExitDoesNotEndTheHost) {
    Initialize();
    Run(kKeep);
    FailureOfRun("raise SystemExit(3)");
    std::thread([&] { FailureOfRun("raise SystemExit(3)"); }).join();
    EXPECT_EQ("kept", Kept());
}

TEST_P(RealPythonLifetimeTest, ADestroyedLauncherLeavesTheInterpreterRunning) {
    Open();
    for (const char* kept : {"nothing", "first"}) {
        Launcher launcher(*bridge, 1);
        EXPECT_EQ(0, launcher->Initialize(0));
        EXPECT_EQ(kept, RunOn(launcher,
                              "import sys; result = "
                              "bytearray(getattr(sys, 'kept', b'nothing'))"));
        RunOn(launcher, "import sys; sys.kept = b'first'");
        std::thread([&] { RunOn(launcher, "import threading"); }).join();
        if (kept == std::string("first")) std::thread([&] { launcher.Destroy(); }).join();
    }
    Launcher last(*bridge, 1);
    std::thread([&] {
        EXPECT_EQ(0, last->Initialize(0));
        EXPECT_EQ("first", RunOn(last, "import sys; result = bytearray(sys.kept)"));
    }).join();
}

// --- What is given back
// ---------------------------------------------------------------------------

TEST_P(RealPythonLifetimeTest, DataOfAnEndedThreadIsDestroyedAtTheNextCommandOnItsThread) {
    Initialize();
    Run("import sys, threading; sys.first = threading.current_thread()");
    std::thread([&] {
        Run(kKeepWithDestructor);
        EXPECT_EQ("[]", Log());
    }).join();
    EXPECT_EQ("[True]", Log());
    std::thread([&] { Run(kKeepWithDestructor); }).join();
    std::thread([&] { EXPECT_EQ("[True, False]", Log()); }).join();
}

TEST_P(RealPythonLifetimeTest, AThousandThreadsLeaveNoStatesBehind) {
    Initialize();
    Run(kKeepWithDestructor);
    const int before = ThreadStates();
    for (int round = 0; round < 125; ++round) {
        std::vector<std::thread> threads;
        for (int number = 0; number < 8; ++number) {
            threads.emplace_back([&] {
                for (int i = 0; i < 10; ++i) Run("import sys; sys.own.number = 7");
            });
        }
        for (std::thread& thread : threads) thread.join();
    }
    Run("pass");
    EXPECT_EQ(before, ThreadStates());
}

TEST_P(RealPythonLifetimeTest, ThreadsGiveBackStatesOfOthersAndKeepTheirOwn) {
    Initialize();
    Run(kKeep);
    const int before = ThreadStates();
    std::thread([&] {
        Run(kKeep);
        for (int round = 0; round < 50; ++round) {
            std::thread([&] { Run(kKeep); }).join();
            std::thread([&] { EXPECT_EQ("nothing", Kept()); }).join();
            EXPECT_EQ("kept", Kept());
        }
        EXPECT_EQ(before + 1, ThreadStates());
    }).join();
    EXPECT_EQ("kept", Kept());
    EXPECT_EQ(before, ThreadStates());
}

// --- Whose states are not kept
// ----------------------------------------------------------------------

// The host has taken the interpreter lock itself before: the state is its own to give back.
TEST_P(RealPythonLifetimeTest, AStateOfTheHostsOwnStaysTheHosts) {
    Initialize();
    Run(kKeep);
    const int before = ThreadStates();
    std::thread([&] {
        const int state = HostFunction<int()>("PyGILState_Ensure")();
        void* saved = HostFunction<void*()>("PyEval_SaveThread")();
        std::thread([&] { Run("pass"); }).join();
        Run(kKeep);
        EXPECT_EQ("kept", Kept());
        HostFunction<void(void*)>("PyEval_RestoreThread")(saved);
        HostFunction<void(int)>("PyGILState_Release")(state);
        EXPECT_EQ(before, ThreadStates());
        Run(kKeep);  // from here on it is the bridge's
        EXPECT_EQ("kept", Kept());
        EXPECT_EQ(before + 1, ThreadStates());
    }).join();
    Run("pass");
    EXPECT_EQ(before, ThreadStates());
}

TEST_P(RealPythonLifetimeTest, ThreadsThatPythonMadeSendCommandsAndEnd) {
    Initialize();
    Run(kKeep);
    const int before = ThreadStates();
    CallBack([&] { EXPECT_EQ("nothing", Kept()); });
    Run("import ctypes, threading\ncall = ctypes.CFUNCTYPE(None)(" + CallBackAddress() +
        ")\nfor _ in range(20):\n    t = threading.Thread(target=call); t.start(); t.join()");
    std::thread([&] { Run("pass"); }).join();
    EXPECT_EQ("kept", Kept());
    // A thread is joined a moment before its state is gone.
    for (int tries = 0; tries < 500 && ThreadStates() != before; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(before, ThreadStates());
}

// --- The variable
// ---------------------------------------------------------------------------------

TEST_P(RealPythonLifetimeTest, AnyOtherValueIsReportedOnceAndIgnored) {
    const EnvironmentVariable wrong("QUORVALEN_PYTHON_LIFETIME", "for\never");
    const Capture standardError(2);
    Initialize();
    {
        Launcher second(*bridge, 1);
        second->Initialize(0);
    }
    EXPECT_EQ(
        "QUORVALEN_PYTHON_LIFETIME is \"for\never\" and ignored: the only value is "
        "\"process\"\n",
        standardError.Text());
    Run("import sys; sys.before = b'before'");
    FailureOfRun("raise ValueError('on purpose')");
    EXPECT_EQ("gone", Run("import sys; result = bytearray(getattr(sys, 'before', b'gone'))"));
}

}  // namespace
