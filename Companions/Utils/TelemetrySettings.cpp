#include "TelemetrySettings.h"

#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <system_error>

namespace Quorvalen::Companions {
namespace {

constexpr std::size_t kSmallestFile = 1024;
constexpr std::size_t kLargestFile = std::size_t{1} << 40U;

std::string Environment(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? "" : value;
}

// A state directory of the user, so that no working directory is littered. Relative values count as
// unset, as the XDG base directory rules ask.
std::string DefaultFile() {
    std::filesystem::path directory = Environment("XDG_STATE_HOME");
    if (!directory.is_absolute()) {
        const std::filesystem::path home = Environment("HOME");
        if (!home.is_absolute()) return "";
        directory = home / ".local" / "state";
    }
    return (directory / "quorvalen" / "telemetry.jsonl").string();
}

std::string TelemetryFile() {
    const std::string configured = Environment("QUORVALEN_TELEMETRY_FILE");
    if (configured == "off") return "";
    return configured.empty() ? DefaultFile() : std::filesystem::absolute(configured).string();
}

bool ParseSize(std::string_view text, std::size_t& size) {
    std::size_t parsed = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, parsed);
    if (error != std::errc{} || stop != end) return false;
    if (parsed < kSmallestFile || parsed > kLargestFile) return false;
    size = parsed;
    return true;
}

}  // namespace

TelemetrySettings ReadTelemetrySettings() {
    TelemetrySettings settings;
    settings.file = TelemetryFile();
    const std::string size = Environment("QUORVALEN_TELEMETRY_MAX_BYTES");
    if (!size.empty() && !ParseSize(size, settings.maxBytes)) {
        settings.complaint = "QUORVALEN_TELEMETRY_MAX_BYTES must be a whole number from " +
                             std::to_string(kSmallestFile) + " to " + std::to_string(kLargestFile) +
                             " (found: " + size + "); " + std::to_string(settings.maxBytes) +
                             " is used.";
    }
    return settings;
}

}  // namespace Quorvalen::Companions
