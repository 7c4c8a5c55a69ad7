// A recording fake of the utilities library. The variant "WithoutLogMessage" lacks its one
// function.
#include <string>

#include "Tests/Fakes/Recorder.h"

extern "C" void LogMessage(const char* event, const char* text, const char* runtime) {
    Fakes::Record("LogMessage(\"" + std::string(event) + "\", \"" + text + "\", \"" + runtime +
                  "\")");
}
