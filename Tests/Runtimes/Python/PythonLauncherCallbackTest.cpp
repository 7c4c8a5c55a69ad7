// The commands of the calling runtime: they go to the callback that Python registered, on whatever
// terms it runs.
#include "Tests/Runtimes/Python/PythonLauncherFixture.h"

struct PyObject;

namespace {

// The fake's own objects cannot be made here, so the callback asks the fake for one.
PyObject* Answer(unsigned char* message, int length) {
    using Call = PyObject* (*)(PyObject*, PyObject*);
    Fakes::Record("callback(" + Fakes::ShowBytes(message, length) + ")");
    if (Fakes::MustFail("callback")) return nullptr;
    const auto call = reinterpret_cast<Call>(dlsym(RTLD_DEFAULT, "PyObject_CallObject"));
    Fakes::SetText("runtime info", "called back");
    PyObject* result = call(nullptr, nullptr);
    Fakes::ClearTrace();
    return result;
}

class PythonLauncherCallbackTest : public PythonLauncherFixture {
  protected:
    PythonLauncherCallbackTest() { UsePython(layout, "FakePython"); }

    void Register(void* function) { bridge.C<int(void*)>("SetCallback")(function); }
    void RegisterAnswer() { Register(reinterpret_cast<void*>(&Answer)); }

    const std::string noCallback =
        "Python Launcher: No callback is registered for commands to the calling runtime. \n"
        "Call SetCallback before the first command of the process";
    const Bytes command = Command("anything");
    Launcher launcher{bridge, 0};
};

TEST_F(PythonLauncherCallbackTest, TheResultIsCopiedWithoutLockAndNeverReleased) {
    RegisterAnswer();
    launcher->Initialize(0);
    EXPECT_EQ(11, Send(launcher, command));
    EXPECT_EQ(Lines({"PyByteArray_Size(result)", "PyByteArray_AsString(result)"}), PythonCalls());
    EXPECT_EQ("called back", Read(launcher, 11));
}

TEST_F(PythonLauncherCallbackTest, HeartBeatsGoToTheCallbackToo) {
    RegisterAnswer();
    launcher->Initialize(0);
    EXPECT_EQ(11, Send(launcher, Command("", kHeartBeat)));
}

TEST_F(PythonLauncherCallbackTest, NoResultIsCode018) {
    RegisterAnswer();
    launcher->Initialize(0);
    Fakes::Fail("callback");
    Fakes::ClearTrace();
    EXPECT_EQ(WithInfo("Python Launcher: Exception code 018. \n"
                       "Failed to process command in calling runtime mode",
                       kNoAnswer),
              SendFailure(launcher, command));
    EXPECT_EQ(
        "callback(" + Fakes::ShowBytes(command.data(), static_cast<int>(command.size())) + ")",
        Fakes::Trace().front());
    EXPECT_EQ(Lines(NativeInfoCalls()), PythonCalls());
    EXPECT_EQ(11, Send(launcher, command));
}

TEST_F(PythonLauncherCallbackTest, ANegativeSizeIsALengthError) {
    RegisterAnswer();
    launcher->Initialize(0);
    Fakes::Fail("PyByteArray_Size");
    EXPECT_EQ(Texts::kLengthError, SendFailure(launcher, command));
    EXPECT_EQ(11, Send(launcher, command));
}

TEST_F(PythonLauncherCallbackTest, ACallbackRegisteredAfterTheStartIsNotSeen) {
    launcher->Initialize(0);
    RegisterAnswer();
    EXPECT_EQ(noCallback, SendFailure(launcher, command));
}

TEST_F(PythonLauncherCallbackTest, ACallbackTakenOverStaysWhenAnotherIsRegistered) {
    RegisterAnswer();
    launcher->Initialize(0);
    Register(nullptr);
    EXPECT_EQ(11, Send(launcher, command));
}

TEST_F(PythonLauncherCallbackTest, AnotherStartTakesTheNewCallbackOver) {
    launcher->Initialize(0);
    RegisterAnswer();
    launcher->Initialize(0);
    EXPECT_EQ(11, Send(launcher, command));
}

TEST_F(PythonLauncherCallbackTest, ACommandBeforeTheStartFindsNoCallback) {
    RegisterAnswer();
    EXPECT_EQ(noCallback, SendFailure(launcher, command));
}

TEST_F(PythonLauncherCallbackTest, ReadingWithoutACommandIsCode020) {
    launcher->Initialize(0);
    EXPECT_EQ(WithInfo(Texts::kNoResponse, kNoAnswer), ReadFailure(launcher));
}

// Such modes are not supported; their commands find no interpreter.
TEST_F(PythonLauncherCallbackTest, AnyOtherModeAnswersWithCode004) {
    RegisterAnswer();
    for (const int mode : {-1, 2}) {
        Launcher other(bridge, mode);
        other->Initialize(0);
        Fakes::ClearTrace();
        EXPECT_EQ(WithInfo(Texts::kNotInitialized, kNoAnswer), SendFailure(other, command));
        EXPECT_EQ(Lines(NativeInfoCalls()), PythonCalls());
    }
}

}  // namespace
