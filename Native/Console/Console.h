// The lines for whoever runs the process. They are written through the C streams: preparing the C++
// streams in a process that has not used them takes longer than the rest of this library's loading.
// Any thread.
#pragma once

#include <string>

namespace Quorvalen::Native::Console {

// Writes `line` and a newline to standard output in one piece and flushes. Failures are ignored.
void WriteLine(std::string line);

// The same to standard error.
void WriteErrorLine(std::string line);

}  // namespace Quorvalen::Native::Console
