#include "Companions/NetworkClient/Backoff.h"

#include <algorithm>
#include <random>
#include <thread>

namespace Quorvalen::Companions::Network {
namespace {

constexpr Clock::duration kShortest = std::chrono::milliseconds(50);
constexpr Clock::duration kLongest = std::chrono::seconds(2);

// Anything from half of it on, so that many processes do not come back at the same moment.
Clock::duration Jittered(Clock::duration pause) {
    std::minstd_rand numbers(static_cast<unsigned>(Clock::now().time_since_epoch().count()));
    numbers.discard(3);  // the first numbers of near seeds are near each other
    std::uniform_int_distribution<Clock::rep> between(pause.count() / 2, pause.count());
    return Clock::duration(between(numbers));
}

}  // namespace

void Backoff::Wait(Seconds longest) {
    const auto latest = Clock::now() + std::chrono::duration_cast<Clock::duration>(longest);
    Clock::time_point until;
    {
        const std::lock_guard lock(mutex);
        until = std::min(next, latest);
    }
    std::this_thread::sleep_until(until);
}

void Backoff::Succeeded() {
    const std::lock_guard lock(mutex);
    pause = {};
    next = Clock::time_point::min();
}

void Backoff::Failed(Clock::time_point attemptBegan) {
    const std::lock_guard lock(mutex);
    if (attemptBegan < failed) return;
    pause = std::clamp(2 * pause, kShortest, kLongest);
    failed = Clock::now();
    next = failed + Jittered(pause);
}

}  // namespace Quorvalen::Companions::Network
