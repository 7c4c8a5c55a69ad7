// Threads that live as long as the benchmark and do the same thing at the same time, so that no
// figure holds the start of a thread. Used by one thread.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace Benchmarks {

// One thread that does one job at a time.
class Worker {
  public:
    Worker();
    ~Worker();

    void Begin(std::function<void()> job);

    // Waits for the job; rethrows what it threw.
    void Finish();

  private:
    void Serve();

    std::mutex lock;
    std::condition_variable changed;
    std::function<void()> job;
    std::exception_ptr failure;
    bool busy = false;
    bool ending = false;
    std::thread thread;  // the last member: it uses the others
};

class Crew {
  public:
    explicit Crew(std::size_t size);

    // Runs the job once on the first thread.
    void Do(const std::function<void()>& job);

    // On each of the first `threads` threads: calls `round` with the thread's index a few times to
    // warm up, then all of them together call it with `times`. Returns the seconds from the first
    // one's start to the last one's end.
    double Time(std::size_t threads, long times,
                const std::function<void(std::size_t thread, long times)>& round);

  private:
    std::vector<std::unique_ptr<Worker>> workers;
};

}  // namespace Benchmarks
