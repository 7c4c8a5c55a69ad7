// What the C++ runtime does with a command: from its bytes to the bytes of the response. Keeps no
// state; any thread.
#pragma once

#include <memory>
#include <span>
#include <vector>

namespace Quorvalen::CppBridge {

using Bytes = std::vector<unsigned char>;

// The bytes of the command stay the caller's. No exception leaves: each becomes an exception
// response. (Only the unwinding of a cancelled thread passes through.)
std::shared_ptr<const Bytes> Answer(std::span<const unsigned char> command);

}  // namespace Quorvalen::CppBridge
