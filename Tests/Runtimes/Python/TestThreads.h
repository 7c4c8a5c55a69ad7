// Threads that a test steers: one that stays for several steps, and one that is expected to wait.
// Created and ended by the test's own thread. And a process that has only one of them.
#pragma once

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <string>
#include <thread>
#include <utility>

// A thread that stays, so that several steps of a test run on the same one.
class Worker {
  public:
    ~Worker() {
        if (thread.joinable()) thread.join();
    }
    // Starts `first` and returns; `Then` continues after it on the same thread.
    void Begin(std::function<void()> first) {
        thread = std::thread([this, first] {
            first();
            next.get_future().get()();
        });
    }
    void Then(std::function<void()> last) {
        next.set_value(std::move(last));
        thread.join();
    }

  private:
    std::promise<std::function<void()>> next;
    std::thread thread;
};

// A thread that runs one operation which is expected to wait for something.
class Waiting {
  public:
    explicit Waiting(std::function<void()> operation)
        : thread([this, operation] {
              id.store(static_cast<int>(syscall(SYS_gettid)));
              operation();
              done.store(true);
          }) {}
    ~Waiting() { thread.join(); }

    // Gives the thread the time to come as far as it can: until it sleeps, or has not waited.
    void UntilItWaits() const {
        while (!done.load() && !IsAsleep()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

  private:
    bool IsAsleep() const {
        std::ifstream stat("/proc/self/task/" + std::to_string(id.load()) + "/stat");
        const std::string text{std::istreambuf_iterator<char>(stat), {}};
        const std::size_t name = text.rfind(')');
        return name != std::string::npos && text.compare(name, 3, ") S") == 0;
    }

    std::atomic<int> id{0};
    std::atomic<bool> done{false};
    std::thread thread;
};

// Runs `operation` in a forked child. 0 when its expectations were met.
template <typename Operation>
int StatusOfChild(Operation operation) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(60);
        operation();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}
