// Many threads at the entry points at once: one object each, and whole error texts.
#include <gtest/gtest.h>

#include <algorithm>
#include <barrier>
#include <stdexcept>
#include <thread>

#include "Tests/Fakes/SlotOrder.h"
#include "Tests/Support/Bridge.h"
#include "Tests/Support/Files.h"

using Quorvalen::Native::Definitions::RuntimeOperationMode;

namespace {

constexpr int kThreads = 8;

// Runs `work(number)` on all threads at once and waits for them.
template <typename Work>
void OnAllThreads(Work work) {
    std::barrier together(kThreads);
    std::vector<std::thread> threads;
    for (int number = 0; number < kThreads; ++number) {
        threads.emplace_back([&, number] {
            together.arrive_and_wait();
            work(number);
        });
    }
    for (std::thread& thread : threads) thread.join();
}

template <typename Create>
std::vector<void*> CreatedByAllThreads(Create create) {
    std::vector<void*> created(kThreads);
    OnAllThreads(
        [&](int number) { created[static_cast<std::size_t>(number)] = create(number % 2); });
    return created;
}

// Fails every command with a long text of one letter, that of the message's first byte. The texts
// grow with the length, so that keeping one needs new memory.
class FailingTransmitter : public SlotOrder::ITransmitter {
  public:
    static std::string TextOf(int number, int length) {
        return std::string(100 * static_cast<std::size_t>(length), static_cast<char>('a' + number));
    }

    int SendCommand(unsigned char* message, int length) override {
        throw std::runtime_error(TextOf(message[0], length));
    }
    int ReadResponse(unsigned char*, int) override { return 0; }
    void SetTransportChannel(SlotOrder::ITransport*) override {}
    int SetEmbeddedRuntime(unsigned char, unsigned char, unsigned char, std::string) override {
        return 0;
    }
    int DeployRuntime(unsigned char*, int, std::string, unsigned char) override { return 0; }
};

class PythonLibThreadsTest : public testing::Test {
  protected:
    Layout layout;
    Bridge bridge{layout};
};

TEST_F(PythonLibThreadsTest, ManyFirstCreateReceiversGiveOneReceiver) {
    const auto created = CreatedByAllThreads(bridge.C<void*(int)>("CreateReceiver"));
    ASSERT_NE(nullptr, created[0]);
    EXPECT_EQ(std::vector<void*>(kThreads, created[0]), created);
    EXPECT_EQ(created[0], bridge.C<void*()>("GetReceiver")());
}

TEST_F(PythonLibThreadsTest, ManyFirstCreateTransmittersGiveOneTransmitter) {
    const auto created = CreatedByAllThreads(bridge.C<void*(int)>("CreateTransmitter"));
    ASSERT_NE(nullptr, created[0]);
    EXPECT_EQ(std::vector<void*>(kThreads, created[0]), created);
    EXPECT_EQ(created[0], bridge.C<void*()>("GetTransmitter")());
}

TEST_F(PythonLibThreadsTest, ReceiverAndTransmitterCreatedAtOnceAgreeOnOneMode) {
    const auto createReceiver = bridge.C<void*(int)>("CreateReceiver");
    const auto createTransmitter = bridge.C<void*(int)>("CreateTransmitter");
    std::vector<void*> created(kThreads);
    OnAllThreads([&](int number) {
        created[static_cast<std::size_t>(number)] =
            number % 2 == 0 ? createReceiver(0) : createTransmitter(1);
    });
    for (int number = 0; number < kThreads; ++number) {
        EXPECT_EQ(created[static_cast<std::size_t>(number % 2)],
                  created[static_cast<std::size_t>(number)]);
    }
    const int mode = static_cast<int>(bridge.Variable<RuntimeOperationMode>("operationMode"));
    EXPECT_TRUE(mode == 0 || mode == 1) << mode;
}

TEST_F(PythonLibThreadsTest, ManyFirstStartUpsGiveOneTransmitter) {
    const auto atStartUp = bridge.Cpp<void()>("AtStartUp()");
    const auto getTransmitter = bridge.C<void*()>("GetTransmitter");
    const auto created = CreatedByAllThreads([&](int) {
        atStartUp();
        return getTransmitter();
    });
    ASSERT_NE(nullptr, created[0]);
    EXPECT_EQ(std::vector<void*>(kThreads, created[0]), created);
}

constexpr int kLongest = 1024;

void ExpectWhole(const std::string& text) {
    EXPECT_EQ(FailingTransmitter::TextOf(text.at(0) - 'a', kLongest), text);
}

TEST_F(PythonLibThreadsTest, FailuresAtOnceKeepTheErrorTextWhole) {
    FailingTransmitter transmitter;
    bridge.Variable<SlotOrder::ITransmitter*>("transmitter") = &transmitter;
    bridge.Variable<RuntimeOperationMode>("operationMode") = RuntimeOperationMode::CallingRuntime;
    bridge.Cpp<void()>("AtStartUp()")();
    const auto sendCommand = bridge.C<int(unsigned char*, int)>("SendCommand");
    auto& errorMessage = bridge.Variable<std::string>("errorMessage");
    constexpr int kRounds = 500;
    std::barrier rounds(kThreads);
    OnAllThreads([&](int number) {
        unsigned char message[1] = {static_cast<unsigned char>(number)};
        for (int round = 0; round < kRounds; ++round) {
            if (number == 0) std::string().swap(errorMessage);
            rounds.arrive_and_wait();
            for (int length = 1; length <= kLongest; length *= 4) sendCommand(message, length);
            rounds.arrive_and_wait();
            if (number == 0) ExpectWhole(errorMessage);
        }
    });
}

}  // namespace
