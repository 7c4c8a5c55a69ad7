#include "TelemetryLog.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <pthread.h>
#include <spdlog/details/log_msg.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <exception>
#include <filesystem>
#include <nlohmann/json.hpp>

namespace Quorvalen::Companions {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kOlderFiles = 2;  // three with the current one
constexpr const char* kOwnEvent = "Telemetry";

// Calendar arithmetic instead of gmtime: the C library's time zone lock may be held for ever in a
// forked child.
std::string UtcNow() {
    namespace chrono = std::chrono;
    const auto now = chrono::floor<chrono::milliseconds>(chrono::system_clock::now());
    const auto day = chrono::floor<chrono::days>(now);
    const chrono::year_month_day date(day);
    const chrono::hh_mm_ss time(now - day);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", static_cast<int>(date.year()),
                       static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                       time.hours().count(), time.minutes().count(), time.seconds().count(),
                       time.subseconds().count());
}

Json TextOrNull(const char* text) {
    return text == nullptr ? Json(nullptr) : Json(text);
}

// Process and thread are asked for anew each time: a forked child has others than its parent.
std::string Line(const char* event, const char* text, const char* runtime) {
    const Json object = {{"time", UtcNow()},         {"process", ::getpid()},
                         {"thread", ::gettid()},     {"event", TextOrNull(event)},
                         {"text", TextOrNull(text)}, {"runtime", TextOrNull(runtime)}};
    return object.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// A pipe or a socket could block the caller, or end the process when its reader goes away.
bool IsAcceptable(int descriptor) {
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 &&
           (S_ISREG(status.st_mode) || S_ISCHR(status.st_mode));
}

// spdlog tries a file that cannot be opened five times with a pause between, and creates it
// readable by everybody. Events may hold texts of the user's program: the file is made here first,
// for its owner alone, or given up at once.
void PrepareFile(const std::string& file) {
    std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    const int descriptor =
        ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK, 0600);
    const bool acceptable = descriptor >= 0 && IsAcceptable(descriptor);
    if (descriptor >= 0) ::close(descriptor);
    if (!acceptable) spdlog::throw_spdlog_ex("Cannot write to " + file);
}

// A full disk can leave half a line behind. Another process in the middle of its write looks the
// same; its line then gets an empty one after it, which loses nothing.
bool EndsInsideLine(const std::string& file, const struct stat& status) {
    if (!S_ISREG(status.st_mode) || status.st_size == 0) return false;
    const int descriptor = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) return false;
    char last = '\n';
    const ssize_t count = ::pread(descriptor, &last, 1, status.st_size - 1);
    ::close(descriptor);
    return count == 1 && last != '\n';
}

}  // namespace

constinit std::mutex TelemetryLog::mutex_;

// Made while the library is loaded: a child forked during a first use by another thread would wait
// for it for ever.
TelemetryLog& TelemetryLog::instance_ = *new TelemetryLog;

TelemetryLog& TelemetryLog::Instance() {
    return instance_;
}

// A child forked while another thread writes would inherit a mutex that nobody unlocks.
TelemetryLog::TelemetryLog() {
    ::pthread_atfork([] { mutex_.lock(); }, [] { mutex_.unlock(); }, [] { mutex_.unlock(); });
}

void TelemetryLog::Write(const char* event, const char* text, const char* runtime) {
    const std::lock_guard lock(mutex_);
    if (!settings_) settings_ = ReadTelemetrySettings();
    if (settings_->file.empty()) return;
    try {
        CloseIfReplaced();
        if (!sink_) Open();
        WriteNotices();
        Append(Line(event, text, runtime));
    } catch (const std::exception&) {
        sink_.reset();
        ++lostEvents_;
    }
}

// The file may have been removed, with its directory, or rotated by another process.
void TelemetryLog::CloseIfReplaced() {
    struct stat status {};
    const bool same = ::stat(settings_->file.c_str(), &status) == 0 &&
                      status.st_dev == openDevice_ && status.st_ino == openInode_;
    if (!same) sink_.reset();
}

void TelemetryLog::Open() {
    if (!streamBuffer_) streamBuffer_ = std::make_unique_for_overwrite<char[]>(kStreamBufferSize);
    spdlog::file_event_handlers handlers;
    handlers.before_open = PrepareFile;
    handlers.after_open = [this](const std::string& file, std::FILE* stream) {
        OnOpened(file, stream);
    };
    sink_ = std::make_unique<spdlog::sinks::rotating_file_sink_st>(
        settings_->file, settings_->maxBytes, kOlderFiles, false, handlers);
    sink_->set_pattern("%v");
}

void TelemetryLog::OnOpened(const std::string& file, std::FILE* stream) {
    std::setvbuf(stream, streamBuffer_.get(), _IOFBF, kStreamBufferSize);
    struct stat status {};
    if (::fstat(::fileno(stream), &status) != 0) return;
    openDevice_ = status.st_dev;
    openInode_ = status.st_ino;
    if (EndsInsideLine(file, status)) std::fputc('\n', stream);
}

void TelemetryLog::WriteNotices() {
    if (!settings_->complaint.empty()) {
        Append(Line(kOwnEvent, settings_->complaint.c_str(), ""));
        settings_->complaint.clear();
    }
    if (lostEvents_ != 0) {
        const std::string text = "Events that could not be written: " + std::to_string(lostEvents_);
        Append(Line(kOwnEvent, text.c_str(), ""));
        lostEvents_ = 0;
    }
}

void TelemetryLog::Append(const std::string& line) {
    sink_->log(spdlog::details::log_msg("", spdlog::level::info, line));
    sink_->flush();
}

}  // namespace Quorvalen::Companions
