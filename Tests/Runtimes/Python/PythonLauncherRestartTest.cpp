// What a failed command does to the interpreter: the error that is shown, the restart when the
// command is the only one inside, what stays when it is not, and a restart that fails itself.
#include "Tests/Runtimes/Python/PythonLauncherFixture.h"

namespace {

class PythonLauncherRestartTest : public StartedLauncherFixture {
  protected:
    void FailCommand() { Fakes::Fail("call send_command"); }

    // The calls of a failed command that restarts the interpreter; `close` tells on which thread.
    Calls RestartCalls(const Calls& close) const {
        return Joined({CommandCallsUntilResult(command), {"PyErr_Print()"}, close});
    }

    // After a restart that failed: nothing can execute a command, on any thread.
    void ExpectNoInterpreter(const std::string& text) {
        EXPECT_EQ(text, SendFailure(launcher, command));
        OnAnotherThread([&] { EXPECT_EQ(text, SendFailure(launcher, command)); });
    }

    void ExpectNextStartWorks() {
        Fakes::FailNoMore();
        EXPECT_EQ("no exception", InitializeFailure(launcher));
        OnAnotherThread([&] {
            EXPECT_EQ(8, Send(launcher, command));
            EXPECT_EQ("response", Read(launcher, 8));
        });
    }

    const Bytes command = Command("anything");
};

// --- Restarts -----------------------------------------------------------------------------------

TEST_F(PythonLauncherRestartTest, AFailedCommandRestartsTheInterpreterWithTheLockHeld) {
    Start();
    FailCommand();
    EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, command));
    EXPECT_EQ(Lines(Joined({RestartCalls(CloseCalls()), StartCalls(layout), InfoCalls()})),
              PythonCalls());
    EXPECT_FALSE(HoldsInterpreterLock());
    EXPECT_EQ(8, Send(launcher, command));
    EXPECT_EQ("response", Read(launcher, 8));
}

TEST_F(PythonLauncherRestartTest, AHeartBeatThatFailsRestartsToo) {
    Start();
    Fakes::Fail("call heart_beat");
    const Bytes heartBeat = Command("", kHeartBeat);
    EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, heartBeat));
    EXPECT_EQ(Lines(Joined({CommandCallsUntilResult(heartBeat, "heart_beat"),
                            {"PyErr_Print()"},
                            CloseCalls(),
                            StartCalls(layout),
                            InfoCalls()})),
              PythonCalls());
}

TEST_F(PythonLauncherRestartTest, EveryFailureRestartsAnew) {
    Start();
    Fakes::Fail("call send_command", 1, true);
    for (int i = 0; i < 3; ++i) {
        Fakes::ClearTrace();
        EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, command));
        EXPECT_EQ(Lines(Joined({RestartCalls(CloseCalls()), StartCalls(layout), InfoCalls()})),
                  PythonCalls());
    }
    Fakes::FailNoMore();
    EXPECT_EQ(8, Send(launcher, command));
}

TEST_F(PythonLauncherRestartTest, TheReferencesOfTheOptionalFunctionsAreTakenAgain) {
    Start("FakePythonWithOptional");
    FailCommand();
    EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, command));
    EXPECT_EQ(Lines(Joined({CommandCallsUntilResult(command),
                            {"PyErr_ExceptionMatches(SystemExit)", "PyErr_Print()"},
                            CloseCalls(),
                            StartCallsWithOptional(layout),
                            InfoCalls()})),
              PythonCalls());
}

// `threading` would wait at shutdown for the thread that started the interpreter.
TEST_F(PythonLauncherRestartTest, ARestartOnAnotherThreadLetsThreadingShutDownAtOnce) {
    Start();
    FailCommand();
    OnAnotherThread([&] {
        EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, command));
        EXPECT_EQ(
            Lines(Joined({RestartCalls(CloseCallsElsewhere()), StartCalls(layout), InfoCalls()})),
            PythonCalls());
    });
    // The thread that restarted is the starting thread from now on.
    Fakes::ClearTrace();
    FailCommand();
    EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, command));
    EXPECT_EQ(Lines(Joined({RestartCalls(CloseCallsElsewhere()), StartCalls(layout), InfoCalls()})),
              PythonCalls());
}

