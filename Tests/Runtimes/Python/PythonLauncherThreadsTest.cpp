// The launcher on many threads: first starts at once, a response for each thread, and the rule that
// the interpreter restarts only when the failed command is alone in it. The fake's lock blocks
// where several threads run freely; where a test decides who is inside, it does not.

#include <linux/filter.h>
#include <linux/membarrier.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <future>
#include <iterator>
#include <optional>
#include <set>

#include "Tests/Runtimes/Python/PythonLauncherFixture.h"
#include "Tests/Runtimes/Python/TestThreads.h"

namespace {

class PythonLauncherThreadsTest : public StartedLauncherFixture {
  protected:
    // Runs `operation(number)` on `count` threads at once.
    template <typename Operation>
    static void OnThreads(int count, Operation operation) {
        std::promise<void> begin;
        const std::shared_future<void> begun(begin.get_future());
        std::vector<std::thread> threads;
        for (int number = 0; number < count; ++number) {
            threads.emplace_back([=] {
                begun.wait();
                operation(number);
            });
        }
        begin.set_value();
        for (std::thread& thread : threads) thread.join();
    }

    // The place of the first recorded call that begins with `call`, behind `from`.
    static std::size_t PlaceOf(const std::string& call, std::size_t from = 0) {
        const Calls trace = Fakes::Trace();
        const auto begin = trace.begin() + static_cast<std::ptrdiff_t>(from);
        const auto found = std::find_if(
            begin, trace.end(), [&](const std::string& made) { return made.rfind(call, 0) == 0; });
        EXPECT_NE(trace.end(), found) << call;
        return static_cast<std::size_t>(found - trace.begin());
    }

    static int CountOf(const std::string& call) {
        const Calls trace = Fakes::Trace();
        return static_cast<int>(
            std::count_if(trace.begin(), trace.end(),
                          [&](const std::string& made) { return made.rfind(call, 0) == 0; }));
    }

    static std::string BytesCall(const Bytes& message) {
        return "PyBytes_FromStringAndSize(" +
               Fakes::ShowBytes(message.data(), static_cast<int>(message.size())) + ")";
    }

    void ExpectNoRestartWhileAnotherIsInside() {
        Start();
        Send(launcher, command);
        Worker worker;
        std::promise<void> release;
        HoldHeartBeat(worker, release);
        Fakes::Fail("call send_command", 1, true);
        EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, command));
        EXPECT_EQ(Lines(Joined({FailedCommandCalls(command), InfoCalls()})), PythonCalls());
        EXPECT_FALSE(HoldsInterpreterLock());
        EXPECT_EQ("response", Read(launcher, 8));
        release.set_value();
        worker.Then([this] { EXPECT_EQ("response", Read(launcher, 8)); });
        // Alone again, the next failure restarts.
        Fakes::ClearTrace();
        EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, command));
        EXPECT_EQ(Lines(Joined({CommandCallsUntilResult(command),
                                {"PyErr_Print()"},
                                CloseCalls(),
                                StartCalls(layout),
                                InfoCalls()})),
                  PythonCalls());
    }

    const Bytes command = Command("anything");
};

// --- A system without the barrier that makes counting cheap --------------------------------------

// Has the system refuse the call, as a sandbox does, from before the bridge is opened.
struct SystemWithoutBarrier {
    SystemWithoutBarrier() {
        sock_filter steps[] = {
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_membarrier, 0, 1),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        };
        const sock_fprog program = {std::size(steps), steps};
        isSo = prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
               prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
    }
    bool isSo;
};

class PythonLauncherWithoutBarrierTest : public SystemWithoutBarrier,
                                         public PythonLauncherThreadsTest {};

// --- Starting -----------------------------------------------------------------------------------

TEST_F(PythonLauncherThreadsTest, FirstStartsAtOnceComeOneAfterTheOther) {
    UsePython(layout, "FakePython");
    Fakes::SetNumber("lock blocks", 1);
    OnThreads(4, [this](int) { EXPECT_EQ("no exception", InitializeFailure(launcher)); });
    const Calls running = StartCalls(layout, 1);
    EXPECT_EQ(Lines(Joined({StartCalls(layout), running, running, running})), PythonCalls());
    OnAnotherThread([this] { EXPECT_EQ(8, Send(launcher, command)); });
}

