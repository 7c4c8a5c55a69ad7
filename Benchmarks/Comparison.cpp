#include "Benchmarks/Comparison.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <utility>

namespace Benchmarks {

namespace {

struct Turns {
    Contender contender;
    long times = 0;  // of the work in one turn; 0 until it is known how long one takes
};

using Comparison = std::vector<Turns>;

long TimesPerTurn(const Contender& contender, double secondsOfATurn) {
    long times = 1;
    double seconds = contender.time(times);
    while (seconds < secondsOfATurn / 2) {
        const double wanted = secondsOfATurn / std::max(seconds, 1e-9);
        times = static_cast<long>(static_cast<double>(times) * std::clamp(wanted, 2.0, 10.0));
        seconds = contender.time(times);
    }
    return times;
}

void Measure(benchmark::State& state, Comparison& comparison, double secondsOfATurn) {
    std::vector<double> seconds(comparison.size());
    long turns = 0;
    for (Turns& own : comparison) {
        if (own.times == 0) own.times = TimesPerTurn(own.contender, secondsOfATurn);
    }
    for (auto unused : state) {
        (void)unused;
        double all = 0;
        for (std::size_t i = 0; i < comparison.size(); ++i) {
            const double turn = comparison[i].contender.time(comparison[i].times);
            seconds[i] += turn;
            all += turn;
        }
        state.SetIterationTime(all / static_cast<double>(comparison.size()));
        ++turns;
    }
    for (std::size_t i = 0; i < comparison.size(); ++i) {
        const auto times = static_cast<double>(turns) * static_cast<double>(comparison[i].times);
        state.counters[comparison[i].contender.figure] = seconds[i] * 1e9 / times;
    }
}

}  // namespace

void Compare(const std::string& name, std::vector<Contender> contenders, double secondsOfATurn,
             int repetitions) {
    const auto comparison = std::make_shared<Comparison>();
    for (Contender& contender : contenders) comparison->push_back({std::move(contender)});
    const auto measure = [comparison, secondsOfATurn](benchmark::State& state) {
        try {
            Measure(state, *comparison, secondsOfATurn);
        } catch (const std::exception& error) {
            state.SkipWithError(error.what());
        }
    };
    auto* registered = benchmark::RegisterBenchmark(name.c_str(), measure)->UseManualTime();
    if (repetitions > 0) registered->Repetitions(repetitions);
}

}  // namespace Benchmarks
