#include "Utils.h"

#include <cerrno>
#include <exception>

#include "TelemetryLog.h"

extern "C" __attribute__((visibility("default"))) void LogMessage(const char* event,
                                                                  const char* text,
                                                                  const char* runtime) {
    const int callersErrno = errno;
    try {
        Quorvalen::Companions::TelemetryLog::Instance().Write(event, text, runtime);
    } catch (const std::exception&) {
        // Telemetry never disturbs its caller; what TelemetryLog can still report, it counts
        // itself.
    }
    errno = callersErrno;
}
