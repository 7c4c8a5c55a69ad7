// The one exception type of the framework's native libraries. Constructing one records the failure
// at once: a line on standard error (unless logging is off), a line in the day's error log file in
// the configured working directory, and a telemetry event. That costs tens of milliseconds:
// exceptions are for failures, never for control flow. Copies record nothing.
//
// Any thread may construct one. A failure while one is being recorded on the same thread (the
// configuration library is missing, say) leaves the constructor in place of the recorded one.
#pragma once

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "Native/Definitions/Export.h"

class QUORVALEN_EXPORT QuorvalenNativeException : public std::runtime_error {
  public:
    // `message` becomes what(); `runtimeName` names the runtime concerned, for telemetry only.
    QuorvalenNativeException(const std::string& message, std::string runtimeName);
    QuorvalenNativeException(const QuorvalenNativeException& other);
    ~QuorvalenNativeException() override;

  private:
    void Record(const std::string& message, const std::string& runtimeName);
    void FormatTime();
    void WriteToStandardError(const std::string& entry);
    void AppendToLogFile(const std::string& entry);

    std::ofstream logFile;
    std::ostringstream dateStream;
    std::ostringstream timestampStream;
    std::string timestamp;
    std::string logFilePath;
    std::string supportLine;
};
