// The command line of call-python. Nothing here is needed to understand the bridge.
#pragma once

#include <string>
#include <vector>

struct Options {
    std::string library;  // the bridge library
    std::string runtime;  // the Python library, empty when it is to be searched
    std::string config;   // empty for none
    std::string name;
    std::vector<std::string> arguments;  // as they were typed
    long long repeat = 1;
};

// Fills `options` in. Returns false when the program is to end with `status` at once, because help
// was asked for or the command line is wrong; both have been shown.
bool ReadCommandLine(int argc, char** argv, Options& options, int& status);
