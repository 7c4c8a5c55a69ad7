// Which side of the conversation this process's Python is on. Chosen once per process by the first
// caller that creates a receiver or a transmitter.
#pragma once

#include <cstdint>

namespace Quorvalen::Native::Definitions {

enum class RuntimeOperationMode : std::int32_t {
    NotSet = -1,
    CallingRuntime = 0,  // Python itself is running and calls out; it is called back by a function
    CalledRuntime = 1,   // the library hosts the interpreter for a caller
};

}  // namespace Quorvalen::Native::Definitions
