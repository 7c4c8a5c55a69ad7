// Watches the memory of a process that hosts Python.
//
//   memory one-thread BRIDGE COMMANDS ROUNDS   all commands on the thread that started Python
//   memory ending-threads BRIDGE THREADS ROUNDS    each thread sends ten commands and ends
//   memory allocations BRIDGE COMMANDS 1       calls of malloc and operator new per command
//
// The first two print a line for each round: by how many bytes the resident memory grew in the
// second half of it. The third prints the allocations per command through the bridge, then those of
// the same calls by hand.
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>

#include "Benchmarks/HostedPython.h"
#include "Tests/Native/AllocationShim.h"

using namespace Benchmarks;

namespace {

constexpr std::size_t kSize = 64;
constexpr long kCommandsOfAThread = 10;

long ResidentBytes() {
    long total = 0;
    long resident = 0;
    if (!(std::ifstream("/proc/self/statm") >> total >> resident)) {
        throw std::runtime_error("/proc/self/statm cannot be read");
    }
    return resident * sysconf(_SC_PAGESIZE);
}

void Send(const HostedPython& hosted, long commands) {
    Exchange exchange(kSize, kPython);
    for (; commands > 0; --commands) hosted.AskBridge(exchange);
    exchange.RequireEcho();
}

void SendOnEndingThreads(const HostedPython& hosted, long threads) {
    for (; threads > 0; --threads) {
        std::thread([&] { Send(hosted, kCommandsOfAThread); }).join();
    }
}

void PrintGrowth(long count, long rounds, const std::function<void(long)>& work) {
    for (; rounds > 0; --rounds) {
        work(count / 2);
        const long half = ResidentBytes();
        work(count - count / 2);
        std::printf("%ld\n", ResidentBytes() - half);
    }
}

double AllocationsPerCommand(long commands, const std::function<void(Exchange&)>& ask) {
    Exchange exchange(kSize, kPython);
    for (int warmUp = 0; warmUp < 100; ++warmUp) ask(exchange);
    const long long before = AllocationShim::Count();
    for (long i = 0; i < commands; ++i) ask(exchange);
    const long long allocations = AllocationShim::Count() - before;
    return static_cast<double>(allocations) / static_cast<double>(commands);
}

void WatchOneThread(const HostedPython& hosted, long count, long rounds) {
    PrintGrowth(count, rounds, [&](long commands) { Send(hosted, commands); });
}

void WatchEndingThreads(const HostedPython& hosted, long count, long rounds) {
    PrintGrowth(count, rounds, [&](long threads) { SendOnEndingThreads(hosted, threads); });
}

void CountAllocations(const HostedPython& hosted, long count, long) {
    const double bridge =
        AllocationsPerCommand(count, [&](Exchange& exchange) { hosted.AskBridge(exchange); });
    const double byHand =
        AllocationsPerCommand(count, [&](Exchange& exchange) { hosted.AskByHand(exchange); });
    std::printf("%.3f\n%.3f\n", bridge, byHand);
}

}  // namespace

int main(int argc, char** argv) {
    const std::map<std::string, void (*)(const HostedPython&, long, long)> watches = {
        {"one-thread", WatchOneThread},
        {"ending-threads", WatchEndingThreads},
        {"allocations", CountAllocations}};
    const auto watch = argc == 5 ? watches.find(argv[1]) : watches.end();
    if (watch == watches.end()) {
        std::fprintf(stderr,
                     "usage: memory one-thread|ending-threads|allocations BRIDGE COUNT ROUNDS\n");
        return 2;
    }
    try {
        const HostedPython hosted(argv[2]);
        watch->second(hosted, std::stol(argv[3]), std::stol(argv[4]));
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "memory: %s\n", error.what());
        return 1;
    }
}
