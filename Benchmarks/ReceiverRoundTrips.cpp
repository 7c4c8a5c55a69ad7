// Times the round trip of a command through the bridge's receiver, the same calls of Python written
// by hand, the same through pybind11, and one copy of the bytes, all on one interpreter and taking
// turns.
//
//   receiver-round-trips BRIDGE PYBIND_CALLER|- [Google Benchmark's options]
//
// A figure's name is <who>/<where>/<bytes>; where is the thread that started Python, or so many
// other threads at once. Times are wall-clock times per command.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Benchmarks/Crew.h"
#include "Benchmarks/HostedPython.h"

using namespace Benchmarks;

namespace {

constexpr std::array<std::size_t, 6> kSizes = {16, 64, 4096, 65536, 1 << 20, 16 << 20};
constexpr std::array<std::size_t, 3> kSeveralThreads = {2, 4, 8};
constexpr std::size_t kSizeOnSeveralThreads = 64;

// Long enough that all threads compete: CPython lets one keep its lock for 5 ms.
constexpr double kSecondsOnSeveralThreads = 0.2;
constexpr int kRepetitions = 5;

std::unique_ptr<HostedPython> hosted;

using RoundTrip = void (*)(Exchange&);

// A thread that the bridge was on may be cheaper for the others afterwards, so nobody shares the
// threads that did not start Python.
struct Subject {
    const char* name;
    RoundTrip roundTrip;
    std::shared_ptr<Crew> others = std::make_shared<Crew>(kSeveralThreads.back());
};

void AskBridge(Exchange& exchange) {
    hosted->AskBridge(exchange);
}
void AskByHand(Exchange& exchange) {
    hosted->AskByHand(exchange);
}
void AskPybind(Exchange& exchange) {
    hosted->AskPybind(exchange);
}
void Copy(Exchange& exchange) {
    std::memcpy(exchange.response.data(), exchange.command.data(), exchange.command.size());
    benchmark::ClobberMemory();
}

std::function<void(long)> RoundOf(RoundTrip roundTrip, std::size_t size) {
    auto exchange = std::make_shared<Exchange>(size, kPython);
    return [roundTrip, exchange](long times) {
        for (; times > 0; --times) roundTrip(*exchange);
        exchange->RequireEcho();
    };
}

void Register(const std::string& who, const std::string& where, std::size_t size,
              RoundTrip roundTrip, std::shared_ptr<Crew> crew, std::size_t threads) {
    const std::string name = who + "/" + where + "/" + std::to_string(size);
    const auto measure = [=](benchmark::State& state) {
        while (state.KeepRunningBatch(state.max_iterations)) {
            const long each = std::max<long>(1, state.max_iterations / static_cast<long>(threads));
            const double seconds =
                crew->Time(threads, each, [&] { return RoundOf(roundTrip, size); });
            const auto done = static_cast<double>(each) * static_cast<double>(threads);
            state.SetIterationTime(seconds * static_cast<double>(state.max_iterations) / done);
        }
    };
    auto* registered = benchmark::RegisterBenchmark(name.c_str(), measure)->UseManualTime();
    if (threads > 1) registered->MinTime(kSecondsOnSeveralThreads)->Repetitions(kRepetitions);
}

void RegisterAll(const std::vector<Subject>& subjects, const std::shared_ptr<Crew>& starting) {
    for (const std::size_t size : kSizes) Register("copy", "starting", size, Copy, starting, 1);
    for (const Subject& subject : subjects) {
        for (const std::size_t size : kSizes) {
            Register(subject.name, "starting", size, subject.roundTrip, starting, 1);
            Register(subject.name, "other:1", size, subject.roundTrip, subject.others, 1);
        }
        for (const std::size_t threads : kSeveralThreads) {
            Register(subject.name, "other:" + std::to_string(threads), kSizeOnSeveralThreads,
                     subject.roundTrip, subject.others, threads);
        }
    }
}

int Run(int argc, char** argv) {
    const std::string bridge = argv[1];
    const std::string pybindCaller = argv[2];
    const auto starting = std::make_shared<Crew>(1);
    starting->Do([&] { hosted = std::make_unique<HostedPython>(bridge); });
    std::vector<Subject> subjects = {{"bridge", AskBridge}, {"floor", AskByHand}};
    if (pybindCaller != "-") {
        starting->Do([&] { hosted->OpenPybind(pybindCaller); });
        subjects.push_back({"pybind11", AskPybind});
    }
    RegisterAll(subjects, starting);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: receiver-round-trips BRIDGE PYBIND_CALLER|- [options]\n");
        return 2;
    }
    try {
        return Run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "receiver-round-trips: %s\n", error.what());
        return 1;
    }
}
