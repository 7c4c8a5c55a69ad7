// Sends commands of 64 bytes, for a profiler to count what the bridge makes of them.
//
//   counted-commands routed BRIDGE COMMANDS     through the exported functions and the in-memory
//                                               channel, to the library of runtime 3 beside it
//   counted-commands received BRIDGE COMMANDS   through the receiver, to Python
#include <cstdio>
#include <stdexcept>
#include <string>

#include "Benchmarks/HostedPython.h"
#include "Benchmarks/Library.h"

using namespace Benchmarks;

namespace {

constexpr std::size_t kSize = 64;
constexpr unsigned char kNetcore = 3;

void SendRouted(const std::string& bridge, long commands) {
    void* library = OpenLibrary(bridge);
    using Function = int (*)(unsigned char*, int);
    const auto send = LookUp<Function>(library, "SendCommand");
    const auto read = LookUp<Function>(library, "ReadResponse");
    Exchange exchange(kSize, kNetcore, kPython);
    for (; commands > 0; --commands) {
        exchange.response[0] = kNetcore;  // whom the exported ReadResponse asks
        const int length = send(exchange.command.data(), exchange.Length());
        if (length != exchange.Length() || read(exchange.response.data(), length) != 0) {
            throw std::runtime_error("a command was not answered");
        }
    }
    exchange.RequireEcho();
}

void SendReceived(const std::string& bridge, long commands) {
    const HostedPython hosted(bridge);
    Exchange exchange(kSize, kPython);
    for (; commands > 0; --commands) hosted.AskBridge(exchange);
    exchange.RequireEcho();
}

}  // namespace

int main(int argc, char** argv) {
    const std::string path = argc == 4 ? argv[1] : "";
    if (path != "routed" && path != "received") {
        std::fprintf(stderr, "usage: counted-commands routed|received BRIDGE COMMANDS\n");
        return 2;
    }
    try {
        (path == "routed" ? SendRouted : SendReceived)(argv[2], std::stol(argv[3]));
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "counted-commands: %s\n", error.what());
        return 1;
    }
}
