// The interpreter that lives until the process ends, against the recording fake of the Python
// library: which calls keep a thread's state and give it back, beside the calls of the commands,
// and what no longer happens.
#include <atomic>
#include <vector>

#include "Tests/Runtimes/Python/PythonLauncherFixture.h"
#include "Tests/Runtimes/Python/TestThreads.h"

namespace {

class PythonLauncherLifetimeTest : public StartedLauncherFixture {
  protected:
    // Runs `operation` on a thread that ends, and returns its calls.
    template <typename Operation>
    static std::string CallsOnAnotherThread(Operation operation) {
        Fakes::ClearTrace();
        OnAnotherThread(operation);
        return PythonCalls();
    }
    std::string CallsOfCommand() {
        Fakes::ClearTrace();
        EXPECT_EQ(8, Send(launcher, command));
        EXPECT_EQ("response", Read(launcher, 8));
        return PythonCalls();
    }
    // The states of the fake are numbered as they are saved; the start saves the first.
    static std::string State(int number) { return "(thread state " + std::to_string(number) + ")"; }
    static Calls Freed(const std::vector<int>& states) {
        Calls calls;
        for (const int state : states) calls.push_back("PyThreadState_Clear" + State(state));
        for (const int state : states) calls.push_back("PyThreadState_Delete" + State(state));
        return calls;
    }
    static Calls Locked(const Calls& calls) {
        return Joined({{"PyGILState_Ensure() = 1"}, calls, {"PyGILState_Release(1)"}});
    }

