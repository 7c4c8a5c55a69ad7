// The parts of the host that threads share, and those that need no socket.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Companions/Host/CommandStream.h"
#include "Companions/Host/WorkerSlots.h"

namespace Quorvalen::Companions::Network::Host {
namespace {

// Counts how many of its kind are executed at the same time.
class CountingJob : public Job {
  public:
    CountingJob(std::atomic<int>& running, std::atomic<int>& most, int count)
        : now(running), peak(most), commands(count) {}

    bool Execute() override {
        const int here = ++now;
        int seen = peak;
        while (here > seen && !peak.compare_exchange_weak(seen, here)) {
        }
        std::this_thread::yield();
        --now;
        return --commands > 0;
    }
    int Left() const { return commands; }

  private:
    std::atomic<int>& now;
    std::atomic<int>& peak;
    int commands;  // only one thread at a time has the job
};

TEST(WorkerSlotsTest, NeverMoreThanTheSlotsAreAtWorkAndNoneIsForgotten) {
    WorkerSlots slots(2);
    std::atomic<int> now = 0;
    std::atomic<int> most = 0;
    std::vector<std::shared_ptr<CountingJob>> jobs;
    for (int i = 0; i < 400; ++i) jobs.push_back(std::make_shared<CountingJob>(now, most, 5));
    std::vector<std::thread> threads;
    for (std::size_t first = 0; first < 4; ++first) {
        threads.emplace_back([&, first] {
            for (std::size_t i = first; i < jobs.size(); i += 4) slots.Run(jobs[i]);
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (const auto& job : jobs) EXPECT_EQ(0, job->Left());
    EXPECT_GE(2, most);
}

class TalkingJob : public Job {
  public:
    TalkingJob(std::string& written, char sign, int count, std::function<void()> first)
        : text(written), name(sign), commands(count), before(std::move(first)) {}

    bool Execute() override {
        if (before) std::exchange(before, nullptr)();
        text += name;
        return --commands > 0;
    }

  private:
    std::string& text;
    char name;
    int commands;
    std::function<void()> before;
};

TEST(WorkerSlotsTest, JobsTakeTurns) {
    WorkerSlots slots(1);
    std::string text;
    const auto second = std::make_shared<TalkingJob>(text, 'b', 2, nullptr);
    const auto third = std::make_shared<TalkingJob>(text, 'c', 1, nullptr);
    slots.Run(std::make_shared<TalkingJob>(text, 'a', 3, [&] {
        slots.Run(second);
        slots.Run(third);
    }));
    EXPECT_EQ("abcaba", text);
}

TEST(WorkerSlotsTest, OneAloneGoesOnWithoutTheQueue) {
    WorkerSlots slots(1);
    std::string text;
    slots.Run(std::make_shared<TalkingJob>(text, 'a', 100000, nullptr));
    EXPECT_EQ(std::string(100000, 'a'), text);
}

std::vector<unsigned char> Bytes(const std::string& text) {
    return std::vector<unsigned char>(text.begin(), text.end());
}

TEST(CommandStreamTest, ACommandIsFoundAndItsLargeStorageGivenBack) {
    CommandStream stream(1000);
    Response response;
    const auto frame = Bytes(std::string("\0\0\0\x0b", 4) + "0123456789" + "\x01");
    std::copy(frame.begin(), frame.end(), stream.Space().begin());
    stream.Commit(3);
    EXPECT_EQ(CommandStream::Found::Nothing, stream.Next(response));
    EXPECT_FALSE(stream.IsBetweenFrames());
    std::copy(frame.begin() + 3, frame.end(), stream.Space().begin());
    stream.Commit(frame.size() - 3);
    EXPECT_EQ(CommandStream::Found::Command, stream.Next(response));
    EXPECT_EQ(11U, stream.Command().size());
    EXPECT_TRUE(stream.IsBetweenFrames());
    EXPECT_TRUE(response.Frame().empty());
}

}  // namespace
}  // namespace Quorvalen::Companions::Network::Host
