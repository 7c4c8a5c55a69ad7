#include "Native/Console/Console.h"

#include <cstdio>

namespace Quorvalen::Native::Console {
namespace {

void WriteTo(std::FILE* stream, std::string& line) {
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stream);
    std::fflush(stream);
}

}  // namespace

void WriteLine(std::string line) {
    WriteTo(stdout, line);
}

void WriteErrorLine(std::string line) {
    WriteTo(stderr, line);
}

}  // namespace Quorvalen::Native::Console