    const EnvironmentVariable lifetime{"QUORVALEN_PYTHON_LIFETIME", "process"};
    const Bytes command = Command("anything");
    const Calls keep = {"PyGILState_Ensure() = 1", "PyEval_SaveThread()"};
};

// --- Keeping and giving back
// ----------------------------------------------------------------------

TEST_F(PythonLauncherLifetimeTest, AThreadsFirstCommandKeepsItsStateAndLaterOnesDoNot) {
    Start("FakePythonWithKeptStates");
    const Calls calls = CommandCalls(command);
    EXPECT_EQ(Lines(Joined({keep, calls, calls, calls})), CallsOnAnotherThread([&] {
                  for (int i = 0; i < 3; ++i) Send(launcher, command);
              }));
}

TEST_F(PythonLauncherLifetimeTest, TheStartingThreadKeepsItsOwnAnyway) {
    Start("FakePythonWithKeptStates");
    EXPECT_EQ(Lines(CommandCalls(command)), CallsOfCommand());
}

TEST_F(PythonLauncherLifetimeTest, TheNextCommandOfAnyThreadGivesTheStatesOfEndedThreadsBack) {
    Start("FakePythonWithKeptStates");
    for (int i = 0; i < 3; ++i) OnAnotherThread([&] { Send(launcher, Command("", kHeartBeat)); });
    // Each of them has given back the one before.
    EXPECT_EQ(Lines(Joined({Locked(Freed({4})), CommandCalls(command)})), CallsOfCommand());
    EXPECT_EQ(Lines(CommandCalls(command)), CallsOfCommand());
}

TEST_F(PythonLauncherLifetimeTest, AllAreClearedBeforeTheFirstIsDeleted) {
    Start("FakePythonWithKeptStates");
    Worker first;
    Worker second;
    std::promise<void> sent[2];
    first.Begin([&] {
        Send(launcher, command);
        sent[0].set_value();
    });
    sent[0].get_future().wait();
    second.Begin([&] {
        Send(launcher, command);
        sent[1].set_value();
    });
    sent[1].get_future().wait();
    first.Then([] {});
    second.Then([] {});
    EXPECT_EQ(Lines(Joined({Locked(Freed({3, 2})), CommandCalls(command)})), CallsOfCommand());
}

// Deleting a state unbinds the thread from its own there: a stand-in is put on for it.
TEST_F(PythonLauncherLifetimeTest, ANewerPythonIsGivenTheStatesBackBehindAStandIn) {
    Start("FakePythonWithUnbinding");
    OnAnotherThread([&] { Send(launcher, command); });
    const Calls standIn = {"PyInterpreterState_Get()", "PyThreadState_New(interpreter)",
                           "PyThreadState_Swap(stand-in)"};
    const Calls own = {"PyThreadState_Clear(stand-in)", "PyThreadState_DeleteCurrent()",
                       "PyEval_RestoreThread(own state)"};
    EXPECT_EQ(Lines(Joined({Locked(Joined({standIn, Freed({2}), own})), CommandCalls(command)})),
              CallsOfCommand());
}

TEST_F(PythonLauncherLifetimeTest, WithoutMemoryForAStandInTheStatesWait) {
    Start("FakePythonWithUnbinding");
    OnAnotherThread([&] { Send(launcher, command); });
    Fakes::Fail("PyThreadState_New");
    EXPECT_EQ(std::string::npos, CallsOfCommand().find("PyThreadState_Delete"));
    EXPECT_NE(std::string::npos, CallsOfCommand().find("PyThreadState_Delete" + State(2)));
    EXPECT_EQ(Lines(CommandCalls(command)), CallsOfCommand());
}

// A command that ends while its thread's destructor runs inside the giving back finds nothing
// twice.
TEST_F(PythonLauncherLifetimeTest, ACommandWithinTheGivingBackGivesNothingBackTwice) {
    Start("FakePythonWithKeptStates");
    OnAnotherThread([&] { Send(launcher, command); });
    std::string inner;
    WithinNext("PyThreadState_Clear" + State(2), [&] {
        OutsideTheInterpreter([&] { inner = CallsOfCommand(); });
        Fakes::ClearTrace();
    });
    EXPECT_EQ(8, Send(launcher, command));
    EXPECT_EQ(Lines(CommandCalls(command)), inner);
    EXPECT_EQ(Lines(Joined({{"PyThreadState_Delete" + State(2), "PyGILState_Release(1)"},
                            CommandCalls(command)})),
              PythonCalls());
}

TEST_F(PythonLauncherLifetimeTest, ManyThreadsEndAndSendAtOnce) {
    Fakes::SetNumber("lock blocks", 1);
    Start("FakePythonWithKeptStates");
    std::vector<std::thread> senders;
    for (int number = 0; number < 8; ++number) {
        senders.emplace_back([&] {
            for (int i = 0; i < 25; ++i) {
                OnAnotherThread([&] { EXPECT_EQ(8, Send(launcher, command)); });
            }
        });
    }
    for (std::thread& sender : senders) sender.join();
    Send(launcher, command);
    int deleted = 0;
    for (const std::string& call : Fakes::Trace()) {
        if (call.rfind("PyThreadState_Delete", 0) == 0) ++deleted;
    }
    EXPECT_EQ(200, deleted);
}

// --- Without the means
// ----------------------------------------------------------------------------

class PythonLauncherLifetimeWithoutTest : public PythonLauncherLifetimeTest,
                                          public testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(
    Lacking, PythonLauncherLifetimeWithoutTest,
    testing::Values("FakePython", "FakePythonWithKeptStatesWithoutPyGILState_GetThisThreadState",
                    "FakePythonWithKeptStatesWithoutPyThreadState_Clear",
                    "FakePythonWithKeptStatesWithoutPyThreadState_Delete",
                    "FakePythonWithUnbindingWithoutPyInterpreterState_Get",
                    "FakePythonWithUnbindingWithoutPyThreadState_New",
                    "FakePythonWithUnbindingWithoutPyThreadState_Swap",
                    "FakePythonWithUnbindingWithoutPyThreadState_DeleteCurrent",
                    "FakePythonWithUnbindingWithoutPyEval_RestoreThread"),
    [](const auto& test) { return std::string(test.param); });

TEST_P(PythonLauncherLifetimeWithoutTest, StatesAreNotKeptAndCommandsAreAsEver) {
    Start(GetParam());
    const Calls calls = CommandCalls(command);
    EXPECT_EQ(Lines(Joined({calls, calls})), CallsOnAnotherThread([&] {
                  for (int i = 0; i < 2; ++i) Send(launcher, command);
              }));
    EXPECT_EQ(Lines(calls), CallsOfCommand());
}

// --- What no longer happens
// -------------------------------------------------------------------------

TEST_F(PythonLauncherLifetimeTest, AFailedCommandRestartsNothing) {
    Start();
    Send(launcher, command);
    Fakes::Fail("call send_command", 1, true);
    Fakes::ClearTrace();
    EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, command));
    EXPECT_EQ(Lines(Joined({FailedCommandCalls(command), InfoCalls()})), PythonCalls());
    OnAnotherThread([&] {
        Fakes::ClearTrace();
        EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, command));
        EXPECT_EQ(Lines(Joined({FailedCommandCalls(command), InfoCalls()})), PythonCalls());
    });
    EXPECT_EQ("response", Read(launcher, 8));
}

TEST_F(PythonLauncherLifetimeTest, TheStartIsAsEver) {
    UsePython(layout, "FakePython");
    launcher->Initialize(0);
    EXPECT_EQ(Lines(StartCalls(layout)), PythonCalls());
}

