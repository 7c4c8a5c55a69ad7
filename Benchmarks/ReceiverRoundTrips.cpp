// Times the round trip of a command through the bridge's receiver, the same calls of Python written
// by hand, the same through pybind11, and one copy of the bytes, all on one interpreter and taking
// turns.
//
//   receiver-round-trips BRIDGE PYBIND_CALLER|- [Google Benchmark's options]
//
// A figure's name is <who>/<where>/<bytes>; where is the thread that started Python ("starting"),
// one other thread ("other"), or so many others at once ("others:8"); "+slow" beside a further one
// whose commands take 0.1 s each. Times are wall-clock times per command.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Benchmarks/Comparison.h"
#include "Benchmarks/Crew.h"
#include "Benchmarks/HostedPython.h"
#include "Native/Definitions/CommandHeader.h"

using namespace Benchmarks;
namespace CommandHeader = Quorvalen::Native::Definitions::CommandHeader;

namespace {

constexpr std::array<std::size_t, 6> kSizes = {16, 64, 4096, 65536, 1 << 20, 16 << 20};
constexpr std::size_t kMostThreads = 8;
constexpr std::array<std::size_t, 3> kFewerThreads = {1, 2, 4};
constexpr std::size_t kSizeOnSeveralThreads = 64;

// Long enough that all threads compete, and that their different ends do not count.
constexpr double kTurnOfSeveralThreads = 0.3;
constexpr int kRepetitionsOfSeveralThreads = 3;

std::unique_ptr<HostedPython> hosted;

using RoundTrip = void (*)(Exchange&);

// A thread that the bridge was on may be cheaper for the others afterwards, so nobody shares the
// threads that did not start Python.
struct Subject {
    const char* name;
    RoundTrip roundTrip;
    std::shared_ptr<Crew> others = std::make_shared<Crew>(kMostThreads);
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

// Each thread has an exchange of its own, from here on.
Contender MakeContender(const std::string& figure, RoundTrip roundTrip, std::size_t size,
                        const std::shared_ptr<Crew>& crew, std::size_t threads) {
    auto exchanges = std::make_shared<std::vector<Exchange>>(threads, Exchange(size, kPython));
    const auto round = [=](std::size_t thread, long times) {
        for (; times > 0; --times) roundTrip((*exchanges)[thread]);
    };
    const auto time = [=](long times) {
        const long each = std::max<long>(1, times / static_cast<long>(threads));
        const double seconds = crew->Time(threads, each, round);
        for (const Exchange& exchange : *exchanges) exchange.RequireEcho();
        return seconds * static_cast<double>(times) / static_cast<double>(each * threads);
    };
    return {figure, time};
}

void CompareSize(std::size_t size, const std::vector<Subject>& subjects,
                 const std::shared_ptr<Crew>& starting) {
    const std::string bytes = "/" + std::to_string(size);
    std::vector<Contender> contenders = {
        MakeContender("copy/starting" + bytes, Copy, size, starting, 1)};
    for (const Subject& subject : subjects) {
        const auto add = [&](const char* where, const std::shared_ptr<Crew>& crew) {
            contenders.push_back(
                MakeContender(subject.name + (where + bytes), subject.roundTrip, size, crew, 1));
        };
        add("/starting", starting);
        add("/other", subject.others);
    }
    Compare(std::to_string(size), contenders);
}

Contender MakeContender(const Subject& subject, std::size_t threads, const std::string& beside) {
    const std::string figure = subject.name + ("/others:" + std::to_string(threads)) + beside +
                               "/" + std::to_string(kSizeOnSeveralThreads);
    return MakeContender(figure, subject.roundTrip, kSizeOnSeveralThreads, subject.others, threads);
}

// Sends slow commands one after the other, from construction to destruction.
class SlowCommands {
  public:
    SlowCommands() : thread([](const std::stop_token& end) { SendUntil(end); }) {}

  private:
    static void SendUntil(const std::stop_token& end) {
        Exchange exchange(kSizeOnSeveralThreads, kPython);
        exchange.command[CommandHeader::kKind] = Quorvalen::Native::Definitions::kHeartBeat;
        while (!end.stop_requested()) hosted->AskBridge(exchange);
    }

    std::jthread thread;
};

Contender BesideSlowCommands(Contender contender) {
    contender.time = [time = std::move(contender.time)](long times) {
        const SlowCommands beside;
        return time(times);
    };
    return contender;
}

// How the bridge fares with fewer threads and beside slow commands is of interest where it keeps
// the threads' Python states; the others are only there for the comparison of all threads.
void CompareSeveralThreads(const std::vector<Subject>& subjects) {
    std::vector<Contender> contenders;
    for (const Subject& subject : subjects) {
        contenders.push_back(MakeContender(subject, kMostThreads, ""));
    }
    const char* lifetime = std::getenv("QUORVALEN_PYTHON_LIFETIME");
    if (lifetime != nullptr && std::string(lifetime) == "process") {
        const Subject& bridge = subjects.front();
        for (const std::size_t threads : kFewerThreads) {
            contenders.push_back(MakeContender(bridge, threads, ""));
        }
        contenders.push_back(BesideSlowCommands(MakeContender(bridge, 1, "+slow")));
    }
    Compare("threads", contenders, kTurnOfSeveralThreads, kRepetitionsOfSeveralThreads);
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
    for (const std::size_t size : kSizes) CompareSize(size, subjects, starting);
    CompareSeveralThreads(subjects);
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
