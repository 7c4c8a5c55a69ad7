// Where large responses live: in the place of their command when Python has given that back, else
// in storage that the bridge keeps. What the bridge asks of operator new tells which it was.
#include <malloc.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "Tests/Native/AllocationShim.h"
#include "Tests/Native/Sanitizers.h"
#include "Tests/Runtimes/Python/Real/RealPython.h"

namespace {

// A command's 8 bytes behind the header are the size of the response, the byte behind those tells
// whether Python keeps the command, or whether the response is the command itself. Else the
// response begins with the place of the command.
constexpr const char* kReceiver = R"(
kept = []

class Receiver(object):
    @staticmethod
    def send_command(message):
        if message[19:20] == b'e':
            return bytearray(message)
        kept[:] = [message] if message[19:20] == b'k' else []
        result = bytearray(int.from_bytes(message[11:19], 'little'))
        result[:8] = id(message).to_bytes(8, 'little')
        result[-1:] = message[-1:]
        return result

    @staticmethod
    def heart_beat(message):
        return bytearray(message)

    @staticmethod
    def initialize_exception_handler():
        pass

    @staticmethod
    def get_runtime_info():
        return 'Test receiver'
)";

constexpr std::size_t kLarge = 4 << 20;  // bytes; the smallest size that this is about
constexpr const char* kNoPlaceTwice = "a sanitizer does not give the same place twice";

struct Answer {
    std::uintptr_t command;  // where it lay in Python
    const void* asked;       // what the bridge got from operator new meanwhile, the last of it
    long long timesAsked;
};

// Bytes that malloc has given out and not got back.
std::size_t MemoryInUse() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

class RealPythonStorageTest : public RealPython {
  protected:
    RealPythonStorageTest() { UseReceiver(kReceiver); }

    void Start() {
        Initialize();
        library = AllocationShim::LibraryOf(bridge->Address("CreateReceiver"));
    }

    static std::string MakeCommand(std::size_t size, std::size_t answerSize, bool isKept) {
        std::string text = Command(std::string(size - 11, 'x'));
        std::memcpy(text.data() + 11, &answerSize, sizeof answerSize);
        text[19] = isKept ? 'k' : 'f';
        text.back() = '!';
        return text;
    }

    // Its neighbouring pages differ.
    static std::string MakeEcho(std::size_t size, int round) {
        std::string text = MakeCommand(size, size, false);
        text[19] = 'e';
        for (std::size_t i = 20; i < size; ++i) {
            text[i] = static_cast<char>((i + i / 4096 + static_cast<std::size_t>(round)) % 251);
        }
        return text;
    }

    int Send(std::string text) {
        return receiver->SendCommand(reinterpret_cast<unsigned char*>(text.data()),
                                     static_cast<int>(text.size()));
    }

    Answer Ask(std::size_t size, std::size_t answerSize, bool isKept = false) {
        const std::string text = MakeCommand(size, answerSize, isKept);
        AllocationShim::Watch(library);
        const std::string response = SendTo(*receiver, text);
        Answer answer = {0, AllocationShim::LastWatched(), AllocationShim::WatchedCount()};
        AllocationShim::Watch(nullptr);
        EXPECT_EQ(answerSize, response.size());
        EXPECT_EQ('!', response.back());
        std::memcpy(&answer.command, response.data(), sizeof answer.command);
        return answer;
    }

    // Of so many commands in turn, the numbers of those that the bridge asked for memory for.
    std::vector<int> Asking(int commands, bool areKept) {
        std::vector<int> asking;
        for (int number = 1; number <= commands; ++number) {
            if (Ask(kLarge, kLarge, areKept).timesAsked > 0) asking.push_back(number);
        }
        return asking;
    }

    const void* library = nullptr;
};

QUORVALEN_ON_EVERY_PYTHON(RealPythonStorageTest);

// The first commands of a size find their way into malloc's heap.
TEST_P(RealPythonStorageTest, ALargeResponseTakesThePlaceOfItsCommand) {
    if (QUORVALEN_TEST_SANITIZED) GTEST_SKIP() << kNoPlaceTwice;
    Start();
    for (const std::size_t size : {kLarge, 2 * kLarge, 4 * kLarge}) {
        for (int round = 0; round < 4; ++round) Ask(size, size);
        for (int round = 0; round < 5; ++round) {
            const Answer answer = Ask(size, size);
            EXPECT_EQ(1, answer.timesAsked);
            EXPECT_EQ(reinterpret_cast<void*>(answer.command), answer.asked);
        }
    }
}

// Of sizes that are no multiples of anything, on threads with heaps of their own too.
TEST_P(RealPythonStorageTest, LargeResponsesAreWholeWhereverTheyLive) {
    Start();
    const auto askInTurn = [&] {
        for (int round = 0; round < 3; ++round) {
            for (const std::size_t size : {kLarge, kLarge + 4097, 3 * kLarge - 1}) {
                const std::string text = MakeEcho(size, round);
                EXPECT_TRUE(text == SendTo(*receiver, text)) << size;
            }
        }
    };
    askInTurn();
    std::thread other(askInTurn);
    askInTurn();
    other.join();
}