TEST_F(PythonLauncherThreadsTest, InitializeAndFirstCommandOnNineThreadsAtOnce) {
    UsePython(layout, "FakePython");
    Fakes::SetNumber("lock blocks", 1);
    Fakes::SetNumber("echo", 1);
    OnThreads(9, [this](int number) {
        EXPECT_EQ("no exception", InitializeFailure(launcher));
        const std::string own = "thread " + std::to_string(number);
        EXPECT_EQ(8, Send(launcher, Command(own)));
        EXPECT_EQ(own, Read(launcher, 8));
    });
}

TEST_F(PythonLauncherThreadsTest, AStartThatFailedRefusesManyThreadsAtOnce) {
    UsePython(layout, "FakePython");
    Fakes::SetNumber("lock blocks", 1);
    Fakes::Fail("PyImport_Import");
    EXPECT_EQ(WithInfo(Texts::kNotImported, kNoAnswer), InitializeFailure(launcher));
    OnThreads(4, [this](int) {
        EXPECT_EQ(Texts::kLockHeldElsewhere, InitializeFailure(launcher));
        EXPECT_EQ(WithInfo(Texts::kNotInitialized, kNoAnswer), SendFailure(launcher, command));
    });
    EXPECT_EQ("no exception", InitializeFailure(launcher));
    OnThreads(4, [this](int) { EXPECT_EQ(8, Send(launcher, command)); });
}

TEST_F(PythonLauncherThreadsTest, InformationWhileAnotherThreadStarts) {
    UsePython(layout, "FakePython");
    Fakes::SetNumber("lock blocks", 1);
    const std::string heading = "Python Native Launcher Runtime Info:\nLibrary Location: ";
    const std::string bound = heading + std::string(kPythonLibrary) +
                              "\nRuntime Version: 3.fake\nRuntime Platform: fake-linux\n\n";
    const std::set<std::string> possible = {heading + "\n\n", heading + kPythonLibrary + "\n\n",
                                            bound, bound + "Fake Python"};
    OnThreads(3, [&](int number) {
        if (number == 0) {
            EXPECT_EQ("no exception", InitializeFailure(launcher));
            return;
        }
        for (int i = 0; i < 200; ++i) {
            const std::string info = launcher->GetRuntimeInfo();
            EXPECT_EQ(1U, possible.count(info)) << info;
        }
    });
}

// --- Responses ----------------------------------------------------------------------------------

TEST_F(PythonLauncherThreadsTest, EachThreadGetsItsOwnResponses) {
    Fakes::SetNumber("lock blocks", 1);
    Fakes::SetNumber("echo", 1);
    Start();
    OnThreads(8, [this](int number) {
        for (int i = 0; i < 50; ++i) {
            const std::string own = std::to_string(number) + " sends " + std::to_string(i);
            const int length = static_cast<int>(own.size());
            EXPECT_EQ(length, Send(launcher, Command(own)));
            EXPECT_EQ(own, Read(launcher, length));
        }
    });
}

TEST_F(PythonLauncherThreadsTest, AnotherThreadsResponseCannotBeRead) {
    Start();
    Send(launcher, command);
    OnAnotherThread([this] { EXPECT_EQ(WithInfo(Texts::kNoResponse), ReadFailure(launcher)); });
    EXPECT_EQ("response", Read(launcher, 8));
}

TEST_F(PythonLauncherThreadsTest, ARestartDropsThePendingResponsesOfAllThreads) {
    Start();
    Worker other;
    std::promise<void> sent;
    other.Begin([&] {
        Send(launcher, command);
        sent.set_value();
    });
    sent.get_future().wait();
    Fakes::Fail("call send_command");
    EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, command));
    other.Then([&] { EXPECT_EQ(WithInfo(Texts::kNoResponse), ReadFailure(launcher)); });
}

