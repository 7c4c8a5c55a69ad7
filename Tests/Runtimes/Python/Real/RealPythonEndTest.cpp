// The end of a host that runs a real interpreter: its exit status is its own.
#include <sys/wait.h>
#include <unistd.h>

#include "Tests/Runtimes/Python/Real/RealPython.h"
#include "Tests/Support/Paths.h"

namespace {

class RealPythonEndTest : public RealPython {
  protected:
    RealPythonEndTest() { UseTestReceiver(); }

    // The wait status of the host that ends in the given way.
    int StatusOfHost(const char* way) {
        const std::string program = std::string(Paths::kTestPrograms) + "/EndingHost";
        const std::string bridgePath = layout.BridgePath().string();
        const pid_t child = fork();
        if (child == 0) {
            execl(program.c_str(), program.c_str(), bridgePath.c_str(), way, nullptr);
            _exit(127);
        }
        int status = -1;
        waitpid(child, &status, 0);
        return status;
    }
};

QUORVALEN_ON_EVERY_PYTHON(RealPythonEndTest);

TEST_P(RealPythonEndTest, ReturnFromMainExitsWith0) {
    EXPECT_EQ(0, StatusOfHost("return"));
}

TEST_P(RealPythonEndTest, ExitExitsWith0) {
    EXPECT_EQ(0, StatusOfHost("exit"));
}

TEST_P(RealPythonEndTest, AnInterpreterStartedOnAThreadThatEndedExitsWith0) {
    EXPECT_EQ(0, StatusOfHost("thread"));
}

TEST_P(RealPythonEndTest, ADestroyedReceiverExitsWith0) {
    EXPECT_EQ(0, StatusOfHost("delete"));
}

TEST_P(RealPythonEndTest, AReceiverDestroyedOnAnotherThreadExitsWith0) {
    EXPECT_EQ(0, StatusOfHost("delete-on-thread"));
}

TEST_P(RealPythonEndTest, AClosedLibraryExitsWith0) {
    EXPECT_EQ(0, StatusOfHost("close"));
}

// The same with an interpreter that lives until the process ends: threads that have kept states,
// and may be inside a command, hold nothing up.
class RealPythonLongLivedEndTest : public RealPythonEndTest {
    const EnvironmentVariable lifetime{"QUORVALEN_PYTHON_LIFETIME", "process"};
};

QUORVALEN_ON_EVERY_PYTHON(RealPythonLongLivedEndTest);

TEST_P(RealPythonLongLivedEndTest, EveryWayOfEndingExitsWith0) {
    for (const char* way : {"return", "exit", "thread", "delete", "delete-on-thread", "close"}) {
        EXPECT_EQ(0, StatusOfHost(way)) << way;
    }
}

TEST_P(RealPythonLongLivedEndTest, ReturnFromMainWhileOtherThreadsSendCommandsExitsWith0) {
    EXPECT_EQ(0, StatusOfHost("return-under-commands"));
}

TEST_P(RealPythonLongLivedEndTest, ExitOnAWorkerWhileOthersSendCommandsExitsWith0) {
    EXPECT_EQ(0, StatusOfHost("exit-on-worker"));
}

}  // namespace