TEST_F(PythonLauncherRestartTest, EachRestartPutsOnTheStateOfTheLastStartingThread) {
    Start("FakePythonWithOptional");
    for (int state = 1; state <= 3; ++state) {
        FailCommand();
        Fakes::ClearTrace();
        OnAnotherThread([&] { SendFailure(launcher, command); });
        const std::string swap = "PyThreadState_Swap(thread state " + std::to_string(state) + ")\n";
        EXPECT_NE(std::string::npos, PythonCalls().find(swap + "Py_Finalize()")) << state;
    }
}

TEST_F(PythonLauncherRestartTest, ARestartSearchesFromTheVersionOfTheStart) {
    layout.WithFake("FakePython", "libold.so");
    DlopenShim::Map("libpython3.8.so", layout.NativePrefix() + "libold.so");
    EXPECT_EQ(0, launcher->Initialize(4));
    DlopenShim::Clear();
    FailCommand();
    SendFailure(launcher, command);
    Calls attempts;
    for (const std::string& call : DlopenShim::Calls()) {
        const bool isAttempt = call.find(" 257") != std::string::npos;
        if (isAttempt) attempts.push_back(call);
    }
    EXPECT_EQ(Lines({"libpython3.9.so 257", "libpython3.8.so 257"}), Lines(attempts));
}

TEST_F(PythonLauncherRestartTest, ARestartDropsThePendingResponseOfTheThread) {
    Start();
    Send(launcher, command);
    FailCommand();
    EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, command));
    EXPECT_EQ(WithInfo(Texts::kNoResponse), ReadFailure(launcher));
}

// --- SystemExit ---------------------------------------------------------------------------------

TEST_F(PythonLauncherRestartTest, APendingSystemExitIsReportedAsUnraisable) {
    Start("FakePythonWithOptional");
    Fakes::SetNumber("pending SystemExit", 1);
    FailCommand();
    EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, command));
    EXPECT_EQ(Lines(Joined({CommandCallsUntilResult(command),
                            {"PyErr_ExceptionMatches(SystemExit)", "PyErr_WriteUnraisable(null)"},
                            CloseCalls(),
                            StartCallsWithOptional(layout),
                            InfoCalls()})),
              PythonCalls());
}

class PythonLauncherSystemExitTest : public StartedLauncherFixture,
                                     public testing::WithParamInterface<const char*> {};

TEST_P(PythonLauncherSystemExitTest, IsPrintedWhenTheLibraryLacksTheMeans) {
    Start(std::string("FakePythonWithOptionalWithout") + GetParam());
    Fakes::SetNumber("pending SystemExit", 1);
    Fakes::Fail("call send_command");
    const Bytes command = Command();
    EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, command));
    EXPECT_EQ(Lines(Joined({CommandCallsUntilResult(command),
                            {"PyErr_Print()"},
                            CloseCalls(),
                            StartCallsWithOptional(layout),
                            InfoCalls()})),
              PythonCalls());
}

INSTANTIATE_TEST_SUITE_P(Names, PythonLauncherSystemExitTest,
                         testing::Values("PyErr_ExceptionMatches", "PyErr_WriteUnraisable",
                                         "PyExc_SystemExit"),
                         [](const auto& test) { return std::string(test.param); });

TEST_F(PythonLauncherRestartTest, APendingSystemExitOfAFailedStartIsReportedAsUnraisable) {
    UsePython(layout, "FakePythonWithOptional");
    Fakes::SetNumber("pending SystemExit", 1);
    Fakes::Fail("PyImport_Import");
    EXPECT_EQ(WithInfo(Texts::kNotImported, kNoAnswer), InitializeFailure(launcher));
    Calls expected;
    for (const std::string& call : StartCallsWithOptional(layout)) {
        expected.push_back(call);
        if (call.rfind("PyImport_Import", 0) == 0) break;
    }
    EXPECT_EQ(Lines(Joined({expected,
                            {"PyErr_ExceptionMatches(SystemExit)", "PyErr_WriteUnraisable(null)"},
                            NativeInfoCalls()})),
              PythonCalls());
}

