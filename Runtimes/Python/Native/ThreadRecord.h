// What the bridge keeps for one thread of the host: its pending responses and, while the
// interpreter lives as long as the process, its Python thread state. Made by the thread's first
// use, freed when the thread ends (with a kept state, when a later command has given that back).
// Any thread, each its own; the lists of living and of ended threads belong to all.
#pragma once

#include <atomic>
#include <cstdint>

#include "Runtimes/Python/Native/PendingResponses.h"

struct ThreadRecord {
    PendingResponses responses;

    // The interpreter that the thread has a lasting Python state in, and the state when it is one
    // that is kept for the thread; null when it is the interpreter's own.
    std::uint64_t hasStateIn = 0;
    void* keptState = nullptr;

    // Calls of this thread that are inside the interpreter. Others only read it.
    std::atomic<int> callsInside{0};

    // Rounds of the thread's end that are still to come; 0 when the end will not be noticed.
    int endRounds = 0;
    ThreadRecord* nextEnded = nullptr;
    ThreadRecord* previousLiving = nullptr;
    ThreadRecord* nextLiving = nullptr;

    // The calling thread's. Throws std::bad_alloc at the thread's first use.
    static ThreadRecord& OfThisThread() {
        if (current == nullptr) [[unlikely]]
            return MakeCurrent();
        return *current;
    }

    // Adds to a number that only the calling thread writes: cheaper than an atomic addition.
    static void Add(std::atomic<int>& own, int amount) {
        own.store(own.load(std::memory_order_relaxed) + amount, std::memory_order_release);
    }

    // The calls of all threads that are inside the interpreter.
    static int AllCallsInside();

    // Whether threads with a kept state have ended since the last call of TakeEnded.
    static bool HaveEnded() { return ended.load(std::memory_order_relaxed) != nullptr; }

    // The records of those threads, linked by `nextEnded`, null when there are none. They are the
    // caller's, who deletes them.
    static ThreadRecord* TakeEnded();

  private:
    [[gnu::cold, gnu::noinline]] static ThreadRecord& MakeCurrent();

    // No destructor, so that reading it costs no check; it is freed at the thread's end.
    static thread_local constinit ThreadRecord* current;
    static constinit std::atomic<ThreadRecord*> ended;
    friend struct ThreadEnd;
};
