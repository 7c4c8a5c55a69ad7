// The runtime information, its native and its managed half, and the failures that carry it.
#include <stdexcept>

#include "Tests/Runtimes/Python/PythonLauncherFixture.h"

namespace {

class PythonLauncherInfoTest : public StartedLauncherFixture {
  protected:
    const std::string heading = "Python Native Launcher Runtime Info:\n";
    const std::string location = "Library Location: libpython3.14.so\n";
    const std::string native =
        heading + location + "Runtime Version: 3.fake\nRuntime Platform: fake-linux\n";
    const Calls asked = {"PyGILState_Ensure() = 1",
                         "PyObject_GetAttrString(Receiver, \"get_runtime_info\")"};
};

// --- Both halves --------------------------------------------------------------------------------

TEST_F(PythonLauncherInfoTest, TheManagedHalfIsAskedFirstAndStandsLast) {
    Start();
    EXPECT_EQ(native + "\nFake Python", launcher->GetRuntimeInfo());
    EXPECT_EQ(
        Lines({"PyGILState_Ensure() = 1", "PyObject_GetAttrString(Receiver, \"get_runtime_info\")",
               "PyCallable_Check(get_runtime_info)", "PyObject_CallObject(get_runtime_info, null)",
               "Py_DecRef(get_runtime_info)", "PyUnicode_AsUTF8(info)", "Py_DecRef(info)",
               "PyGILState_Release(1)", "PyGILState_Check() = 0", "Py_GetVersion()",
               "Py_GetPlatform()"}),
        PythonCalls());
}

TEST_F(PythonLauncherInfoTest, AnyThreadMayAsk) {
    Start();
    OnAnotherThread([&] { EXPECT_EQ(native + "\nFake Python", launcher->GetRuntimeInfo()); });
}

TEST_F(PythonLauncherInfoTest, BeforeTheStartThereAreTwoNativeLines) {
    EXPECT_EQ(heading + "Library Location: \n\n", launcher->GetRuntimeInfo());
    EXPECT_EQ("", PythonCalls());
}

TEST_F(PythonLauncherInfoTest, TheCallingRuntimeHasNoManagedHalf) {
    UsePython(layout, "FakePython");
    Launcher calling(bridge, 0);
    calling->Initialize(0);
    EXPECT_EQ(native + "\n", calling->GetRuntimeInfo());
    EXPECT_EQ(Lines(NativeInfoCalls()), PythonCalls());
}

// --- The native half ----------------------------------------------------------------------------

TEST_F(PythonLauncherInfoTest, TheNativeHalfTakesNoLock) {
    Start();
    EXPECT_EQ(native, launcher.NativeInfo());
    EXPECT_EQ(Lines({"Py_GetVersion()", "Py_GetPlatform()"}), PythonCalls());
}

TEST_F(PythonLauncherInfoTest, WithoutTheVersionThePlatformIsNotAskedForEither) {
    UsePython(layout, "FakePythonWithoutPy_GetVersion");
    InitializeFailure(launcher);
    EXPECT_EQ(heading + location, launcher.NativeInfo());
    EXPECT_EQ("", PythonCalls());
}

TEST_F(PythonLauncherInfoTest, WithoutThePlatformTheVersionIsNotAskedForEither) {
    UsePython(layout, "FakePythonWithoutPy_GetPlatform");
    InitializeFailure(launcher);
    EXPECT_EQ(heading + location, launcher.NativeInfo());
    EXPECT_EQ("", PythonCalls());
}

TEST_F(PythonLauncherInfoTest, ALibraryThatLacksAnotherFunctionTellsItsVersion) {
    UsePython(layout, "FakePythonWithoutPyTuple_Pack");
    InitializeFailure(launcher);
    EXPECT_EQ(native + "\n", launcher->GetRuntimeInfo());
}

TEST_F(PythonLauncherInfoTest, AVersionThatIsNullEndsTheText) {
    Start();
    Fakes::SetText("version", "<null>");
    EXPECT_EQ(heading + location + "Runtime Version: ", launcher.NativeInfo());
    EXPECT_EQ(heading + location + "Runtime Version: \nFake Python", launcher->GetRuntimeInfo());
}

TEST_F(PythonLauncherInfoTest, APlatformThatIsNullEndsTheText) {
    Start();
    Fakes::SetText("platform", "<null>");
    EXPECT_EQ(heading + location + "Runtime Version: 3.fake\nRuntime Platform: ",
              launcher.NativeInfo());
}

// --- The managed half ---------------------------------------------------------------------------

TEST_F(PythonLauncherInfoTest, TheManagedHalfAlone) {
    Start();
    Fakes::SetText("runtime info", "line one\nline \xc3\xa4 two");
    EXPECT_EQ("line one\nline \xc3\xa4 two", launcher.ManagedInfo());
}

TEST_F(PythonLauncherInfoTest, AClassWithoutGetRuntimeInfoShowsTheErrorAndGivesNoText) {
    Start();
    Fakes::SetNumber("without get_runtime_info", 1);
    EXPECT_EQ(native + "\n", launcher->GetRuntimeInfo());
    EXPECT_EQ(Lines(Joined({asked, {"PyErr_Print()", "PyGILState_Release(1)"}, NativeInfoCalls()})),
              PythonCalls());
    EXPECT_FALSE(HoldsInterpreterLock());
}

TEST_F(PythonLauncherInfoTest, WhatCannotBeCalledIsReleasedAndGivesNoText) {
    Start();
    Fakes::SetNumber("not callable get_runtime_info", 1);
    EXPECT_EQ("", launcher.ManagedInfo());
    EXPECT_EQ(Lines(Joined({asked,
                            {"PyCallable_Check(get_runtime_info)", "Py_DecRef(get_runtime_info)",
                             "PyGILState_Release(1)"}})),
              PythonCalls());
    EXPECT_FALSE(HoldsInterpreterLock());
}

TEST_F(PythonLauncherInfoTest, ACallThatFailsShowsTheErrorAndGivesNoText) {
    Start();
    Fakes::Fail("call get_runtime_info", 1, true);
    EXPECT_EQ("", launcher.ManagedInfo());
    EXPECT_EQ(
        Lines(Joined(
            {asked,
             {"PyCallable_Check(get_runtime_info)", "PyObject_CallObject(get_runtime_info, null)",
              "Py_DecRef(get_runtime_info)", "PyErr_Print()", "PyGILState_Release(1)"}})),
        PythonCalls());
    EXPECT_FALSE(HoldsInterpreterLock());
    Fakes::FailNoMore();
    EXPECT_EQ("Fake Python", launcher.ManagedInfo());
}

// The error left pending would fail the thread's next command.
TEST_F(PythonLauncherInfoTest, AValueThatIsNoTextShowsTheErrorAndIsReleased) {
    Start();
    Fakes::Fail("PyUnicode_AsUTF8", 1, true);
    EXPECT_EQ("", launcher.ManagedInfo());
    EXPECT_EQ(
        Lines(Joined(
            {asked,
             {"PyCallable_Check(get_runtime_info)", "PyObject_CallObject(get_runtime_info, null)",
              "Py_DecRef(get_runtime_info)", "PyUnicode_AsUTF8(info)", "PyErr_Print()",
              "Py_DecRef(info)", "PyGILState_Release(1)", "PyGILState_Check() = 0"}})),
        PythonCalls());
}

TEST_F(PythonLauncherInfoTest, ASystemExitOfGetRuntimeInfoIsReportedAsUnraisable) {
    Start("FakePythonWithOptional");
    Fakes::SetNumber("pending SystemExit", 1);
    Fakes::Fail("call get_runtime_info");
    EXPECT_EQ("", launcher.ManagedInfo());
    EXPECT_EQ(Lines(Joined({asked,
                            {"PyCallable_Check(get_runtime_info)",
                             "PyObject_CallObject(get_runtime_info, null)",
                             "Py_DecRef(get_runtime_info)", "PyErr_ExceptionMatches(SystemExit)",
                             "PyErr_WriteUnraisable(null)", "PyGILState_Release(1)"}})),
              PythonCalls());
}

TEST_F(PythonLauncherInfoTest, AStandardExceptionEmptiesTheTextAndGivesTheLockBack) {
    Start();
    const auto raise = [] { throw std::runtime_error("raised inside the library"); };
    WithinNext("PyObject_GetAttrString(Receiver, \"get_runtime_info\")", raise);
    EXPECT_EQ("", launcher.ManagedInfo());
    EXPECT_EQ(Lines(Joined({asked, {"PyGILState_Release(1)", "PyGILState_Check() = 0"}})),
              PythonCalls());
    WithinNext("PyUnicode_AsUTF8(info)", raise);
    Fakes::ClearTrace();
    EXPECT_EQ("", launcher.ManagedInfo());
    EXPECT_EQ(
        Lines(Joined(
            {asked,
             {"PyCallable_Check(get_runtime_info)", "PyObject_CallObject(get_runtime_info, null)",
              "Py_DecRef(get_runtime_info)", "PyUnicode_AsUTF8(info)", "Py_DecRef(info)",
              "PyGILState_Release(1)", "PyGILState_Check() = 0"}})),
        PythonCalls());
    EXPECT_EQ("Fake Python", launcher.ManagedInfo());
}

TEST_F(PythonLauncherInfoTest, TheLockIsNotLeftWithAThreadThatHeldItBefore) {
    Start();
    Fakes::SetNumber("lock state", 0);
    EXPECT_EQ("Fake Python", launcher.ManagedInfo());
    Calls expected = InfoCallsOfLockHolder();
    expected.resize(expected.size() - 2);
    EXPECT_EQ(Lines(expected), PythonCalls());
    EXPECT_FALSE(HoldsInterpreterLock());
}

TEST_F(PythonLauncherInfoTest, ACheckThatAlwaysSaysYesSavesNoThread) {
    Start();
    Fakes::SetNumber("lock check", 1);
    EXPECT_EQ("Fake Python", launcher.ManagedInfo());
    EXPECT_EQ(std::string::npos, PythonCalls().find("PyEval_SaveThread()"));
}

TEST_F(PythonLauncherInfoTest, AfterAFailedStartOnlyItsThreadAsksPython) {
    UsePython(layout, "FakePython");
    Fakes::Fail("PyObject_GetAttrString", 1, true);
    InitializeFailure(launcher);
    Fakes::FailNoMore();
    Fakes::ClearTrace();
    OnAnotherThread([&] { EXPECT_EQ(native + "\n", launcher->GetRuntimeInfo()); });
    EXPECT_EQ(Lines(NativeInfoCalls()), PythonCalls());
    EXPECT_EQ(native + "\nFake Python", launcher->GetRuntimeInfo());
}

// --- Neighbours ---------------------------------------------------------------------------------

TEST_F(PythonLauncherInfoTest, TheExceptionHandlersInitialiserIsCalledAndItsResultHandedOut) {
    Start();
    const auto initialize = bridge.Cpp<void*(Quorvalen::Native::Interfaces::ILauncher*)>(
        "PythonLauncher::InitializeExceptionHandler()");
    EXPECT_NE(nullptr, initialize(launcher.operator->()));
    Fakes::Fail("call initialize_exception_handler");
    EXPECT_EQ(nullptr, initialize(launcher.operator->()));
    EXPECT_EQ(Lines({"PyObject_CallObject(initialize_exception_handler, null)",
                     "PyObject_CallObject(initialize_exception_handler, null)"}),
              PythonCalls());
}

// Asking Python takes as long as Python likes, so code 020 is raised without the response lock.
TEST_F(PythonLauncherInfoTest, OtherThreadsExchangeResponsesWhileCode020IsRaised) {
    Start();
    bool exchanged = false;
    WithinNext("PyObject_CallObject(get_runtime_info, null)", [&] {
        OutsideTheInterpreter([&] {
            OnAnotherThread([&] {
                Send(launcher, Command());
                exchanged = Read(launcher, 8) == "response";
            });
        });
    });
    EXPECT_EQ(WithInfo(Texts::kNoResponse), ReadFailure(launcher));
    EXPECT_TRUE(exchanged);
}

TEST_F(PythonLauncherInfoTest, AFailureToldWithoutManagedTextEndsWithTheSeparator) {
    Start();
    Fakes::SetNumber("without get_runtime_info", 1);
    EXPECT_EQ(
        "Python Launcher: Exception code 020.\nError while reading response\nRUNTIME INFO:\n" +
            native + "\n",
        ReadFailure(launcher));
}

}  // namespace
