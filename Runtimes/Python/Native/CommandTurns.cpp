#include "Runtimes/Python/Native/CommandTurns.h"

#include <emmintrin.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>

namespace {

using std::chrono::microseconds;

// Whoever waits for a turn to end is woken then, and no later than this and the timer's slack.
constexpr microseconds kMoment{100};

// A thread's row of commands, while others wait. All that wait together claim as often as one alone
// would, but none waits for more rows than these.
constexpr microseconds kTurn{500};
constexpr int kMostTurnsToWait = 16;

// After a command that was waited for in vain so many others take turns over without waiting: where
// all commands take their time, each would else wait for the one before it.
constexpr int kHurried = 16;

// Looks are some tens of nanoseconds apart. A thread that sends command after command is back
// sooner than after the first number of them, a microsecond. It has begun a row of turns since
// somebody began to wait for it, or does so during the second number.
constexpr int kLooksForReturn = 50;
constexpr int kLooksForRow = 250;
constexpr std::int32_t kTurnsOfARow = 8;

// A claimant's looks are some hundred nanoseconds apart, and it gives up after so many.
constexpr int kPausesOfALook = 20;
constexpr int kLooksForEnd = 100;

timespec TimeOf(microseconds time) {
    return {time.count() / 1'000'000, time.count() % 1'000'000 * 1000};
}

// Counts the calling thread, also when it is cancelled.
class Counted {
  public:
    explicit Counted(std::atomic<int>& counter) : count(counter) { ++count; }
    ~Counted() { --count; }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;

  private:
    std::atomic<int>& count;
};

}  // namespace

constinit std::atomic<std::uint32_t> CommandTurns::latest{0};
constinit std::atomic<bool> CommandTurns::claimed{false};
constinit std::atomic<std::uint32_t> CommandTurns::claims{0};
constinit std::atomic<int> CommandTurns::sleeping{0};
constinit std::atomic<std::uint32_t> CommandTurns::ends{0};
constinit std::atomic<int> CommandTurns::waiting{0};
constinit std::atomic<int> CommandTurns::hurried{0};

// Who holds the interpreter lock does not wait: it would keep everybody else from going on.
std::uint32_t CommandTurns::TakeLater(const PythonFunctions& python) {
    if (hurried.load(std::memory_order_relaxed) > 0) {
        hurried.fetch_sub(1, std::memory_order_relaxed);
        return TakeOver();
    }
    if (python.PyGILState_Check_Fn() > 0) return kNone;
    const Counted counted(waiting);
    const std::uint32_t arrival = TurnsInRows();
    SleepUntilTurnIsOver();
    switch (WatchTurns(arrival)) {
        case Watched::NobodyComesBack:
            return Claim();
        case Watched::LongCommand:
            hurried.store(kHurried, std::memory_order_relaxed);
            return TakeOver();
        case Watched::RowOfCommands:
            break;
    }
    const timespec rows = TimeOf(kTurn * std::min(waiting.load(), kMostTurnsToWait));
    nanosleep(&rows, nullptr);
    return Claim();
}

// Its thread may have begun the next one by the time of the return.
void CommandTurns::SleepUntilTurnIsOver() {
    const timespec moment = TimeOf(kMoment);
    const std::uint32_t seen = ends.load();
    ++sleeping;
    const long result = syscall(SYS_futex, &ends, FUTEX_WAIT_PRIVATE, seen, &moment, nullptr, 0);
    const bool wasWoken = result == 0 || errno == EAGAIN;
    if (!wasWoken) CountSleeperOut();
}

// Whoever is woken is no sleeper any more, however long it takes to come to: the next turns must
// not wake again. False when there is none.
bool CommandTurns::CountSleeperOut() {
    for (int count = sleeping.load(); count > 0;) {
        if (sleeping.compare_exchange_weak(count, count - 1)) return true;
    }
    return false;
}

// One at a time: who gets a turn wakes the next at its end, and who gets none leaves the others to
// wake by themselves.
void CommandTurns::WakeSleeper() {
    if (!CountSleeperOut()) return;
    ends.fetch_add(1);
    syscall(SYS_futex, &ends, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

// Turns that nobody had to claim: a thread came back to them at once. Many threads with one command
// each are no row.
std::uint32_t CommandTurns::TurnsInRows() {
    return latest.load(std::memory_order_relaxed) / 2 - claims.load(std::memory_order_relaxed);
}

CommandTurns::Watched CommandTurns::WatchTurns(std::uint32_t arrival) {
    int looksAtNobody = 0;
    for (int look = 0; look < kLooksForRow; ++look) {
        const std::uint32_t now = latest.load(std::memory_order_relaxed);
        looksAtNobody = IsTaken(now) ? 0 : looksAtNobody + 1;
        if (looksAtNobody == kLooksForReturn) return Watched::NobodyComesBack;
        const auto turns = static_cast<std::int32_t>(TurnsInRows() - arrival);
        if (IsTaken(now) && turns >= kTurnsOfARow) return Watched::RowOfCommands;
        _mm_pause();
    }
    return Watched::LongCommand;
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
    if (number != kNone) {
        claims.fetch_add(1, std::memory_order_relaxed);
        latest.store(number, std::memory_order_relaxed);
    }
    claimed.store(false);
    return number;
}

// The one whose turn it was finds another number at its end and leaves that alone.
std::uint32_t CommandTurns::TakeOver() {
    const std::uint32_t last = latest.load(std::memory_order_relaxed);
    const std::uint32_t number = IsTaken(last) ? last + 2 : last + 1;
    claims.fetch_add(1, std::memory_order_relaxed);
    latest.store(number, std::memory_order_relaxed);
    return number;
}

void CommandTurns::ForgetAll() {
    latest.store(0);
    claimed.store(false);
    claims.store(0);
    sleeping.store(0);
    waiting.store(0);
    hurried.store(0);
}
