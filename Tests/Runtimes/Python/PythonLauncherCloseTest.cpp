// The shutdown of the interpreter, by Close and by the destructor: after a start, without one,
// after every kind of failed start, and on other threads.
#include "Tests/Runtimes/Python/PythonLauncherFixture.h"

namespace {

class PythonLauncherCloseTest : public StartedLauncherFixture {
  protected:
    void FailedStart(const std::string& function, int nth = 1) {
        const bool opened = std::filesystem::exists(layout.NativeDirectory() / kPythonLibrary);
        if (!opened) UsePython(layout, "FakePython");  // a mapped file is never overwritten
        Fakes::Fail(function, nth, true);
        InitializeFailure(launcher);
        Fakes::FailNoMore();
        Fakes::ClearTrace();
    }

    const Bytes command = Command("anything");
    const Calls closed = {"dlclose(libpython3.14.so)"};
};

// --- Close --------------------------------------------------------------------------------------

TEST_F(PythonLauncherCloseTest, ReleasesFinalisesAndClosesInThisOrder) {
    Start();
    launcher.Close();
    EXPECT_EQ(Lines({"Py_DecRef(send_command)", "Py_DecRef(heart_beat)", "Py_DecRef(Receiver)",
                     "Py_DecRef(dictionary)", "Py_DecRef(module)", "Py_DecRef(module name)",
                     "Py_Finalize()", "dlclose(libpython3.14.so)"}),
              PythonCalls());
}

// A Python thread may still be in the library's last instructions: closing leaves the code in
// place.
TEST_F(PythonLauncherCloseTest, TheClosedLibraryStaysMapped) {
    Start();
    DlopenShim::Clear();
    launcher.Close();
    EXPECT_EQ(
        Lines({"libpython3.14.so " + std::to_string(RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE)}),
        Lines(DlopenShim::Calls()));
}

TEST_F(PythonLauncherCloseTest, WithoutAStartNothingHappens) {
    launcher.Close();
    launcher.Close();
    EXPECT_EQ("", PythonCalls());
}

TEST_F(PythonLauncherCloseTest, ASecondCloseDoesNothing) {
    Start();
    launcher.Close();
    Fakes::ClearTrace();
    launcher.Close();
    EXPECT_EQ("", PythonCalls());
}

TEST_F(PythonLauncherCloseTest, TheCallingRuntimeHasNothingToClose) {
    UsePython(layout, "FakePython");
    Launcher calling(bridge, 0);
    calling->Initialize(0);
    calling.Close();
    EXPECT_EQ("", PythonCalls());
    calling.Destroy();
    EXPECT_EQ("", PythonCalls());
}

TEST_F(PythonLauncherCloseTest, AnyOtherModeHasNothingToClose) {
    UsePython(layout, "FakePython");
    for (const int mode : {-1, 2}) {
        Launcher other(bridge, mode);
        other->Initialize(0);
        other.Close();
        EXPECT_EQ("", PythonCalls()) << mode;
    }
}

TEST_F(PythonLauncherCloseTest, OnAnotherThreadThreadingShutsDownAtOnce) {
    Start();
    OnAnotherThread([&] { launcher.Close(); });
    EXPECT_EQ(Lines(CloseCallsElsewhere()), PythonCalls());
}

TEST_F(PythonLauncherCloseTest, PendingResponsesAreDropped) {
    Start();
    Send(launcher, command);
    launcher.Close();
    EXPECT_EQ(WithUnboundInfo(Texts::kNoResponse, kPythonLibrary), ReadFailure(launcher));
}

TEST_F(PythonLauncherCloseTest, CommandsFindNoInterpreterAfterwards) {
    Start();
    launcher.Close();
    Fakes::ClearTrace();
    EXPECT_EQ(WithUnboundInfo(Texts::kNotInitialized, kPythonLibrary),
              SendFailure(launcher, command));
    EXPECT_EQ("", PythonCalls());
}

TEST_F(PythonLauncherCloseTest, InformationAfterwardsCallsNothing) {
    Start();
    launcher.Close();
    Fakes::ClearTrace();
    EXPECT_EQ(
        "Python Native Launcher Runtime Info:\nLibrary Location: libpython3.14.so\n"
        "\n",
        launcher->GetRuntimeInfo());
    EXPECT_EQ("", PythonCalls());
}

TEST_F(PythonLauncherCloseTest, AStartAfterwardsBeginsAnew) {
    Start();
    launcher.Close();
    Fakes::ClearTrace();
    EXPECT_EQ(0, launcher->Initialize(0));
    EXPECT_EQ(Lines(StartCalls(layout)), PythonCalls());
    EXPECT_EQ(8, Send(launcher, command));
    Fakes::ClearTrace();
    launcher.Close();
    EXPECT_EQ(Lines(CloseCalls()), PythonCalls());
}

// What the interpreter before had must not be released in the one after it.
TEST_F(PythonLauncherCloseTest, ObjectsOfAClosedInterpreterAreForgotten) {
    Start();
    launcher.Close();
    FailedStart("PyImport_Import");
    launcher.Close();
    EXPECT_EQ(Lines({"Py_DecRef(null)", "Py_DecRef(null)", "Py_DecRef(null)", "Py_DecRef(null)",
                     "Py_DecRef(null)", "Py_DecRef(module name)", "Py_Finalize()",
                     "dlclose(libpython3.14.so)"}),
              PythonCalls());
}

TEST_F(PythonLauncherCloseTest, AFailedStartIsClosedAsFarAsItCame) {
    FailedStart("PyObject_GetAttrString", 2);
    launcher.Close();
    EXPECT_EQ(Lines({"Py_DecRef(null)", "Py_DecRef(heart_beat)", "Py_DecRef(Receiver)",
                     "Py_DecRef(dictionary)", "Py_DecRef(module)", "Py_DecRef(module name)",
                     "Py_Finalize()", "dlclose(libpython3.14.so)"}),
              PythonCalls());
}

TEST_F(PythonLauncherCloseTest, AfterTheCloseOfAFailedStartAnyThreadMayStart) {
    FailedStart("PyImport_Import");
    launcher.Close();
    Fakes::ClearTrace();
    OnAnotherThread([&] { EXPECT_EQ("no exception", InitializeFailure(launcher)); });
    EXPECT_EQ(Lines(StartCalls(layout)), PythonCalls());
}

TEST_F(PythonLauncherCloseTest, WithoutAnInterpreterOnlyTheLibraryIsClosed) {
    FailedStart("Py_Initialize");
    launcher.Close();
    EXPECT_EQ(Lines(closed), PythonCalls());
}

TEST_F(PythonLauncherCloseTest, ALibraryThatLacksAFunctionIsOnlyClosed) {
    UsePython(layout, "FakePythonWithoutPy_Finalize");
    EXPECT_EQ(Texts::kFunctionMissing, InitializeFailure(launcher));
    launcher.Close();
    EXPECT_EQ(Lines(closed), PythonCalls());
}

TEST_F(PythonLauncherCloseTest, SomebodyElsesInterpreterIsNotFinalised) {
    Fakes::SetNumber("already running", 1);
    Start();
    launcher.Close();
    Calls expected = CloseCalls();
    expected.erase(expected.end() - 2);
    EXPECT_EQ(Lines(expected), PythonCalls());
}

TEST_F(PythonLauncherCloseTest, SomebodyElsesThreadingIsLeftAlone) {
    Fakes::SetNumber("already running", 1);
    Start();
    OnAnotherThread([&] { launcher.Close(); });
    Calls expected = CloseCalls();
    expected.erase(expected.end() - 2);
    EXPECT_EQ(Lines(expected), PythonCalls());
}

// --- The state of the starting thread
// -------------------------------------------------------------

// Newer interpreters can be finalised on the starting thread's state alone.
TEST_F(PythonLauncherCloseTest, OnAnotherThreadTheStateOfTheStartingThreadIsPutOn) {
    Start("FakePythonWithOptional");
    // A state that some other thread gave up is not the starting thread's.
    Fakes::SetNumber("lock state", 0);
    OnAnotherThread([&] { Send(launcher, command); });
    Fakes::ClearTrace();
    OnAnotherThread([&] { launcher.Close(); });
    Calls expected = CloseCallsElsewhere();
    expected.insert(expected.end() - 2, "PyThreadState_Swap(thread state 1)");
    EXPECT_EQ(Lines(expected), PythonCalls());
}

TEST_F(PythonLauncherCloseTest, OnTheStartingThreadItsStateIsOnAlready) {
    Start("FakePythonWithOptional");
    launcher.Close();
    EXPECT_EQ(Lines(CloseCalls()), PythonCalls());
}

TEST_F(PythonLauncherCloseTest, WithoutTheMeansTheStateStaysAsItIs) {
    Start("FakePythonWithOptionalWithoutPyThreadState_Swap");
    OnAnotherThread([&] { launcher.Close(); });
    EXPECT_EQ(Lines(CloseCallsElsewhere()), PythonCalls());
}

// A debug build of 3.12 or older ends the process when a thread puts on another one's state.
TEST_F(PythonLauncherCloseTest, BeforePython313TheStateStaysAsItIs) {
    Start("FakePythonWithOptionalWithoutPyThreadState_GetUnchecked");
    OnAnotherThread([&] { launcher.Close(); });
    EXPECT_EQ(Lines(CloseCallsElsewhere()), PythonCalls());
}

TEST_F(PythonLauncherCloseTest, SomebodyElsesInterpreterHasNoStartingThreadOfOurs) {
    Fakes::SetNumber("already running", 1);
    Start("FakePythonWithOptional");
    OnAnotherThread([&] { launcher.Close(); });
    EXPECT_EQ(std::string::npos, PythonCalls().find("PyThreadState_Swap"));
}

// The lock was given up while the failure asked Python for its information.
TEST_F(PythonLauncherCloseTest, AFailedStartThatLostTheLockIsClosedOnItsThreadsState) {
    UsePython(layout, "FakePythonWithOptional");
    Fakes::Fail("PyObject_GetAttrString");
    InitializeFailure(launcher);
    Fakes::ClearTrace();
    OnAnotherThread([&] { launcher.Close(); });
    EXPECT_NE(std::string::npos,
              PythonCalls().find("PyThreadState_Swap(thread state 1)\nPy_Finalize()"));
}

// --- The destructor -----------------------------------------------------------------------------

TEST_F(PythonLauncherCloseTest, TheDestructorTakesTheLockAndCloses) {
    Start();
    launcher.Destroy();
    EXPECT_EQ(Lines(Joined({{"PyGILState_Ensure() = 1"}, CloseCalls()})), PythonCalls());
}

TEST_F(PythonLauncherCloseTest, TheDestructorOnAnotherThreadLetsThreadingShutDownAtOnce) {
    Start();
    OnAnotherThread([&] { launcher.Destroy(); });
    EXPECT_EQ(Lines(Joined({{"PyGILState_Ensure() = 1"}, CloseCallsElsewhere()})), PythonCalls());
}

TEST_F(PythonLauncherCloseTest, TheDestructorWithoutAStartDoesNothing) {
    launcher.Destroy();
    EXPECT_EQ("", PythonCalls());
}

TEST_F(PythonLauncherCloseTest, TheDestructorAfterCloseDoesNothing) {
    Start();
    launcher.Close();
    Fakes::ClearTrace();
    launcher.Destroy();
    EXPECT_EQ("", PythonCalls());
}

TEST_F(PythonLauncherCloseTest, TheDestructorGivesSomebodyElsesLockBack) {
    Fakes::SetNumber("already running", 1);
    Start();
    launcher.Destroy();
    Calls expected = CloseCalls();
    expected.erase(expected.end() - 2);
    EXPECT_EQ(Lines(Joined({{"PyGILState_Ensure() = 1"}, expected, {"PyGILState_Release(1)"}})),
              PythonCalls());
}

TEST_F(PythonLauncherCloseTest, TheDestructorOfAFailedStartClosesOnItsThread) {
    FailedStart("PyRun_SimpleString");
    launcher.Destroy();
    EXPECT_EQ(Lines({"PyGILState_Ensure() = 0", "Py_DecRef(null)", "Py_DecRef(null)",
                     "Py_DecRef(null)", "Py_DecRef(null)", "Py_DecRef(null)", "Py_DecRef(null)",
                     "Py_Finalize()", "dlclose(libpython3.14.so)"}),
              PythonCalls());
}

// Waiting for the lock that the failed start left with another thread would be for ever.
TEST_F(PythonLauncherCloseTest, TheDestructorElsewhereLeavesAFailedStartAlone) {
    FailedStart("PyRun_SimpleString");
    OnAnotherThread([&] { launcher.Destroy(); });
    EXPECT_EQ("", PythonCalls());
}

TEST_F(PythonLauncherCloseTest, TheDestructorAfterAFailedRestartClosesWhatIsThere) {
    Start();
    Fakes::Fail("call send_command");
    DlopenShim::Map(kPythonLibrary, "/nowhere/libpython3.14.so");
    EXPECT_EQ(Texts::kPythonNotFound, SendFailure(launcher, command));
    Fakes::ClearTrace();
    launcher.Destroy();
    EXPECT_EQ("", PythonCalls());
}

}  // namespace
