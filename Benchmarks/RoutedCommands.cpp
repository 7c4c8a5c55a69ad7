// Sends commands through the exported functions over the in-memory channel to a receiver that
// echoes them, for a profiler to count what the routing costs.
//
//   routed-commands <bridge> <number of commands>
//
// The library of runtime 3 beside the bridge is the one that answers.
#include <dlfcn.h>

#include <array>
#include <cstdio>
#include <cstdlib>

int main(int argumentCount, char** arguments) {
    if (argumentCount != 3) return 2;
    void* bridge = dlopen(arguments[1], RTLD_NOW);
    if (bridge == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    using Function = int (*)(unsigned char*, int);
    const auto send = reinterpret_cast<Function>(dlsym(bridge, "SendCommand"));
    const auto read = reinterpret_cast<Function>(dlsym(bridge, "ReadResponse"));

    std::array<unsigned char, 64> command = {};
    command[0] = 3;
    command[9] = 5;
    std::array<unsigned char, 64> response = {};
    for (long count = std::atol(arguments[2]); count > 0; --count) {
        response[0] = command[0];
        const int length = send(command.data(), static_cast<int>(command.size()));
        if (length != 64 || read(response.data(), length) != 0) return 1;
    }
    return 0;
}