TEST_P(RealPythonStorageTest, AResponseThatIsLongerThanItsCommandStaysInTheStorageKept) {
    Start();
    for (int round = 0; round < 2; ++round) Ask(kLarge, kLarge + 1);
    for (int round = 0; round < 5; ++round) EXPECT_EQ(0, Ask(kLarge, kLarge + 1).timesAsked);
}

TEST_P(RealPythonStorageTest, AResponseThatIsNotLargeStaysInTheStorageKept) {
    Start();
    for (int round = 0; round < 2; ++round) Ask(kLarge, kLarge - 1);
    for (int round = 0; round < 5; ++round) EXPECT_EQ(0, Ask(kLarge, kLarge - 1).timesAsked);
}

TEST_P(RealPythonStorageTest, TheStorageKeptOutlastsAResponseInThePlaceOfItsCommand) {
    if (QUORVALEN_TEST_SANITIZED) GTEST_SKIP() << kNoPlaceTwice;
    Start();
    for (int round = 0; round < 2; ++round) Ask(64, kLarge);
    EXPECT_EQ(0, Ask(64, kLarge).timesAsked);
    for (int round = 0; round < 4; ++round) Ask(kLarge, kLarge);
    EXPECT_EQ(1, Ask(kLarge, kLarge).timesAsked);
    EXPECT_EQ(0, Ask(64, kLarge).timesAsked);
}

TEST_P(RealPythonStorageTest, ThePlaceOfACommandGoesBackWhenTheResponseIsRead) {
    if (QUORVALEN_TEST_SANITIZED) GTEST_SKIP() << kNoPlaceTwice;
    Start();
    for (int round = 0; round < 4; ++round) Ask(kLarge, kLarge);
    const std::string command = MakeCommand(kLarge, kLarge, false);
    const std::size_t before = MemoryInUse();
    Send(command);
    EXPECT_LE(before + kLarge, MemoryInUse());
    receiver->ReadResponse(nullptr, 0);
    EXPECT_GT(before + kLarge, MemoryInUse());
}

TEST_P(RealPythonStorageTest, OfLargeResponsesThatNobodyReadsNothingStays) {
    if (QUORVALEN_TEST_SANITIZED) GTEST_SKIP() << kNoPlaceTwice;
    Start();
    Ask(64, 64);
    const std::size_t before = MemoryInUse();
    for (int unread = 1; unread <= 2; ++unread) {
        for (int round = 0; round < 3; ++round) Ask(64, kLarge);
        for (int round = 0; round < 4; ++round) Ask(kLarge, kLarge);
        EXPECT_LT(before + kLarge, MemoryInUse());
        for (int round = 0; round < unread; ++round) Send(MakeCommand(kLarge, kLarge, false));
        EXPECT_LT(before + kLarge, MemoryInUse());
        Ask(64, 64);
        EXPECT_GT(before + kLarge, MemoryInUse()) << unread;
    }
}

// A place that is taken is not asked for each time, because malloc may give memory back to the
// system that Python needs for the next command. Commands 1 and 2 make the storage that is kept.
TEST_P(RealPythonStorageTest, APlaceThatPythonKeepsIsAskedForMoreAndMoreRarely) {
    Start();
    std::vector<int> expected = {1, 2, 3, 7, 15, 31, 63};
    if (!QUORVALEN_TEST_SANITIZED) {
        expected.insert(expected.end(), {127, 255, 511, 1023, 2047, 3071});
    }
    EXPECT_EQ(expected, Asking(expected.back(), true));
}

TEST_P(RealPythonStorageTest, APlaceThatPythonNoLongerKeepsIsAskedForMoreAndMoreOften) {
    if (QUORVALEN_TEST_SANITIZED) GTEST_SKIP() << kNoPlaceTwice;
    Start();
    Asking(15, true);
    EXPECT_EQ((std::vector<int>{16, 24, 28, 30, 31, 32, 33}), Asking(33, false));
}

// The system gives the same place again, without what was there: each page of it would cost.
TEST_P(RealPythonStorageTest, APlaceThatMallocGetsFromTheSystemIsNotTaken) {
    if (QUORVALEN_TEST_SANITIZED) GTEST_SKIP() << "a sanitizer has a malloc of its own";
    mallopt(M_MMAP_THRESHOLD, 1 << 20);
    Start();
    EXPECT_EQ((std::vector<int>{1, 2, 3, 7, 15, 31}), Asking(40, false));
}

TEST_P(RealPythonStorageTest, WithoutMemoryForTheAttemptTheStorageKeptIsUsed) {
    Start();
    for (int command = 1; command <= 6; ++command) Ask(kLarge, kLarge, true);
    AllocationShim::FailIn(library, 1);
    std::string response;
    const std::string failure =
        FailureOf([&] { response = SendTo(*receiver, MakeCommand(kLarge, kLarge, true)); });
    EXPECT_TRUE(AllocationShim::FailNoMore());
    EXPECT_EQ("no exception", failure);
    EXPECT_EQ(kLarge, response.size());
}

}  // namespace
