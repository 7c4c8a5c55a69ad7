// Times a command and its response through the exported functions and the in-memory channel,
// against the virtual calls of the receiver at the channel's end, and counts the allocations.
//
//   routing BRIDGE [Google Benchmark's options]
//
// The library of runtime 3 beside the bridge is the one that answers.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "Benchmarks/Exchange.h"
#include "Benchmarks/Library.h"
#include "Native/Interfaces/IReceiver.h"
#include "Tests/Native/AllocationShim.h"

using namespace Benchmarks;
using Quorvalen::Native::Interfaces::IReceiver;

namespace {

constexpr unsigned char kNetcore = 3;
constexpr unsigned char kPython = 5;  // the channel looks for the caller's library too: the bridge
constexpr std::size_t kSize = 64;

// The first round trip builds the channel.
template <typename RoundTrip>
void Measure(benchmark::State& state, const RoundTrip& roundTrip) {
    Exchange exchange(kSize, kNetcore, kPython);
    exchange.response[0] = kNetcore;  // whom the exported ReadResponse asks
    roundTrip(exchange);
    const long long before = AllocationShim::Count();
    for (auto unused : state) {
        (void)unused;
        exchange.response[0] = kNetcore;
        roundTrip(exchange);
    }
    const auto allocations = static_cast<double>(AllocationShim::Count() - before);
    state.counters["allocations"] =
        benchmark::Counter(allocations, benchmark::Counter::kAvgIterations);
    exchange.RequireEcho();
}

void RegisterRouted(const std::string& bridge) {
    void* library = OpenLibrary(bridge);
    using Function = int (*)(unsigned char*, int);
    const auto send = LookUp<Function>(library, "SendCommand");
    const auto read = LookUp<Function>(library, "ReadResponse");
    benchmark::RegisterBenchmark("routed/64", [=](benchmark::State& state) {
        Measure(state, [=](Exchange& exchange) {
            const int length = send(exchange.command.data(), exchange.Length());
            if (length < 0 || read(exchange.response.data(), length) < 0) {
                throw std::runtime_error(LookUp<const char* (*)()>(library, "GetNativeError")());
            }
        });
    });
}

void RegisterDirect(const std::string& bridge) {
    const auto neighbour =
        std::filesystem::path(bridge).replace_filename("libQuorvalenNetcoreRuntimeNative.so");
    IReceiver* receiver = LookUp<IReceiver* (*)(int)>(OpenLibrary(neighbour), "CreateReceiver")(1);
    benchmark::RegisterBenchmark("direct/64", [=](benchmark::State& state) {
        Measure(state, [=](Exchange& exchange) {
            const int length = receiver->SendCommand(exchange.command.data(), exchange.Length());
            receiver->ReadResponse(exchange.response.data(), length);
        });
    });
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: routing BRIDGE [options]\n");
        return 2;
    }
    try {
        RegisterRouted(argv[1]);
        RegisterDirect(argv[1]);
        benchmark::Initialize(&argc, argv);
        benchmark::RunSpecifiedBenchmarks();
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "routing: %s\n", error.what());
        return 1;
    }
}
