// Four threads at once on the in-memory channel: setting up happens once and one call at a time;
// commands after that need no lock, and every thread reads the answers to its own commands.
#include <barrier>
#include <functional>
#include <thread>

#include "Tests/Native/InMemoryFixture.h"
#include "Tests/Support/Launcher.h"

namespace {

constexpr int kThreads = 4;

class TransportInMemoryThreadsTest : public InMemoryTest {
  protected:
    // Runs `work(thread)` on four threads that begin together.
    static void AtOnce(const std::function<void(int)>& work) {
        std::barrier start(kThreads);
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&work, &start, i] {
                start.arrive_and_wait();
                work(i);
            });
        }
        for (std::thread& thread : threads) thread.join();
    }

    // Sends a command that no other thread sends and tells whether exactly it came back.
    bool EchoComesBack(unsigned char target, int thread, int number) const {
        Bytes command = InMemoryCommand(target);
        command.push_back(static_cast<unsigned char>(thread));
        command.push_back(static_cast<unsigned char>(number % 256));
        command.push_back(static_cast<unsigned char>(number / 256));
        const int length = channel->SendCommand(command.data(), Length(command));
        Bytes response(static_cast<std::size_t>(length), target);
        return channel->ReadResponse(response.data(), length) == 0 && response == command;
    }
};

TEST_F(TransportInMemoryThreadsTest, EveryThreadReadsTheAnswersToItsOwnCommands) {
    With("FakeEchoBridge", "Netcore");
    channel->Initialize(kRuby, kNetcore, 7);
    std::array<int, kThreads> answered = {};
    AtOnce([&](int thread) {
        for (int i = 0; i < 1000; ++i) {
            answered[static_cast<std::size_t>(thread)] += EchoComesBack(kNetcore, thread, i);
        }
    });
    for (const int count : answered) EXPECT_EQ(1000, count);
}

TEST_F(TransportInMemoryThreadsTest, CommandsGoOnWhileAnotherRuntimeIsSetUp) {
    With("FakeEchoBridge", "Netcore");
    channel->Initialize(kRuby, kNetcore, 7);
    std::array<int, kThreads> answered = {};
    AtOnce([&](int thread) {
        for (int i = 0; i < 1000; ++i) {
            if (thread == 0 && i == 500) Initialize();
            answered[static_cast<std::size_t>(thread)] += EchoComesBack(kNetcore, thread, i);
        }
    });
    for (const int count : answered) EXPECT_EQ(1000, count);
    EXPECT_EQ(0, Send({kCpp}));
}

TEST_F(TransportInMemoryThreadsTest, OneChannelIsSetUpOnceHoweverManyInitializeIt) {
    std::array<int, kThreads> results = {1, 1, 1, 1};
    AtOnce([&](int thread) { results[static_cast<std::size_t>(thread)] = Initialize(); });
    for (const int result : results) EXPECT_EQ(0, result);
    EXPECT_CALLS(Joined({calledSide, callingSide}));
}

TEST_F(TransportInMemoryThreadsTest, ChannelsAreSetUpOneAfterAnother) {
    AtOnce([this](int) {
        const InMemoryChannel own(bridge);
        own->Initialize(kRuby, kCpp, 7);
    });
    std::vector<std::string> calls;
    for (const std::string& call : Fakes::Trace()) {
        if (call.find(" deleted") == std::string::npos && call.rfind("dlclose", 0) != 0) {
            calls.push_back(call);
        }
    }
    const std::vector<std::string> once = Joined({calledSide, callingSide});
    EXPECT_EQ(Lines(Joined({once, once, once, once})), Lines(calls));
}

// Asked on another thread at every call that Initialize makes into another library.
std::mutex* watched = nullptr;
std::vector<bool> foundFree;
void LookAtTheMutex(const std::string&) {
    std::thread([] {
        const std::unique_lock<std::mutex> lock(*watched, std::try_to_lock);
        foundFree.push_back(lock.owns_lock());
    }).join();
}

TEST_F(TransportInMemoryThreadsTest, TheMutexIsHeldForTheWholeOfInitialize) {
    watched = &InitializationMutex();
    Fakes::SetHook(LookAtTheMutex);
    Initialize();
    Fakes::SetHook(nullptr);
    EXPECT_EQ(std::vector<bool>(6, false), foundFree);
    EXPECT_TRUE(InitializationMutexIsFree());
}

TEST_F(TransportInMemoryThreadsTest, FailingSetUpsLeaveTheMutexToTheOthers) {
    Fakes::Fail("cpp CreateReceiver", 1, true);
    std::array<std::string, kThreads> failures;
    AtOnce([&](int thread) { failures[static_cast<std::size_t>(thread)] = InitializeFailure(); });
    for (const std::string& failure : failures) EXPECT_EQ(Reinstall("015"), failure);
    EXPECT_TRUE(InitializationMutexIsFree());
}

// The called library is the bridge under test itself: every command goes through its receiver and
// into the (fake) interpreter, which answers the thread that asked.
TEST_F(TransportInMemoryThreadsTest, CommandsGoThroughTheReceiverOfThisVeryLibrary) {
    layout.WithReceiverFile();
    UsePython(layout, "FakePython");
    Fakes::SetText("response", "twelve bytes");
    EXPECT_EQ("no exception", FailureOf([this] { channel->Initialize(kRuby, kPython, 0); }));
    std::array<int, kThreads> answered = {};
    AtOnce([&](int thread) {
        for (int i = 0; i < 100; ++i) {
            const bool length = Send(InMemoryCommand(kPython)) == 12;
            Bytes response(12, kPython);
            channel->ReadResponse(response.data(), 12);
            answered[static_cast<std::size_t>(thread)] +=
                length && std::string(response.begin(), response.end()) == "twelve bytes";
        }
    });
    for (const int count : answered) EXPECT_EQ(100, count);
}

}  // namespace
