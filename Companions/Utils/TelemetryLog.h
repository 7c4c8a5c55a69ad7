// Writes telemetry events to a rotating file, one JSON object a line. One instance, made when the
// library is loaded and never destroyed, so that events may come until the very end of the process.
// Any thread may call Write, also in a forked child; one event is written at a time. Several
// processes may append to one file.

#ifndef QUORVALEN_COMPANIONS_TELEMETRYLOG_H
#define QUORVALEN_COMPANIONS_TELEMETRYLOG_H

#include <spdlog/fwd.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "TelemetrySettings.h"

namespace Quorvalen::Companions {

class TelemetryLog {
  public:
    static TelemetryLog& Instance();

    // Appends one event and hands it to the operating system before it returns. Texts may be null.
    // An event that cannot be written is dropped and counted; the count is written as an event of
    // its own as soon as writing succeeds again.
    void Write(const char* event, const char* text, const char* runtime);

  private:
    TelemetryLog();

    void CloseIfReplaced();
    void Open();
    void OnOpened(const std::string& file, std::FILE* stream);
    void WriteNotices();
    void Append(const std::string& line);

    // One write(2) takes a whole line up to this length, so that lines of several processes do not
    // mix.
    static constexpr std::size_t kStreamBufferSize = std::size_t{256} * 1024;

    static TelemetryLog& instance_;
    static std::mutex mutex_;  // guards everything below

    std::optional<TelemetrySettings> settings_;  // read by the first event
    unsigned long lostEvents_ = 0;
    dev_t openDevice_ = 0;
    ino_t openInode_ = 0;
    std::unique_ptr<char[]> streamBuffer_;  // must outlive the sink's stream
    std::unique_ptr<spdlog::sinks::sink> sink_;
};

}  // namespace Quorvalen::Companions

#endif
