#include "Native/QuorvalenNativeException/QuorvalenNativeException.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <iomanip>
#include <thread>

#include "Native/AppInsightLogger/AppInsightLogger.h"
#include "Native/ConfigHandler/ConfigHandler.h"
#include "Native/Console/Console.h"

using Quorvalen::Native::AppInsightLogger::AppInsightLogger;
using Quorvalen::Native::ConfigHandler::ConfigHandler;
namespace Console = Quorvalen::Native::Console;

namespace {

constexpr const char* kSupportLine =
    "\nIf the error persists, contact support on: support@quorvalen.example";

// The pause lets slow log collectors see the file open; it belongs to the open file.
constexpr std::chrono::milliseconds kPauseBeforeClosing(50);

thread_local bool recordingOnThisThread = false;

// Recording asks the configuration, which can fail with the very exception type being recorded;
// without this mark a missing configuration library would recurse for ever.
class RecordingMark {
  public:
    RecordingMark() { recordingOnThisThread = true; }
    ~RecordingMark() { recordingOnThisThread = false; }
    RecordingMark(const RecordingMark&) = delete;
    RecordingMark& operator=(const RecordingMark&) = delete;
};

std::string WithoutNewlines(std::string text) {
    std::erase(text, '\n');
    return text;
}

}  // namespace

QuorvalenNativeException::QuorvalenNativeException(const std::string& message,
                                                   std::string runtimeName)
    : std::runtime_error(message), supportLine(kSupportLine) {
    if (recordingOnThisThread) return;
    const RecordingMark mark;
    Record(message, runtimeName);
}

QuorvalenNativeException::QuorvalenNativeException(const QuorvalenNativeException& other)
    : std::runtime_error(other.what()), supportLine(kSupportLine) {}

QuorvalenNativeException::~QuorvalenNativeException() {
    if (logFile.is_open()) logFile.close();
}

void QuorvalenNativeException::Record(const std::string& message, const std::string& runtimeName) {
    FormatTime();
    std::ostringstream entry;
    entry << timestamp << "\tThread ID: " << std::this_thread::get_id() << "\t" << message;
    if (ConfigHandler::GetLoggingLevel() != 0) WriteToStandardError(entry.str());
    AppendToLogFile(entry.str());
    AppInsightLogger::LogMessage("Native exception", WithoutNewlines(message), runtimeName);
}

void QuorvalenNativeException::FormatTime() {
    const std::time_t now = std::time(nullptr);
    std::tm local = {};
    localtime_r(&now, &local);
    dateStream << std::put_time(&local, "%Y-%m-%d");
    timestampStream << std::put_time(&local, "%Y-%m-%d %X");
    timestamp = timestampStream.str();
}

// One write for the whole entry, so that lines of threads that fail at once stay readable.
void QuorvalenNativeException::WriteToStandardError(const std::string& entry) {
    Console::WriteErrorLine(entry + supportLine);
}

void QuorvalenNativeException::AppendToLogFile(const std::string& entry) {
    logFilePath = ConfigHandler::GetWorkingDirectory() + "/_QuorvalenNativeErrorLogger_" +
                  dateStream.str() + ".txt";
    logFile.open(logFilePath, std::ios::out | std::ios::app);
    if (!logFile.is_open()) return;
    logFile << entry + "\n" << std::flush;
    std::this_thread::sleep_for(kPauseBeforeClosing);
    logFile.close();
}