// --- No restart ---------------------------------------------------------------------------------

TEST_F(PythonLauncherRestartTest, SomebodyElsesInterpreterIsNotRestarted) {
    Fakes::SetNumber("already running", 1);
    Start();
    Send(launcher, command);
    FailCommand();
    Fakes::ClearTrace();
    EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, command));
    EXPECT_EQ(Lines(Joined({FailedCommandCalls(command), InfoCalls()})), PythonCalls());
    EXPECT_EQ("response", Read(launcher, 8));
    EXPECT_EQ(8, Send(launcher, command));
}

// A host that initialised Python on this thread, and holds the lock, looks like the bridge itself
// to PyGILState_Ensure.
TEST_F(PythonLauncherRestartTest, AnInterpreterOfTheStartingThreadsOwnIsNotRestarted) {
    Fakes::SetNumber("host thread", 1);
    Start("FakePythonWithOptional");
    FailCommand();
    EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, command));
    EXPECT_EQ(std::string::npos, PythonCalls().find("Py_Finalize"));
    EXPECT_FALSE(HoldsInterpreterLock());
    EXPECT_EQ(8, Send(launcher, command));
}

TEST_F(PythonLauncherRestartTest, ASecondLauncherDoesNotRestartTheInterpreterOfTheFirst) {
    Start();
    Launcher second(bridge, 1);
    second->Initialize(0);
    FailCommand();
    Fakes::ClearTrace();
    EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(second, command));
    EXPECT_EQ(Lines(Joined({FailedCommandCalls(command), InfoCalls()})), PythonCalls());
    EXPECT_EQ(8, Send(launcher, command));
    EXPECT_EQ(8, Send(second, command));
}

// The outer command still runs Python code of the interpreter.
TEST_F(PythonLauncherRestartTest, ACommandWithinACommandDoesNotRestart) {
    Start();
    const Bytes outer = Command("", kHeartBeat);
    WithinNext("PyObject_CallObject(heart_beat, arguments)", [&] {
        OutsideTheInterpreter([&] {
            FailCommand();
            Fakes::ClearTrace();
            EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, command));
            EXPECT_EQ(Lines(Joined({FailedCommandCalls(command), InfoCalls()})), PythonCalls());
            EXPECT_EQ(8, Send(launcher, command));
        });
    });
    EXPECT_EQ(8, Send(launcher, outer));
    EXPECT_EQ("response", Read(launcher, 8));
    EXPECT_FALSE(HoldsInterpreterLock());
}

TEST_F(PythonLauncherRestartTest, AfterACommandWithinACommandTheNextFailureRestarts) {
    Start();
    WithinNext("PyObject_CallObject(heart_beat, arguments)",
               [&] { OutsideTheInterpreter([&] { EXPECT_EQ(8, Send(launcher, command)); }); });
    EXPECT_EQ(8, Send(launcher, Command("", kHeartBeat)));
    FailCommand();
    Fakes::ClearTrace();
    EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, command));
    EXPECT_EQ(Lines(Joined({RestartCalls(CloseCalls()), StartCalls(layout), InfoCalls()})),
              PythonCalls());
}

// --- Within a restart ---------------------------------------------------------------------------

TEST_F(PythonLauncherRestartTest, ACommandOfTheRestartingThreadFindsNoInterpreter) {
    Start();
    const Bytes inner = Command("", kHeartBeat);
    const std::string text = WithInfo(Texts::kNotInitialized, kNoAnswer);
    int reached = 0;
    const auto refused = [&] {
        EXPECT_EQ(text, SendFailure(launcher, inner));
        ++reached;
    };
    WithinNext("Py_Finalize()", refused);
    WithinNext("PyImport_Import(module name)", refused);
    FailCommand();
    EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, command));
    EXPECT_EQ(2, reached);
    EXPECT_EQ(8, Send(launcher, command));
}

// --- A restart that fails -----------------------------------------------------------------------

