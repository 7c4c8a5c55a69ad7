// The runtimes that can take part in a conversation. On the wire an id is one byte; ids that are
// not listed here are legal values of that byte and have the display name "Unknown".
#pragma once

namespace Quorvalen::Native::Definitions {

enum class Runtime : int {
    Clr = 0,
    Go = 1,
    Jvm = 2,
    Netcore = 3,
    Perl = 4,
    Python = 5,
    Ruby = 6,
    Nodejs = 7,
    Cpp = 8,
    Php = 9,
    Python2 = 10,
};

inline constexpr int kRuntimeCount = 11;

}  // namespace Quorvalen::Native::Definitions
