// A failed command restarts the interpreter only while no thread of Python's own and no
// subinterpreter is alive: beside the calling thread's state only the starting thread's may be
// there.
#include "Tests/Runtimes/Python/PythonLauncherFixture.h"

namespace {

class PythonLauncherThreadStatesTest : public StartedLauncherFixture {
  protected:
    PythonLauncherThreadStatesTest() { Start("FakePythonWithThreadStates"); }

    // Lets a command fail and tells whether the interpreter was finalised for it.
    bool FailureRestarts() {
        Fakes::ClearTrace();
        Fakes::Fail("call send_command");
        EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, Command()));
        const bool restarted = PythonCalls().find("Py_Finalize()") != std::string::npos;
        EXPECT_FALSE(HoldsInterpreterLock());
        EXPECT_EQ(8, Send(launcher, Command()));
        EXPECT_EQ("response", Read(launcher, 8));
        return restarted;
    }
};

TEST_F(PythonLauncherThreadStatesTest, TheStartingThreadAloneRestarts) {
    EXPECT_TRUE(FailureRestarts());
}

TEST_F(PythonLauncherThreadStatesTest, BesideTheStartingThreadAPythonThreadPreventsTheRestart) {
    Fakes::SetNumber("thread states", 2);
    EXPECT_FALSE(FailureRestarts());
    Fakes::SetNumber("thread states", 1);
    EXPECT_TRUE(FailureRestarts());
}

TEST_F(PythonLauncherThreadStatesTest, AnotherThreadRestartsBesideTheStartingThreadsState) {
    Fakes::SetNumber("thread states", 2);
    OnAnotherThread([&] { EXPECT_TRUE(FailureRestarts()); });
}

TEST_F(PythonLauncherThreadStatesTest, BesideAnotherThreadAPythonThreadPreventsTheRestart) {
    Fakes::SetNumber("thread states", 3);
    OnAnotherThread([&] { EXPECT_FALSE(FailureRestarts()); });
}

TEST_F(PythonLauncherThreadStatesTest, ASubinterpreterPreventsTheRestart) {
    Fakes::SetNumber("interpreters", 2);
    EXPECT_FALSE(FailureRestarts());
}

// Without the means to look, the design's restart stands.
class PythonLauncherWithoutThreadStatesTest : public StartedLauncherFixture,
                                              public testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(Lacking, PythonLauncherWithoutThreadStatesTest,
                         testing::Values("PyInterpreterState_Head", "PyInterpreterState_Next",
                                         "PyInterpreterState_ThreadHead", "PyThreadState_Next"),
                         [](const auto& test) { return std::string(test.param); });

TEST_P(PythonLauncherWithoutThreadStatesTest, AFailedCommandRestarts) {
    Start("FakePythonWithThreadStatesWithout" + std::string(GetParam()));
    Fakes::SetNumber("thread states", 3);
    Fakes::Fail("call send_command");
    EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, Command()));
    EXPECT_NE(std::string::npos, PythonCalls().find("Py_Finalize()"));
}

}  // namespace
