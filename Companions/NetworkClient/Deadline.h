// Until when something may take. A value; any thread may use its own copy.
#ifndef QUORVALEN_COMPANIONS_NETWORKCLIENT_DEADLINE_H
#define QUORVALEN_COMPANIONS_NETWORKCLIENT_DEADLINE_H

#include <chrono>
#include <optional>
#include <string>
#include <system_error>

namespace Quorvalen::Companions::Network {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

class Deadline {
  public:
    static Deadline Never() { return Deadline(std::nullopt); }

    // Whatever would wait fails instead.
    static Deadline Now() { return Deadline(Clock::time_point::min()); }

    static Deadline In(Seconds time) {
        return Deadline(Clock::now() + std::chrono::duration_cast<Clock::duration>(time));
    }

    static Deadline In(const std::optional<Seconds>& time) { return time ? In(*time) : Never(); }

    bool HasPassed() const { return end && *end <= Clock::now(); }

    // For poll(): rounded up, so that nobody wakes too early; -1 for a deadline that never comes.
    int MillisecondsLeft() const {
        if (!end) return -1;
        if (HasPassed()) return 0;
        return static_cast<int>(
            std::chrono::ceil<std::chrono::milliseconds>(*end - Clock::now()).count());
    }

  private:
    explicit Deadline(std::optional<Clock::time_point> when) : end(when) {}

    std::optional<Clock::time_point> end;
};

// Of an operation that missed its deadline. The system's own time-out is another error: it ends a
// connection whose other side is gone, whether there is a deadline or not.
inline std::error_code MissedDeadline() {
    return std::make_error_code(std::errc::stream_timeout);
}

// For texts: "5.0", "0.25".
std::string TextOf(Seconds time);

}  // namespace Quorvalen::Companions::Network

#endif