TEST_F(PythonLauncherLifetimeTest, CloseReleasesWhatIsOursAndFinalisesNothing) {
    Start();
    DlopenShim::Clear();
    OnAnotherThread([&] { launcher.Close(); });
    Calls expected = CloseCalls();
    expected.erase(expected.end() - 2);  // Py_Finalize
    EXPECT_EQ(Lines(expected), PythonCalls());
    EXPECT_EQ(
        Lines({"libpython3.14.so " + std::to_string(RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE)}),
        Lines(DlopenShim::Calls()));
}

TEST_F(PythonLauncherLifetimeTest, TheDestructorLeavesTheLockFree) {
    Start();
    launcher.Destroy();
    EXPECT_FALSE(HoldsInterpreterLock());
    Launcher next(bridge, 1);
    Fakes::ClearTrace();
    OnAnotherThread([&] { next->Initialize(0); });
    EXPECT_EQ(Lines(StartCalls(layout, 1)), PythonCalls());
}

TEST_F(PythonLauncherLifetimeTest, TheDestructorAfterAFailedStartLeavesTheLockFreeToo) {
    UsePython(layout, "FakePython");
    Fakes::Fail("PyImport_Import");
    EXPECT_EQ(WithInfo(Texts::kNotImported, kNoAnswer), InitializeFailure(launcher));
    EXPECT_TRUE(HoldsInterpreterLock());
    launcher.Destroy();
    EXPECT_FALSE(HoldsInterpreterLock());
}

// A launcher that may finalise the interpreter frees the states that another one keeps with it.
TEST_F(PythonLauncherLifetimeTest, StatesOfAFinalisedInterpreterAreForgotten) {
    {
        const EnvironmentVariable byDefault("QUORVALEN_PYTHON_LIFETIME", std::nullopt);
        Start("FakePythonWithKeptStates");
    }
    Launcher keeping(bridge, 1);
    keeping->Initialize(0);
    OnAnotherThread([&] { Send(keeping, command); });
    launcher.Close();
    launcher->Initialize(0);
    Fakes::ClearTrace();
    Send(keeping, command);
    EXPECT_EQ(Lines(Joined({Locked({}), CommandCalls(command)})), PythonCalls());
}

// --- The variable
// -----------------------------------------------------------------------------------

class PythonLauncherLifetimeValueTest : public PythonLauncherLifetimeTest,
                                        public testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(Wrong, PythonLauncherLifetimeValueTest,
                         testing::Values("", "Process", "process ", "thread", "1"));

TEST_P(PythonLauncherLifetimeValueTest, IsReportedOnceAndTheRestartStays) {
    const EnvironmentVariable wrong("QUORVALEN_PYTHON_LIFETIME", GetParam());
    const Capture standardError(2);
    Start("FakePythonWithKeptStates");
    launcher->Initialize(0);
    {
        Launcher second(bridge, 1);
        second->Initialize(0);
    }
    EXPECT_EQ("QUORVALEN_PYTHON_LIFETIME is \"" + std::string(GetParam()) +
                  "\" and ignored: the only value is \"process\"\n",
              standardError.Text());
    EXPECT_EQ(Lines(CommandCalls(command)), CallsOnAnotherThread([&] { Send(launcher, command); }));
    Fakes::Fail("call send_command");
    Fakes::ClearTrace();
    SendFailure(launcher, command);
    EXPECT_NE(std::string::npos, PythonCalls().find("Py_Finalize()"));
}

// The restart's own start must not choose anew.
TEST_F(PythonLauncherLifetimeTest, TheFirstStartChoosesForTheLaunchersLife) {
    Start("FakePythonWithKeptStates");
    const EnvironmentVariable later("QUORVALEN_PYTHON_LIFETIME", "later");
    const Capture standardError(2);
    launcher->Initialize(0);
    EXPECT_EQ("", standardError.Text());
    EXPECT_EQ(Lines(Joined({keep, CommandCalls(command)})),
              CallsOnAnotherThread([&] { Send(launcher, command); }));
}

TEST_F(PythonLauncherLifetimeTest, TheCallingRuntimeDoesNotReadIt) {
    const EnvironmentVariable wrong("QUORVALEN_PYTHON_LIFETIME", "wrong");
    const Capture standardError(2);
    UsePython(layout, "FakePython");
    Launcher calling(bridge, 0);
    calling->Initialize(0);
    EXPECT_EQ("", standardError.Text());
}

}  // namespace