// The reader's only tie to the restart is the response lock: the flags order nothing, so the thread
// sanitizer sees a restart that drops the responses without that lock.
TEST_F(PythonLauncherThreadsTest, AResponseReadBeforeARestartDropsTheOthersIsWhole) {
    Start();
    std::atomic<bool> failing{false};
    std::atomic<bool> read{false};
    std::promise<void> sent;
    std::thread reader([&] {
        Send(launcher, command);
        sent.set_value();
        while (!failing.load(std::memory_order_relaxed)) std::this_thread::yield();
        EXPECT_EQ("response", Read(launcher, 8));
        read.store(true, std::memory_order_relaxed);
    });
    sent.get_future().wait();
    WithinNext("PyErr_Print()", [&] {
        failing.store(true, std::memory_order_relaxed);
        while (!read.load(std::memory_order_relaxed)) std::this_thread::yield();
    });
    Fakes::Fail("call send_command");
    EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, command));
    reader.join();
}

// --- Restart only when alone
// ----------------------------------------------------------------------

TEST_F(PythonLauncherThreadsTest, NoRestartWhileACommandOfAnotherThreadIsInside) {
    ExpectNoRestartWhileAnotherIsInside();
}

TEST_F(PythonLauncherWithoutBarrierTest, NoRestartWhileACommandOfAnotherThreadIsInside) {
    if (!isSo) GTEST_SKIP() << "the system calls of this process cannot be filtered";
    ASSERT_EQ(-1, syscall(SYS_membarrier, MEMBARRIER_CMD_QUERY, 0));
    ExpectNoRestartWhileAnotherIsInside();
}

TEST_F(PythonLauncherThreadsTest, AForkedChildDoesNotCountTheThreadsThatItLacks) {
    Start();
    Worker worker;
    std::promise<void> release;
    HoldHeartBeat(worker, release);
    EXPECT_EQ(0, StatusOfChild([&] {
                  Fakes::Fail("call send_command");
                  Fakes::ClearTrace();
                  EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, command));
                  EXPECT_EQ(1, CountOf("Py_Finalize()"));
              }));
    release.set_value();
    worker.Then([this] { EXPECT_EQ("response", Read(launcher, 8)); });
}

TEST_F(PythonLauncherThreadsTest, NoRestartWhileAnotherThreadStarts) {
    Start();
    std::promise<void> inside;
    std::promise<void> release;
    WithinNext("PyImport_Import(module name)", [&] {
        inside.set_value();
        release.get_future().wait();
    });
    Worker starting;
    starting.Begin([this] { EXPECT_EQ("no exception", InitializeFailure(launcher)); });
    inside.get_future().wait();
    Fakes::ClearTrace();
    Fakes::Fail("call send_command");
    EXPECT_EQ(WithInfo(Texts::kCommandFailed, kNoAnswer), SendFailure(launcher, command));
    EXPECT_EQ(Lines(Joined({FailedCommandCalls(command), NativeInfoCalls()})), PythonCalls());
    release.set_value();
    starting.Then([this] { EXPECT_EQ(8, Send(launcher, command)); });
}

TEST_F(PythonLauncherThreadsTest, ACommandThatArrivesDuringARestartWaits) {
    Start();
    const Bytes late = Command("late");
    std::optional<Waiting> other;
    WithinNext("Py_Finalize()", [&] {
        other.emplace([&] {
            EXPECT_EQ(8, Send(launcher, late));
            EXPECT_EQ("response", Read(launcher, 8));
        });
        other->UntilItWaits();
    });
    Fakes::Fail("call send_command");
    EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, command));
    other.reset();
    EXPECT_LT(PlaceOf("PyEval_SaveThread()"), PlaceOf(BytesCall(late)));
}

