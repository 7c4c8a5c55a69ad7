// The pending responses of the launcher's threads: whose they are, what makes them disappear, and
// the storage behind them. Against the recording fake of the Python library.
#include <string>
#include <vector>

#include "Tests/Native/AllocationShim.h"
#include "Tests/Runtimes/Python/PythonLauncherFixture.h"
#include "Tests/Runtimes/Python/TestThreads.h"

namespace {

class PythonLauncherResponsesTest : public StartedLauncherFixture {
  protected:
    void Answer(const std::string& text) { Fakes::SetText("response", text); }

    // Sends, reads, and compares every byte.
    void ExpectAnswer(const std::string& text) {
        Answer(text);
        const int length = static_cast<int>(text.size());
        EXPECT_EQ(length, Send(launcher, command));
        EXPECT_TRUE(text == Read(launcher, length)) << text.size();
    }
    const void* BridgeLibrary() const {
        return AllocationShim::LibraryOf(bridge.Address("CreateReceiver"));
    }

    const Bytes command = Command("anything");
};

// --- Whose
// ----------------------------------------------------------------------------------------

TEST_F(PythonLauncherResponsesTest, LaunchersKeepTheirResponsesApart) {
    Start();
    Launcher second(bridge, 1);
    second->Initialize(0);
    Answer("the first's");
    Send(launcher, command);
    Answer("the second's");
    Send(second, command);
    EXPECT_EQ("the first's", Read(launcher, 11));
    EXPECT_EQ(WithInfo(Texts::kNoResponse), ReadFailure(launcher));
    EXPECT_EQ("the second's", Read(second, 12));
    EXPECT_EQ(WithInfo(Texts::kNoResponse), ReadFailure(second));
}

TEST_F(PythonLauncherResponsesTest, ARestartOfOneLauncherKeepsTheOthersResponses) {
    Start();
    Launcher second(bridge, 1);
    second->Initialize(0);
    Send(second, command);
    Send(launcher, command);
    Fakes::Fail("call send_command");
    SendFailure(launcher, command);
    EXPECT_EQ(WithInfo(Texts::kNoResponse), ReadFailure(launcher));
    EXPECT_EQ("response", Read(second, 8));
}

// The new launcher may lie where the old one lay.
TEST_F(PythonLauncherResponsesTest, ANewLauncherDoesNotFindTheResponseOfADestroyedOne) {
    Start();
    for (int i = 0; i < 20; ++i) {
        Launcher passing(bridge, 1);
        passing->Initialize(0);
        EXPECT_EQ(WithInfo(Texts::kNoResponse), ReadFailure(passing));
        EXPECT_EQ(8, Send(passing, command));
    }
}

// The system gives a new thread the id of one that has ended.
TEST_F(PythonLauncherResponsesTest, ANewThreadDoesNotFindTheResponseOfAnEndedOne) {
    Start();
    for (int i = 0; i < 5; ++i) {
        OnAnotherThread([&] {
            EXPECT_EQ(WithInfo(Texts::kNoResponse), ReadFailure(launcher));
            Send(launcher, command);
        });
    }
}

TEST_F(PythonLauncherResponsesTest, ACommandAfterARestartAnswersOnEveryThread) {
    Start();
    Worker other;
    std::promise<void> sent;
    other.Begin([&] {
        Answer("from before");
        Send(launcher, command);
        sent.set_value();
    });
    sent.get_future().wait();
    Fakes::Fail("call send_command");
    SendFailure(launcher, command);
    other.Then([&] {
        ExpectAnswer("from after");
        EXPECT_EQ(WithInfo(Texts::kNoResponse), ReadFailure(launcher));
    });
}

// Destroying a command's result may run Python code that sends commands: the outer response wins.
TEST_F(PythonLauncherResponsesTest, ACommandWithinTheReleaseOfAResultLeavesTheOuterResponse) {
    Start();
    for (const bool innerIsRead : {true, false}) {
        Answer("the outer one");
        WithinNext("Py_DecRef(result)", [&] {
            OutsideTheInterpreter([&] {
                Answer("the inner one");
                EXPECT_EQ(13, Send(launcher, command));
                if (!innerIsRead) return;
                EXPECT_EQ("the inner one", Read(launcher, 13));
            });
        });
        EXPECT_EQ(13, Send(launcher, command));
        EXPECT_EQ("the outer one", Read(launcher, 13));
        EXPECT_EQ(WithInfo(Texts::kNoResponse), ReadFailure(launcher));
    }
}

// --- Storage
// --------------------------------------------------------------------------------------

TEST_F(PythonLauncherResponsesTest, ResponsesOfAllSizesInTurnAreWhole) {
    Start();
    for (const int size : {0, 1, 255, 256, 257, 65535, 65536, 65537, 1 << 20, 300000, 3, 1 << 22,
                           1 << 22, 1 << 22, 1 << 20, (1 << 20) - 1, 70000, 0, 64}) {
        ExpectAnswer(std::string(static_cast<std::size_t>(size), static_cast<char>(size % 251)));
    }
}

TEST_F(PythonLauncherResponsesTest, ResponsesThatAreNeverReadAreReplaced) {
    Start();
    for (const std::size_t size : {10U, 100000U, 5U, 200000U, 200000U, 7U}) {
        Answer(std::string(size, 'x'));
        EXPECT_EQ(static_cast<int>(size), Send(launcher, command));
    }
    EXPECT_EQ("xxxxxxx", Read(launcher, 7));
}

// An allocation of the bridge's own that a command needs fails: what was pending stays.
TEST_F(PythonLauncherResponsesTest, WithoutMemoryForAResponseTheEarlierOneStays) {
    Start();
    Answer("pending");
    Send(launcher, command);
    Answer(std::string(100000, 'x'));
    AllocationShim::FailIn(BridgeLibrary(), 1);
    const std::string failure = SendFailure(launcher, command);
    EXPECT_TRUE(AllocationShim::FailNoMore());
    EXPECT_EQ("std::bad_alloc", failure);
    EXPECT_FALSE(HoldsInterpreterLock());
    EXPECT_EQ("pending", Read(launcher, 7));
    ExpectAnswer("next");
}

TEST_F(PythonLauncherResponsesTest, WithoutMemoryForAThreadsFirstUseNothingIsCalled) {
    Start();
    OnAnotherThread([&] {
        AllocationShim::FailIn(BridgeLibrary(), 1);
        const std::string failure = SendFailure(launcher, command);
        EXPECT_TRUE(AllocationShim::FailNoMore());
        EXPECT_EQ("std::bad_alloc", failure);
        EXPECT_EQ("", PythonCalls());
        ExpectAnswer("next");
    });
}

// Lets the next allocation of the bridge fail and tells whether a command and its read make one.
class PythonLauncherStorageTest : public PythonLauncherResponsesTest {
  protected:
    bool Allocates(std::size_t size) {
        Answer(std::string(size, 'x'));
        AllocationShim::FailIn(BridgeLibrary(), 1);
        const std::string failure = SendFailure(launcher, command);
        const bool failed = AllocationShim::FailNoMore();
        EXPECT_EQ(failed ? "std::bad_alloc" : "no exception", failure);
        if (failed) Send(launcher, command);
        Read(launcher, static_cast<int>(size));
        return failed;
    }
};

TEST_F(PythonLauncherStorageTest, CommandsInTurnReuseIt) {
    Start();
    EXPECT_TRUE(Allocates(64));
    for (const std::size_t size : {64U, 0U, 200U, 64U}) EXPECT_FALSE(Allocates(size)) << size;
    EXPECT_TRUE(Allocates(65536));
    for (const std::size_t size : {1U, 65536U, 64U}) EXPECT_FALSE(Allocates(size)) << size;
}

TEST_F(PythonLauncherStorageTest, OneBigResponseDoesNotStayAndBigOnesInTurnDo) {
    constexpr std::size_t kBig = 1 << 22;
    Start();
    EXPECT_TRUE(Allocates(64));
    EXPECT_TRUE(Allocates(kBig));
    EXPECT_TRUE(Allocates(kBig));
    EXPECT_FALSE(Allocates(kBig));
    EXPECT_FALSE(Allocates(kBig / 4));
    EXPECT_TRUE(Allocates(kBig / 4 - 1));
}

}  // namespace
