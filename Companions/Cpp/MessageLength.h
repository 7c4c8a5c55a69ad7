// Lengths of whole messages cross the native boundary as signed 32-bit numbers. Pure; any thread.
#pragma once

#include <cstddef>
#include <limits>

#include "Errors.h"
#include "Native/Definitions/CommandHeader.h"

namespace Quorvalen::CppBridge {

// The length in bytes of a message with such a body. Raises NotPlain when no message is that long.
inline std::size_t MessageLength(std::size_t bodyLength) {
    using Quorvalen::Native::Definitions::CommandHeader::kLength;
    if (bodyLength > static_cast<std::size_t>(std::numeric_limits<int>::max() - kLength)) {
        throw Cpp::NotPlain("the value is too large for one message");
    }
    return kLength + bodyLength;
}

}  // namespace Quorvalen::CppBridge
