// The bytes of one command and the room for its response; one for each thread that sends, warm
// before anything is measured.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <vector>

namespace Benchmarks {

struct Exchange {
    // The header is that of a command in memory from `caller` to `target`; a size below a header's
    // eleven bytes is refused.
    Exchange(std::size_t size, unsigned char target, unsigned char caller = 8)
        : command(size, 'x'), response(size) {
        if (size < 11) throw std::invalid_argument("a command has at least 11 bytes");
        const unsigned char header[] = {target, 0, 0, 0, 0, 0, 0, 0, 0, caller, 1};
        for (std::size_t i = 0; i < sizeof header; ++i) command[i] = header[i];
    }

    int Length() const { return static_cast<int>(command.size()); }

    // A figure counts only when the answer is the whole command.
    void RequireEcho() const {
        if (response != command) throw std::runtime_error("the response is not the command's echo");
    }

    std::vector<unsigned char> command;
    std::vector<unsigned char> response;
};

}  // namespace Benchmarks