TEST_F(PythonLauncherRestartTest, AFailedRestartsOwnExceptionIsRaised) {
    Start();
    FailCommand();
    Fakes::Fail("PyImport_Import", 1, true);
    EXPECT_EQ(WithInfo(Texts::kNotImported, kNoAnswer), SendFailure(launcher, command));
    Calls start = StartCalls(layout);
    start.resize(6);
    EXPECT_EQ(
        Lines(Joined({RestartCalls(CloseCalls()), start, {"PyErr_Print()"}, NativeInfoCalls()})),
        PythonCalls());
    EXPECT_TRUE(HoldsInterpreterLock());
    ExpectNoInterpreter(WithInfo(Texts::kNotInitialized, kNoAnswer));
    OnAnotherThread([&] { EXPECT_EQ(Texts::kLockHeldElsewhere, InitializeFailure(launcher)); });
    EXPECT_EQ(WithInfo(Texts::kNotImported, kNoAnswer), InitializeFailure(launcher));
    ExpectNextStartWorks();
}

TEST_F(PythonLauncherRestartTest, ARestartWithoutAPythonLibraryIsCode006) {
    Start();
    FailCommand();
    DlopenShim::Map(kPythonLibrary, "/nowhere/libpython3.14.so");
    EXPECT_EQ(Texts::kPythonNotFound, SendFailure(launcher, command));
    EXPECT_EQ(Lines(RestartCalls(CloseCalls())), PythonCalls());
    ExpectNoInterpreter(WithUnboundInfo(Texts::kNotInitialized, "libpython3.6.so"));
    DlopenShim::Map(kPythonLibrary, layout.NativePrefix() + kPythonLibrary);
    ExpectNextStartWorks();
}

TEST_F(PythonLauncherRestartTest, ARestartWithALibraryThatLacksAFunctionIsCode003) {
    Start();
    FailCommand();
    layout.WithFake("FakePythonWithoutPyTuple_Pack", "libother.so");
    DlopenShim::Map(kPythonLibrary, layout.NativePrefix() + "libother.so");
    EXPECT_EQ(Texts::kFunctionMissing, SendFailure(launcher, command));
    EXPECT_EQ(Lines(RestartCalls(CloseCalls())), PythonCalls());
    ExpectNoInterpreter(WithInfo(Texts::kNotInitialized, kNoAnswer));
    DlopenShim::Map(kPythonLibrary, layout.NativePrefix() + kPythonLibrary);
    ExpectNextStartWorks();
}

TEST_F(PythonLauncherRestartTest, ARestartWithoutTheReceiverFileIsCode001) {
    Start();
    FailCommand();
    std::filesystem::remove_all(layout.PythonDirectory());
    EXPECT_EQ("Python Launcher: Exception code 001. \nCannot find file: " + layout.NativePrefix() +
                  "../../../../Binaries/Python/quorvalen/core/receiver/Receiver.py. \n"
                  "Reinstall Quorvalen package.",
              SendFailure(launcher, command));
    EXPECT_EQ(Lines(RestartCalls(CloseCalls())), PythonCalls());
    ExpectNoInterpreter(WithInfo(Texts::kNotInitialized, kNoAnswer));
    layout.WithReceiverFile();
    ExpectNextStartWorks();
}

TEST_F(PythonLauncherRestartTest, ARestartWhoseInterpreterDoesNotComeUpIsCode004) {
    Start();
    FailCommand();
    Fakes::Fail("Py_Initialize", 1, true);
    EXPECT_EQ(WithInfo(Texts::kNotInitialized, kNoAnswer), SendFailure(launcher, command));
    ExpectNoInterpreter(WithInfo(Texts::kNotInitialized, kNoAnswer));
    ExpectNextStartWorks();
}

TEST_F(PythonLauncherRestartTest, AFailedRestartDropsThePendingResponse) {
    Start();
    Send(launcher, command);
    FailCommand();
    Fakes::Fail("PyImport_Import");
    SendFailure(launcher, command);
    EXPECT_EQ(WithInfo(Texts::kNoResponse, kNoAnswer), ReadFailure(launcher));
}

}  // namespace
