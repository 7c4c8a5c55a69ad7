// The start of the interpreter against a recording fake of the Python library: the whole road, the
// modes, what the optional functions add, and an interpreter that is running already.
#include "Tests/Runtimes/Python/PythonLauncherFixture.h"

namespace {

class PythonLauncherStartTest : public PythonLauncherFixture {};

TEST_F(PythonLauncherStartTest, WalksTheWholeRoadInItsOrder) {
    UsePython(layout, "FakePython");
    Launcher launcher(bridge, 1);
    Fakes::ClearTrace();
    EXPECT_EQ(0, launcher->Initialize(0));
    EXPECT_EQ(Lines({
                  "Py_Initialize()",
                  "Py_IsInitialized()",
                  "PyGILState_Ensure() = 0",
                  "PyRun_SimpleString(\"import sys; sys.path.insert(0, '" + layout.NativePrefix() +
                      "../../../../Binaries/Python')\")",
                  "PyUnicode_DecodeFSDefault(\"quorvalen.core.receiver.Receiver\")",
                  "PyImport_Import(module name)",
                  "PyModule_GetDict(module)",
                  "PyDict_GetItemString(dictionary, \"Receiver\")",
                  "PyCallable_Check(Receiver)",
                  "PyObject_GetAttrString(Receiver, \"heart_beat\")",
                  "PyCallable_Check(heart_beat)",
                  "PyObject_GetAttrString(Receiver, \"send_command\")",
                  "PyCallable_Check(send_command)",
                  "PyObject_GetAttrString(Receiver, \"initialize_exception_handler\")",
                  "PyCallable_Check(initialize_exception_handler)",
                  "PyObject_CallObject(initialize_exception_handler, null)",
                  "PyGILState_Release(0)",
                  "PyEval_SaveThread()",
              }),
              PythonTrace());
    EXPECT_FALSE(HoldsInterpreterLock());
}

TEST_F(PythonLauncherStartTest, ConstructionStartsNothing) {
    Launcher launcher(bridge, 1);
    EXPECT_FALSE(launcher->IsInitialized());
    EXPECT_EQ("Python", launcher->GetRuntimeName());
    EXPECT_EQ("", Lines(Fakes::Trace()));
}

TEST_F(PythonLauncherStartTest, OnlyItsOwnerMarksTheLauncherInitialized) {
    UsePython(layout, "FakePython");
    Launcher launcher(bridge, 1);
    EXPECT_EQ(0, launcher->Initialize(0));
    EXPECT_FALSE(launcher->IsInitialized());
    launcher->SetInitialized();
    EXPECT_TRUE(launcher->IsInitialized());
}

TEST_F(PythonLauncherStartTest, InitializeAndStartAreTheSame) {
    UsePython(layout, "FakePython");
    Launcher launcher(bridge, 1);
    using ILauncher = Quorvalen::Native::Interfaces::ILauncher;
    const auto start =
        bridge.Cpp<int(ILauncher*, unsigned char)>("PythonLauncher::Start(unsigned char)");
    EXPECT_EQ(0, start(launcher.operator->(), 0));
    EXPECT_EQ(Lines(StartCalls(layout)), PythonCalls());
}

TEST_F(PythonLauncherStartTest, OptimizedMethodsAndDeploymentDoNothing) {
    Launcher launcher(bridge, 1);
    unsigned char message[11] = {};
    EXPECT_EQ(1, launcher->LoadOptimizedMethod("anything"));
    EXPECT_EQ(0, launcher->DeployRuntime(message, 11, "/nowhere", 3));
    EXPECT_EQ("", Lines(Fakes::Trace()));
}

// --- Modes --------------------------------------------------------------------------------------

TEST_F(PythonLauncherStartTest, CallingRuntimeStartsNoInterpreter) {
    UsePython(layout, "FakePython");
    Launcher launcher(bridge, 0);
    EXPECT_EQ(0, launcher->Initialize(0));
    EXPECT_EQ("", PythonCalls());
}

TEST_F(PythonLauncherStartTest, CallingRuntimeNeedsNoReceiverFile) {
    UsePython(layout, "FakePython");
    std::filesystem::remove_all(layout.PythonDirectory());
    Launcher launcher(bridge, 0);
    EXPECT_EQ(0, launcher->Initialize(0));
}

TEST_F(PythonLauncherStartTest, AnyOtherModeOnlyBindsTheFunctions) {
    UsePython(layout, "FakePython");
    for (const int mode : {-1, 2}) {
        Launcher launcher(bridge, mode);
        EXPECT_EQ(0, launcher->Initialize(0));
        EXPECT_EQ("", PythonCalls());
    }
}

// --- The optional functions ---------------------------------------------------------------------

TEST_F(PythonLauncherStartTest, OptionalFunctionsTakeReferencesAndPrepareOldVersions) {
    UsePython(layout, "FakePythonWithOptional");
    Launcher launcher(bridge, 1);
    EXPECT_EQ(0, launcher->Initialize(0));
    EXPECT_EQ(Lines(StartCallsWithOptional(layout)), PythonCalls());
}

// What a library lacks changes the calls of that name and nothing else.
class PythonLauncherWithoutOptionalTest : public PythonLauncherFixture,
                                          public testing::WithParamInterface<const char*> {};

TEST_P(PythonLauncherWithoutOptionalTest, StartsAllTheSame) {
    UsePython(layout, std::string("FakePythonWithOptionalWithout") + GetParam());
    Launcher launcher(bridge, 1);
    EXPECT_EQ(0, launcher->Initialize(0));
    Calls expected;
    for (const std::string& call : StartCallsWithOptional(layout)) {
        if (call.rfind(GetParam(), 0) != 0) expected.push_back(call);
    }
    EXPECT_EQ(Lines(expected), PythonCalls());
    EXPECT_EQ(8, Send(launcher, Command("anything")));
    EXPECT_EQ("response", Read(launcher, 8));
}

INSTANTIATE_TEST_SUITE_P(OptionalNames, PythonLauncherWithoutOptionalTest,
                         testing::Values("Py_IncRef", "PyEval_InitThreads", "PyByteArray_Type",
                                         "PyObject_IsInstance", "PyErr_ExceptionMatches",
                                         "PyExc_SystemExit", "PyErr_WriteUnraisable",
                                         "PyThreadState_Swap", "PyThreadState_GetUnchecked",
                                         "PyGILState_GetThisThreadState"),
                         [](const auto& test) { return std::string(test.param); });

// --- An interpreter that is running already -----------------------------------------------------

TEST_F(PythonLauncherStartTest, OnARunningInterpreterTheLockIsGivenBackOnce) {
    UsePython(layout, "FakePython");
    Fakes::SetNumber("already running", 1);
    Launcher launcher(bridge, 1);
    EXPECT_EQ(0, launcher->Initialize(0));
    EXPECT_EQ(Lines(StartCalls(layout, 1)), PythonCalls());
}

TEST_F(PythonLauncherStartTest, ASecondLauncherFindsTheInterpreterRunning) {
    UsePython(layout, "FakePython");
    Launcher first(bridge, 1);
    Launcher second(bridge, 1);
    EXPECT_EQ(0, first->Initialize(0));
    Fakes::ClearTrace();
    EXPECT_EQ(0, second->Initialize(0));
    EXPECT_EQ(Lines(StartCalls(layout, 1)), PythonCalls());
    for (Launcher* launcher : {&first, &second}) {
        EXPECT_EQ(8, Send(*launcher, Command()));
        EXPECT_EQ("response", Read(*launcher, 8));
    }
}

TEST_F(PythonLauncherStartTest, ASecondStartOfTheSameLauncherFindsTheInterpreterRunning) {
    UsePython(layout, "FakePython");
    Launcher launcher(bridge, 1);
    EXPECT_EQ(0, launcher->Initialize(0));
    Fakes::ClearTrace();
    EXPECT_EQ(0, launcher->Initialize(0));
    EXPECT_EQ(Lines(StartCalls(layout, 1)), PythonCalls());
    EXPECT_EQ(8, Send(launcher, Command()));
}

}  // namespace
