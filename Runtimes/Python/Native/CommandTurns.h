// Lets threads that send one command after the other take turns of about half a millisecond, while
// the interpreter lives as long as the process. Without turns all of them wait for the interpreter
// lock, and whoever gives it up after a command of some hundred nanoseconds pays for waking one
// that comes too late to get it.
//
// A turn is advice, not a lock. Nobody waits longer than a moment for a command that is taking its
// time: it may be sleeping, or waiting for the very command that waits for it. Its turn is taken
// over, so that the others go on taking turns. Two threads may have a turn at once; the interpreter
// lock decides who runs, as ever. One for all launchers, because they share the interpreter; any
// thread.
#pragma once

#include <atomic>
#include <cstdint>

#include "Runtimes/Python/Native/PythonFunctions.h"

class CommandTurns {
  public:
    // The calling thread's command, from construction to destruction. Does nothing unless `wanted`.
    // Calls nothing of Python but, when it would have to wait, the check who holds its lock.
    class Turn {
      public:
        Turn(const PythonFunctions& python, bool wanted) : number(wanted ? Take(python) : kNone) {}
        ~Turn() {
            if (number != kNone) Leave(number);
        }
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

      private:
        const std::uint32_t number;
    };

    // For a forked child, which lacks the threads whose turns they are.
    static void ForgetAll();

  private:
    // Turns have odd numbers; the even number after it says that a turn is over.
    static constexpr std::uint32_t kNone = 0;
    static bool IsTaken(std::uint32_t number) { return (number & 1) != 0; }

    // No locked instruction: who is late by some nanoseconds waits for the interpreter lock
    // instead.
    static std::uint32_t Take(const PythonFunctions& python) {
        const std::uint32_t last = latest.load(std::memory_order_relaxed);
        if (IsTaken(last) || claimed.load(std::memory_order_relaxed)) [[unlikely]]
            return TakeLater(python);
        latest.store(last + 1, std::memory_order_relaxed);
        return last + 1;
    }
    static void Leave(std::uint32_t number) {
        if (latest.load(std::memory_order_relaxed) != number) [[unlikely]]
            return;  // it has been taken over
        latest.store(number + 1, std::memory_order_relaxed);
        if (sleeping.load(std::memory_order_relaxed) > 0) [[unlikely]]
            WakeSleeper();
    }

    enum class Watched { NobodyComesBack, RowOfCommands, LongCommand };

    [[gnu::noinline]] static std::uint32_t TakeLater(const PythonFunctions& python);
    [[gnu::noinline]] static void WakeSleeper();
    static void SleepUntilTurnIsOver();
    static bool CountSleeperOut();
    static std::uint32_t TurnsInRows();
    static Watched WatchTurns(std::uint32_t arrival);
    static std::uint32_t Claim();
    static std::uint32_t TakeOver();

    static constinit std::atomic<std::uint32_t> latest;
    // Somebody is about to take the next turn: whoever comes back from their own waits.
    static constinit std::atomic<bool> claimed;
    static constinit std::atomic<std::uint32_t> claims;  // with success, and turns taken over
    // Threads that sleep until the end of a turn, and what they sleep on.
    static constinit std::atomic<int> sleeping;
    static constinit std::atomic<std::uint32_t> ends;
    // Those and the ones that sleep through rows of commands.
    static constinit std::atomic<int> waiting;
    // So many commands more take turns over at once, because one that was waited for took its time.
    static constinit std::atomic<int> hurried;
};
