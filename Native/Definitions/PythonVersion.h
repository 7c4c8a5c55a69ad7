// The CPython versions that a command or an embedder can ask for. One byte on the wire, held as 32
// bits in memory; the values are part of the command format and never change.
#pragma once

namespace Quorvalen::Native::Definitions {

enum class PythonVersion : int {
    Any = 0,  // no particular version: the newest one that is found
    Python36 = 1,
    Python37 = 2,
    Python38 = 3,
    Python39 = 4,
    Python310 = 5,
    Python311 = 6,
    Python312 = 7,
    Python313 = 8,
    Python314 = 9,
};

}  // namespace Quorvalen::Native::Definitions