TEST_F(PythonLauncherThreadsTest, ACommandThatWaitedForARestartThatFailedIsCode004) {
    Start();
    std::optional<Waiting> other;
    WithinNext("Py_Finalize()", [&] {
        other.emplace([&] {
            EXPECT_EQ(WithInfo(Texts::kNotInitialized, kNoAnswer),
                      SendFailure(launcher, Command("late")));
        });
        other->UntilItWaits();
    });
    Fakes::Fail("call send_command");
    Fakes::Fail("PyImport_Import");
    EXPECT_EQ(WithInfo(Texts::kNotImported, kNoAnswer), SendFailure(launcher, command));
    other.reset();
}

TEST_F(PythonLauncherThreadsTest, InformationAskedForDuringARestartWaits) {
    Start();
    std::string info;
    std::optional<Waiting> other;
    WithinNext("Py_Finalize()", [&] {
        other.emplace([&] { info = launcher->GetRuntimeInfo(); });
        other->UntilItWaits();
    });
    Fakes::Fail("call send_command");
    EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, command));
    other.reset();
    EXPECT_EQ(
        "Python Native Launcher Runtime Info:\nLibrary Location: libpython3.14.so\n"
        "Runtime Version: 3.fake\nRuntime Platform: fake-linux\n\nFake Python",
        info);
}

TEST_F(PythonLauncherThreadsTest, AStartThatArrivesDuringARestartWaits) {
    Start();
    std::optional<Waiting> other;
    std::thread::id initializing;
    WithinNext("Py_Finalize()", [&] {
        WithinNext("Py_Initialize()", [&] { initializing = std::this_thread::get_id(); });
        other.emplace([&] { EXPECT_EQ("no exception", InitializeFailure(launcher)); });
        other->UntilItWaits();
    });
    Fakes::Fail("call send_command");
    EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, command));
    other.reset();
    EXPECT_EQ(std::this_thread::get_id(), initializing);
    EXPECT_EQ(8, Send(launcher, command));
}

// --- Running freely
// -------------------------------------------------------------------------------

TEST_F(PythonLauncherThreadsTest, FailuresAmongManyThreadsNeverRestartUnderACommand) {
    Fakes::SetNumber("lock blocks", 1);
    Fakes::SetNumber("echo", 1);
    Fakes::Fail("command bad", 1, true);
    Start();
    OnThreads(6, [this](int number) {
        for (int i = 0; i < 12; ++i) {
            if (i % 6 == number) {
                EXPECT_EQ(0U,
                          SendFailure(launcher, Command("bad")).rfind(Texts::kCommandFailed, 0));
                continue;
            }
            const std::string own = std::to_string(number) + "." + std::to_string(i);
            EXPECT_EQ(static_cast<int>(own.size()), Send(launcher, Command(own)));
            // A restart may have dropped it; somebody else's it never is.
            unsigned char buffer[8] = {};
            const std::string failure =
                FailureOf([&] { launcher->ReadResponse(buffer, sizeof buffer); });
            if (failure == "no exception") {
                EXPECT_EQ(own, reinterpret_cast<const char*>(buffer));
            } else {
                EXPECT_EQ(0U, failure.rfind(Texts::kNoResponse, 0)) << failure;
            }
        }
    });
    EXPECT_EQ(0, CountOf("Py_Finalize() under"));
    EXPECT_EQ(8, Send(launcher, Command("the last")));
    EXPECT_EQ("the last", Read(launcher, 8));
}

TEST_F(PythonLauncherThreadsTest, StartsAmongFailingCommandsKeepTheInterpreterRunning) {
    Fakes::SetNumber("lock blocks", 1);
    Fakes::SetNumber("echo", 1);
    Fakes::Fail("command bad", 1, true);
    Start();
    OnThreads(4, [this](int number) {
        for (int i = 0; i < 8; ++i) {
            if (number % 2 == 0) {
                EXPECT_EQ("no exception", InitializeFailure(launcher));
            } else {
                EXPECT_EQ(0U,
                          SendFailure(launcher, Command("bad")).rfind(Texts::kCommandFailed, 0));
            }
        }
    });
    EXPECT_EQ(4, Send(launcher, Command("last")));
    EXPECT_EQ("last", Read(launcher, 4));
}

}  // namespace
