// The turns that threads take while the interpreter lives until the process ends, against the
// recording fake of the Python library. Who finds another's command running asks Python once
// whether it holds the interpreter lock; beside that the calls of commands are as ever.
#include <atomic>
#include <optional>

#include "Tests/Runtimes/Python/PythonLauncherFixture.h"

namespace {

class PythonLauncherTurnsTest : public StartedLauncherFixture {
  protected:
    void Start() { StartedLauncherFixture::Start("FakePythonWithKeptStates"); }
    std::string CallsOfCommand() {
        Fakes::ClearTrace();
        EXPECT_EQ(8, Send(launcher, command));
        EXPECT_EQ("response", Read(launcher, 8));
        return PythonCalls();
    }
    // Runs `operation` on this thread while another is inside a command.
    template <typename Operation>
    void WhileACommandRuns(Operation operation) {
        Worker worker;
        std::promise<void> release;
        HoldHeartBeat(worker, release);
        operation();
        release.set_value();
        worker.Then([this] { EXPECT_EQ("response", Read(launcher, 8)); });
    }

    // So many commands do not wait after one that was waited for in vain.
    static constexpr int kHurried = 16;

    const EnvironmentVariable lifetime{"QUORVALEN_PYTHON_LIFETIME", "process"};
    const Bytes command = Command("anything");
    const Calls calls = CommandCalls(command);
    const Calls waited = Joined({{"PyGILState_Check() = 0"}, calls});
};

TEST_F(PythonLauncherTurnsTest, WhoIsAloneNeverWaits) {
    Start();
    for (int i = 0; i < 3; ++i) EXPECT_EQ(Lines(calls), CallsOfCommand());
    OnAnotherThread([&] {
        Send(launcher, command);  // keeps the thread's state
        for (int i = 0; i < 3; ++i) EXPECT_EQ(Lines(calls), CallsOfCommand());
    });
}

// The command that is waited for ends only afterwards.
TEST_F(PythonLauncherTurnsTest, ACommandWaitsOnlyForAMomentForALongOne) {
    Start();
    WhileACommandRuns([&] { EXPECT_EQ(Lines(waited), CallsOfCommand()); });
}

// Its turn is taken over.
TEST_F(PythonLauncherTurnsTest, TheNextCommandsDoNotWaitForALongOneAgain) {
    Start();
    WhileACommandRuns([&] {
        EXPECT_EQ(Lines(waited), CallsOfCommand());
        for (int i = 0; i < 100; ++i) EXPECT_EQ(Lines(calls), CallsOfCommand()) << i;
    });
}

TEST_F(PythonLauncherTurnsTest, AfterALongCommandSomeOthersAreNotWaitedFor) {
    Start();
    WhileACommandRuns([&] { EXPECT_EQ(Lines(waited), CallsOfCommand()); });
    for (int i = 0; i < kHurried; ++i) {
        WhileACommandRuns([&] { EXPECT_EQ(Lines(calls), CallsOfCommand()) << i; });
    }
    WhileACommandRuns([&] { EXPECT_EQ(Lines(waited), CallsOfCommand()); });
}

// The long command ends while the one that has taken its turn over still runs.
TEST_F(PythonLauncherTurnsTest, ALongCommandDoesNotEndTheTurnThatReplacedItsOwn) {
    Start();
    WhileACommandRuns([&] { EXPECT_EQ(Lines(waited), CallsOfCommand()); });
    for (int i = 1; i < kHurried; ++i) {
        WhileACommandRuns([&] { EXPECT_EQ(Lines(calls), CallsOfCommand()) << i; });
    }
    Worker first;
    std::promise<void> endOfFirst;
    HoldHeartBeat(first, endOfFirst);
    WhileACommandRuns([&] {
        endOfFirst.set_value();
        first.Then([this] { EXPECT_EQ("response", Read(launcher, 8)); });
        const std::string made = CallsOfCommand();  // begins with the end of that thread's state
        EXPECT_TRUE(made.ends_with(Lines(waited))) << made;
    });
}

// It would be waited for in vain: whoever is inside needs the lock to come out.
TEST_F(PythonLauncherTurnsTest, AThreadThatHoldsTheInterpreterLockDoesNotWait) {
    Start();
    WhileACommandRuns([&] {
        Fakes::SetNumber("lock check", 1);
        Fakes::ClearTrace();
        EXPECT_EQ(8, Send(launcher, command));
        EXPECT_EQ("PyGILState_Check() = 1", PythonCalls().substr(0, 22));
        Fakes::SetNumber("lock check", 0);
        // It has not waited, so the next one may.
        EXPECT_EQ(Lines(waited), CallsOfCommand());
    });
}

TEST_F(PythonLauncherTurnsTest, ACommandWithinACommandDoesNotWaitForTheOuterOne) {
    Start();
    std::string inner;
    WithinNext("PyObject_CallObject(send_command, arguments)",
               [&] { OutsideTheInterpreter([&] { inner = CallsOfCommand(); }); });
    EXPECT_EQ(8, Send(launcher, command));
    EXPECT_EQ(Lines(calls), inner);
    EXPECT_EQ(Lines(calls), CallsOfCommand());
}

TEST_F(PythonLauncherTurnsTest, ATurnEndsWithAFailedCommand) {
    Start();
    Fakes::Fail("call send_command");
    EXPECT_EQ(WithInfo(Texts::kCommandFailed), SendFailure(launcher, command));
    EXPECT_EQ(Lines(calls), CallsOfCommand());
}

TEST_F(PythonLauncherTurnsTest, AThreadComesToItsTurnBetweenTheCommandsOfOthers) {
    Fakes::SetNumber("lock blocks", 1);
    Start();
    std::atomic<bool> ended{false};
    std::atomic<int> begun{0};
    const auto sendUntilEnd = [&] {
        for (++begun; !ended; Fakes::ClearTrace()) EXPECT_EQ(8, Send(launcher, command));
    };
    std::thread one(sendUntilEnd);
    std::thread two(sendUntilEnd);
    while (begun < 2) std::this_thread::yield();
    for (int i = 0; i < 20; ++i) EXPECT_EQ(8, Send(launcher, command));
    ended = true;
    one.join();
    two.join();
}

// In the child the command that runs here never ends.
TEST_F(PythonLauncherTurnsTest, AForkedChildStartsWithoutTurns) {
    Start();
    WhileACommandRuns(
        [&] { EXPECT_EQ(0, StatusOfChild([&] { EXPECT_EQ(Lines(calls), CallsOfCommand()); })); });
}

class PythonLauncherDefaultTurnsTest : public PythonLauncherTurnsTest {
  protected:
    const EnvironmentVariable byDefault{"QUORVALEN_PYTHON_LIFETIME", std::nullopt};
};

TEST_F(PythonLauncherDefaultTurnsTest, ByDefaultNobodyWaits) {
    Start();
    WhileACommandRuns([&] { EXPECT_EQ(Lines(calls), CallsOfCommand()); });
}

}  // namespace
