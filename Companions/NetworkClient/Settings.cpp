#include "Companions/NetworkClient/Settings.h"

#include <charconv>
#include <cstdlib>
#include <system_error>

#include "Companions/NetworkClient/Messages.h"
#include "Companions/NetworkClient/NetworkError.h"

namespace Quorvalen::Companions::Network {
namespace {

constexpr const char* kConnectTimeout = "QUORVALEN_NETWORK_CONNECT_TIMEOUT";
constexpr const char* kReplyTimeout = "QUORVALEN_NETWORK_REPLY_TIMEOUT";
constexpr const char* kMaxFrame = "QUORVALEN_NETWORK_MAX_FRAME";

constexpr double kLongestTimeout = 86400;

template <typename Number, typename... Format>
std::optional<Number> WholeTextAs(const std::string& text, Format... format) {
    Number number{};
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number, format...);
    if (error != std::errc{} || stop != end) return std::nullopt;
    return number;
}

Seconds Timeout(const std::string& peer, const char* variable, const std::string& value,
                const char* expected) {
    const auto seconds = WholeTextAs<double>(value, std::chars_format::fixed);
    // Written so that "not a number" fails too.
    if (!seconds || !(*seconds > 0 && *seconds <= kLongestTimeout)) {
        throw NetworkError(Messages::WrongSetting(peer, variable, value, expected));
    }
    return Seconds(*seconds);
}

std::size_t FrameLength(const std::string& peer, const std::string& value) {
    const auto length = WholeTextAs<std::size_t>(value);
    if (!length || *length < 1 || *length > kLargestMaxFrame) {
        throw NetworkError(Messages::WrongSetting(peer, kMaxFrame, value, Messages::kFrameLength));
    }
    return *length;
}

}  // namespace

std::optional<std::string> Setting(const std::string& peer, const char* variable,
                                   const char* expected) {
    const char* value = std::getenv(variable);
    if (value == nullptr) return std::nullopt;
    if (*value == '\0') throw NetworkError(Messages::WrongSetting(peer, variable, "", expected));
    return value;
}

Settings ReadSettings(const std::string& peer) {
    Settings settings;
    if (const auto value = Setting(peer, kConnectTimeout, Messages::kSeconds)) {
        settings.connectTimeout = Timeout(peer, kConnectTimeout, *value, Messages::kSeconds);
    }
    const auto reply = Setting(peer, kReplyTimeout, Messages::kSecondsOrNone);
    if (reply && *reply != "none") {
        settings.replyTimeout = Timeout(peer, kReplyTimeout, *reply, Messages::kSecondsOrNone);
    }
    if (const auto value = Setting(peer, kMaxFrame, Messages::kFrameLength)) {
        settings.maxFrame = FrameLength(peer, *value);
    }
    return settings;
}

}  // namespace Quorvalen::Companions::Network
