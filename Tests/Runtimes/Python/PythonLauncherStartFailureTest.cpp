// Every way in which a start can fail: what is raised and shown, which calls are made, who holds
// the interpreter lock afterwards, and that the next start works.
#include "Tests/Runtimes/Python/PythonLauncherFixture.h"

namespace {

// --- A function missing from the library --------------------------------------------------------

class PythonLauncherMissingFunctionTest : public PythonLauncherFixture,
                                          public testing::WithParamInterface<const char*> {};

TEST_P(PythonLauncherMissingFunctionTest, IsCode003AndTheNextStartWorks) {
    UsePython(layout, std::string("FakePythonWithout") + GetParam());
    Launcher launcher(bridge, 1);
    EXPECT_EQ(Texts::kFunctionMissing, InitializeFailure(launcher));
    EXPECT_EQ("", PythonCalls());
    layout.WithFake("FakePython", "libwhole.so");
    DlopenShim::Map(kPythonLibrary, layout.NativePrefix() + "libwhole.so");
    EXPECT_EQ("no exception", InitializeFailure(launcher));
    EXPECT_EQ(Lines(StartCalls(layout)), PythonCalls());
}

TEST_P(PythonLauncherMissingFunctionTest, IsCode003InTheCallingRuntimeToo) {
    UsePython(layout, std::string("FakePythonWithout") + GetParam());
    Launcher launcher(bridge, 0);
    EXPECT_EQ(Texts::kFunctionMissing, InitializeFailure(launcher));
    EXPECT_EQ("", PythonCalls());
}

INSTANTIATE_TEST_SUITE_P(
    RequiredNames, PythonLauncherMissingFunctionTest,
    testing::Values("Py_Initialize", "Py_Finalize", "Py_IsInitialized", "PyUnicode_DecodeFSDefault",
                    "PyImport_Import", "PyModule_GetDict", "PyDict_GetItemString",
                    "PyCallable_Check", "PyRun_SimpleString", "PyObject_CallObject",
                    "PyByteArray_Size", "PyByteArray_AsString", "Py_DecRef", "PyGILState_Ensure",
                    "PyGILState_Release", "PyGILState_Check", "PyEval_SaveThread", "Py_GetVersion",
                    "Py_GetPlatform", "PyErr_Print", "PyUnicode_AsUTF8", "PyObject_GetAttrString",
                    "PyBytes_FromStringAndSize", "PyTuple_Pack"),
    [](const auto& test) { return std::string(test.param); });

// --- A step that fails --------------------------------------------------------------------------

// How far the runtime information gets behind a failed step.
enum class Info {
    Native,       // no receiver class is bound, or nobody answers
    Answered,     // Python answers, which costs the thread its lock
    NoFunction,   // the class has no "get_runtime_info"
    NotCallable,  // it has one that cannot be called
};

struct FailingStep {
    const char* name;
    const char* failure;  // what the fake lets fail, or the number that it is told
    int nth;              // 0: `failure` is a number
    const char* lastCall;
    bool showsPythonError;
    std::string message;
    Info infoOnce;
    Info infoForEver;
};

void PrintTo(const FailingStep& step, std::ostream* output) {
    *output << step.name;
}

std::string Coded(const std::string& rest) {
    return "Python Launcher: Exception code " + rest;
}

std::string Reinstall(const std::string& code) {
    return Coded(code + ". Reinstall Quorvalen package");
}

const std::vector<FailingStep>& Steps() {
    static const std::vector<FailingStep> steps = {
        {"Initialize", "Py_Initialize", 1, "Py_IsInitialized()", false, Texts::kNotInitialized,
         Info::Native, Info::Native},
        {"IsInitialized", "Py_IsInitialized", 1, "Py_IsInitialized()", false,
         Texts::kNotInitialized, Info::Native, Info::Native},
        {"SearchPath", "PyRun_SimpleString", 1, "PyRun_SimpleString", false,
         Coded("005. \nCannot add this path to sys.path: <directory>"), Info::Native, Info::Native},
        {"ModuleName", "PyUnicode_DecodeFSDefault", 1, "PyUnicode_DecodeFSDefault", true,
         Reinstall("011"), Info::Native, Info::Native},
        {"Import", "PyImport_Import", 1, "PyImport_Import", true, Reinstall("012"), Info::Native,
         Info::Native},
        {"Dictionary", "PyModule_GetDict", 1, "PyModule_GetDict", true, Reinstall("013"),
         Info::Native, Info::Native},
        {"Class", "PyDict_GetItemString", 1, "PyDict_GetItemString", true, Reinstall("014"),
         Info::Native, Info::Native},
        {"ClassCallable", "PyCallable_Check", 1, "PyCallable_Check(Receiver)", false,
         Coded("015 Reinstall Quorvalen package\n"), Info::Answered, Info::NotCallable},
        {"HeartBeat", "PyObject_GetAttrString", 1,
         "PyObject_GetAttrString(Receiver, \"heart_beat\")", true, Reinstall("017"), Info::Answered,
         Info::NoFunction},
        {"HeartBeatCallable", "PyCallable_Check", 2, "PyCallable_Check(heart_beat)", false,
         Reinstall("017"), Info::Answered, Info::NotCallable},
        {"SendCommand", "PyObject_GetAttrString", 2,
         "PyObject_GetAttrString(Receiver, \"send_command\")", true, Reinstall("018"),
         Info::Answered, Info::NoFunction},
        {"SendCommandCallable", "PyCallable_Check", 3, "PyCallable_Check(send_command)", false,
         Reinstall("018"), Info::Answered, Info::NotCallable},
        {"HandlerInitialiser", "PyObject_GetAttrString", 3,
         "PyObject_GetAttrString(Receiver, \"initialize_exception_handler\")", true,
         Reinstall("019"), Info::Answered, Info::NoFunction},
        {"HandlerInitialiserCallable", "PyCallable_Check", 4,
         "PyCallable_Check(initialize_exception_handler)", false, Reinstall("019"), Info::Answered,
         Info::NotCallable}};
    return steps;
}

class PythonLauncherFailingStepTest : public PythonLauncherFixture,
                                      public testing::WithParamInterface<FailingStep> {
  protected:
    // The road as far as the failed step's last call, and the showing of Python's error.
    Calls RoadToFailure(int lockState = 0) const {
        Calls road;
        for (const std::string& call : StartCalls(layout, lockState)) {
            road.push_back(call);
            if (call.rfind(GetParam().lastCall, 0) == 0) break;
        }
        if (GetParam().showsPythonError) road.push_back("PyErr_Print()");
        return road;
    }

    static Calls InfoRoad(Info info) {
        const Calls asked = {"PyGILState_Ensure() = 0",
                             "PyObject_GetAttrString(Receiver, \"get_runtime_info\")"};
        switch (info) {
            case Info::Native:
                break;
            case Info::Answered:
                return InfoCallsOfLockHolder();
            case Info::NoFunction:
                return Joined(
                    {asked, {"PyErr_Print()", "PyGILState_Release(0)"}, NativeInfoCalls()});
            case Info::NotCallable:
                return Joined({asked,
                               {"PyCallable_Check(get_runtime_info)", "Py_DecRef(get_runtime_info)",
                                "PyGILState_Release(0)"},
                               NativeInfoCalls()});
        }
        return NativeInfoCalls();
    }

    std::string ExpectedText(Info info) const {
        std::string message = GetParam().message;
        const std::size_t at = message.find("<directory>");
        if (at != std::string::npos) {
            message.replace(at, std::string::npos,
                            layout.NativePrefix() + "../../../../Binaries/Python");
        }
        return WithInfo(message, info == Info::Answered ? "Fake Python" : kNoAnswer);
    }

    // Tries the start and compares everything about its failure.
    void ExpectFailure(Info info) {
        EXPECT_EQ(ExpectedText(info), InitializeFailure(launcher));
        EXPECT_EQ(Lines(Joined({RoadToFailure(), InfoRoad(info)})), PythonCalls());
    }

    // The interpreter is not there at all when its initialisation was let fail.
    bool KeepsTheLock(Info info) const {
        return std::string(GetParam().failure) != "Py_Initialize" && info != Info::Answered;
    }

    Launcher launcher{bridge, 1};
};

TEST_P(PythonLauncherFailingStepTest, OnceAndTheSameThreadMayRetry) {
    UsePython(layout, "FakePython");
    Fakes::Fail(GetParam().failure, GetParam().nth);
    ExpectFailure(GetParam().infoOnce);
    const bool keepsTheLock = KeepsTheLock(GetParam().infoOnce);
    EXPECT_EQ(keepsTheLock, HoldsInterpreterLock());
    Fakes::ClearTrace();
    EXPECT_EQ("no exception", InitializeFailure(launcher));
    const bool asksForTheLock = GetParam().infoOnce == Info::Answered;
    EXPECT_EQ(Lines(StartCalls(layout, asksForTheLock ? 1 : 0)), PythonCalls());
    EXPECT_FALSE(HoldsInterpreterLock());
    EXPECT_EQ(8, Send(launcher, Command()));
    EXPECT_EQ("response", Read(launcher, 8));
}

TEST_P(PythonLauncherFailingStepTest, ForEverAndOnceMoreFromTheBeginning) {
    UsePython(layout, "FakePython");
    Fakes::Fail(GetParam().failure, GetParam().nth, true);
    ExpectFailure(GetParam().infoForEver);
    EXPECT_EQ(KeepsTheLock(GetParam().infoForEver), HoldsInterpreterLock());
    // Counted from the beginning again, the same step fails.
    Fakes::FailNoMore();
    Fakes::Fail(GetParam().failure, GetParam().nth, true);
    Fakes::ClearTrace();
    ExpectFailure(GetParam().infoForEver);
    Fakes::FailNoMore();
    EXPECT_EQ("no exception", InitializeFailure(launcher));
    EXPECT_FALSE(HoldsInterpreterLock());
    EXPECT_EQ(8, Send(launcher, Command()));
}

// A start elsewhere would wait for ever for a lock that stays with the first thread.
TEST_P(PythonLauncherFailingStepTest, OtherThreadsAreRefusedWhileTheLockIsKept) {
    UsePython(layout, "FakePython");
    Fakes::Fail(GetParam().failure, GetParam().nth, true);
    InitializeFailure(launcher);
    Fakes::FailNoMore();
    const bool keptByTheStart =
        KeepsTheLock(GetParam().infoForEver) &&
        std::string(GetParam().failure) != "Py_IsInitialized";  // fails before it asks for it
    Fakes::ClearTrace();
    std::string failure;
    OnAnotherThread([&] { failure = InitializeFailure(launcher); });
    EXPECT_EQ(keptByTheStart ? Texts::kLockHeldElsewhere : "no exception", failure);
    if (!keptByTheStart) return;
    EXPECT_EQ("", PythonCalls());
    EXPECT_EQ("no exception", InitializeFailure(launcher));
    OnAnotherThread([&] { EXPECT_EQ(8, Send(launcher, Command())); });
}

// Nothing runs that could execute it, and the lock of the failed start may never come free.
TEST_P(PythonLauncherFailingStepTest, CommandsOfAllThreadsAreRefused) {
    UsePython(layout, "FakePython");
    Fakes::Fail(GetParam().failure, GetParam().nth, true);
    InitializeFailure(launcher);
    Fakes::ClearTrace();
    std::string failure;
    OnAnotherThread([&] { failure = SendFailure(launcher, Command()); });
    EXPECT_EQ(WithInfo(Texts::kNotInitialized, kNoAnswer), failure);
    EXPECT_EQ(Lines(NativeInfoCalls()), PythonCalls());
}

INSTANTIATE_TEST_SUITE_P(Steps, PythonLauncherFailingStepTest, testing::ValuesIn(Steps()),
                         [](const auto& test) { return std::string(test.param.name); });

// --- Failures apart from the steps --------------------------------------------------------------

class PythonLauncherStartFailureTest : public PythonLauncherFixture {
  protected:
    PythonLauncherStartFailureTest() { UsePython(layout, "FakePython"); }
    Launcher launcher{bridge, 1};
};

TEST_F(PythonLauncherStartFailureTest, AMissingReceiverFileIsCode001BeforeTheInterpreterStarts) {
    const std::string file = "quorvalen/core/receiver/Receiver.py";
    std::filesystem::remove(layout.PythonDirectory() / file);
    EXPECT_EQ("Python Launcher: Exception code 001. \nCannot find file: " + layout.NativePrefix() +
                  "../../../../Binaries/Python/" + file + ". \nReinstall Quorvalen package.",
              InitializeFailure(launcher));
    EXPECT_EQ("", PythonCalls());
    layout.WithReceiverFile();
    EXPECT_EQ("no exception", InitializeFailure(launcher));
    EXPECT_EQ(Lines(StartCalls(layout)), PythonCalls());
}

TEST_F(PythonLauncherStartFailureTest, AClassWithoutHeartBeatIsCode017ThoughItHasSendCommand) {
    Fakes::SetNumber("without heart_beat", 1);
    EXPECT_EQ(WithInfo(Reinstall("017")), InitializeFailure(launcher));
}

TEST_F(PythonLauncherStartFailureTest, AnInitialiserThatRaisesIsShownAndIsNoFailure) {
    Fakes::Fail("call initialize_exception_handler", 1, true);
    EXPECT_EQ("no exception", InitializeFailure(launcher));
    Calls expected = StartCalls(layout);
    expected.insert(expected.end() - 2, "PyErr_Print()");
    EXPECT_EQ(Lines(expected), PythonCalls());
}

TEST_F(PythonLauncherStartFailureTest, CodedFailuresAreReportedTwiceWithTheirWholeText) {
    Fakes::Fail("PyImport_Import");
    EXPECT_EQ(WithInfo(Texts::kNotImported, kNoAnswer), InitializeFailure(launcher));
    const std::string stamp = "<time>\tThread ID: <id>\t";
    EXPECT_EQ(stamp + Texts::kNotImported + "\n" + stamp +
                  WithInfo(Texts::kNotImported, kNoAnswer) + "\n",
              WithoutTimeAndThread(ContentsOf(ErrorLogFile(layout.Root()))));
}

// The system gives the id of an ended thread to the next one.
TEST_F(PythonLauncherStartFailureTest, ANewThreadIsNotTakenForTheEndedOneOfTheFailedStart) {
    Fakes::Fail("PyImport_Import");
    OnAnotherThread(
        [&] { EXPECT_EQ(WithInfo(Texts::kNotImported, kNoAnswer), InitializeFailure(launcher)); });
    OnAnotherThread([&] { EXPECT_EQ(Texts::kLockHeldElsewhere, InitializeFailure(launcher)); });
}

// The launcher must not take an interpreter for its own because its first start kept the lock.
TEST_F(PythonLauncherStartFailureTest, ARetryDoesNotMakeSomebodyElsesInterpreterOurs) {
    Fakes::SetNumber("already running", 1);
    Fakes::Fail("PyImport_Import");
    EXPECT_EQ(WithInfo(Texts::kNotImported, kNoAnswer), InitializeFailure(launcher));
    EXPECT_EQ("no exception", InitializeFailure(launcher));
    EXPECT_FALSE(HoldsInterpreterLock());
    Fakes::ClearTrace();
    launcher.Destroy();
    EXPECT_EQ(std::string::npos, PythonCalls().find("Py_Finalize"));
}

}  // namespace
