#include "Runtimes/Python/Native/CommandTurns.h"

#include <emmintrin.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <ctime>

namespace {

using std::chrono::microseconds;

// A command that runs for longer may be sleeping; nobody waits for it.
constexpr microseconds kMoment{100};

// A thread's row of commands, while others wait.
constexpr microseconds kTurn{400};

constexpr int kHurriedAfterALongCommand = 64;

// A thread that sends command after command is back sooner than after so many looks, a microsecond.
constexpr int kLooksForReturn = 50;

// A claimant's looks are some hundred nanoseconds apart, and it gives up after so many.
constexpr int kPausesOfALook = 20;
constexpr int kLooksForEnd = 100;

timespec TimeOf(microseconds time) {
    return {time.count() / 1'000'000, time.count() % 1'000'000 * 1000};
}

}  // namespace

constinit std::atomic<std::uint32_t> CommandTurns::latest{0};
constinit std::atomic<bool> CommandTurns::claimed{false};
constinit std::atomic<std::uint32_t> CommandTurns::somebodySleeps{0};
constinit std::atomic<int> CommandTurns::waiting{0};
constinit std::atomic<int> CommandTurns::hurried{0};

// Who holds the interpreter lock does not wait: it would keep everybody else from going on.
std::uint32_t CommandTurns::TakeLater(const PythonFunctions& python) {
    if (hurried.load(std::memory_order_relaxed) > 0) {
        hurried.fetch_sub(1, std::memory_order_relaxed);
        return kNone;
    }
    if (python.PyGILState_Check_Fn() > 0) return kNone;
    waiting.fetch_add(1, std::memory_order_relaxed);
    const std::uint32_t number = Wait();
    waiting.fetch_sub(1, std::memory_order_relaxed);
    return number;
}

std::uint32_t CommandTurns::Wait() {
    const std::uint32_t seen = latest.load(std::memory_order_relaxed);
    SleepUntilTurnIsOver();
    if (const std::uint32_t number = TakeIfNobodyComesBack(); number != kNone) return number;
    const std::uint32_t now = latest.load(std::memory_order_relaxed);
    if (IsTaken(now) && now == seen) {
        hurried.store(kHurriedAfterALongCommand, std::memory_order_relaxed);
        return kNone;
    }
    // All that wait together claim as often as one alone would.
    const timespec turns = TimeOf(kTurn * waiting.load(std::memory_order_relaxed));
    nanosleep(&turns, nullptr);
    return Claim();
}

// Its thread may have begun the next one by the time of the return.
void CommandTurns::SleepUntilTurnIsOver() {
    const timespec moment = TimeOf(kMoment);
    somebodySleeps.store(1, std::memory_order_relaxed);
    syscall(SYS_futex, &somebodySleeps, FUTEX_WAIT_PRIVATE, 1, &moment, nullptr, 0);
}

std::uint32_t CommandTurns::TakeIfNobodyComesBack() {
    for (int look = 0; look < kLooksForReturn; ++look) {
        if (IsTaken(latest.load(std::memory_order_relaxed))) return kNone;
        _mm_pause();
    }
    return Claim();
}

// Whoever comes back sees the claim and waits. Who has not seen it has taken the next turn by the
// time of the first look.
std::uint32_t CommandTurns::Claim() {
    if (claimed.exchange(true)) return kNone;
    std::uint32_t number = kNone;
    for (int look = 0; look < kLooksForEnd && number == kNone; ++look) {
        for (int pause = 0; pause < kPausesOfALook; ++pause) _mm_pause();
        const std::uint32_t last = latest.load(std::memory_order_relaxed);
        if (!IsTaken(last)) number = last + 1;
    }
    if (number != kNone) latest.store(number, std::memory_order_relaxed);
    claimed.store(false);
    return number;
}

void CommandTurns::WakeSleeper() {
    somebodySleeps.store(0, std::memory_order_relaxed);
    syscall(SYS_futex, &somebodySleeps, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

void CommandTurns::ForgetAll() {
    latest.store(0);
    claimed.store(false);
    somebodySleeps.store(0);
    waiting.store(0);
    hurried.store(0);
}
