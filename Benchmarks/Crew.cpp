#include "Benchmarks/Crew.h"

#include <algorithm>
#include <chrono>
#include <latch>
#include <utility>

namespace Benchmarks {

namespace {

using Clock = std::chrono::steady_clock;

// The bridge keeps the storage of a large response when the one before was large as well; the next
// one finds its own places in the heap then.
constexpr long kWarmUps = 3;

struct Span {
    Clock::time_point begin;
    Clock::time_point end;
};

double SecondsOf(const std::vector<Span>& spans) {
    Span whole = spans.front();
    for (const Span& span : spans) {
        whole.begin = std::min(whole.begin, span.begin);
        whole.end = std::max(whole.end, span.end);
    }
    return std::chrono::duration<double>(whole.end - whole.begin).count();
}

}  // namespace

Worker::Worker() : thread([this] { Serve(); }) {}

Worker::~Worker() {
    {
        const std::lock_guard<std::mutex> guard(lock);
        ending = true;
    }
    changed.notify_all();
    thread.join();
}

void Worker::Begin(std::function<void()> next) {
    {
        const std::lock_guard<std::mutex> guard(lock);
        job = std::move(next);
        busy = true;
    }
    changed.notify_all();
}

void Worker::Finish() {
    std::unique_lock<std::mutex> guard(lock);
    changed.wait(guard, [this] { return !busy; });
    if (failure) std::rethrow_exception(std::exchange(failure, nullptr));
}

void Worker::Serve() {
    std::unique_lock<std::mutex> guard(lock);
    while (true) {
        changed.wait(guard, [this] { return busy || ending; });
        if (!busy) return;
        guard.unlock();
        std::exception_ptr thrown;
        try {
            job();
        } catch (...) {
            thrown = std::current_exception();
        }
        guard.lock();
        failure = thrown;
        busy = false;
        changed.notify_all();
    }
}

Crew::Crew(std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) workers.push_back(std::make_unique<Worker>());
}

void Crew::Do(const std::function<void()>& job) {
    workers.front()->Begin(job);
    workers.front()->Finish();
}

double Crew::Time(std::size_t threads, long times,
                  const std::function<void(std::size_t thread, long times)>& round) {
    std::vector<Span> spans(threads);
    std::latch together(static_cast<std::ptrdiff_t>(threads));
    for (std::size_t i = 0; i < threads; ++i) {
        workers[i]->Begin([&, i] {
            try {
                round(i, kWarmUps);
            } catch (...) {
                together.count_down();  // the others must not wait for this one
                throw;
            }
            together.arrive_and_wait();
            spans[i].begin = Clock::now();
            round(i, times);
            spans[i].end = Clock::now();
        });
    }
    std::exception_ptr failure;
    for (std::size_t i = 0; i < threads; ++i) {
        try {
            workers[i]->Finish();
        } catch (...) {
            failure = std::current_exception();
        }
    }
    if (failure) std::rethrow_exception(failure);
    return SecondsOf(spans);
}

}  // namespace Benchmarks
