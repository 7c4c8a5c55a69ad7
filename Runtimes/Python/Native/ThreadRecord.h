// What the bridge keeps for one thread of the host: its pending responses and, while the
// interpreter lives as long as the process, its Python thread state. Made by the thread's first
// use, freed when the thread ends (with a kept state, when a later command has given that back).
// Any thread, each its own; the list of ended threads belongs to all.
#pragma once

#include <cstdint>

#include "Runtimes/Python/Native/PendingResponses.h"

struct ThreadRecord {
    PendingResponses responses;

    // The thread state that is kept, null when none is, and the interpreter it is a part of.
    void* keptState = nullptr;
    std::uint64_t keptFor = 0;

    // Rounds of the thread's end that are still to come; 0 when the end will not be noticed.
    int endRounds = 0;
    ThreadRecord* nextEnded = nullptr;

    // The calling thread's. Throws std::bad_alloc at the thread's first use.
    static ThreadRecord& OfThisThread() {
        if (current == nullptr) [[unlikely]]
            return MakeCurrent();
        return *current;
    }

    // Whether threads with a kept state have ended since the last call of TakeEnded.
    static bool HaveEnded();

    // The records of those threads, linked by `nextEnded`, null when there are none. They are the
    // caller's, who deletes them.
    static ThreadRecord* TakeEnded();

  private:
    static ThreadRecord& MakeCurrent();

    // No destructor, so that reading it costs no check; it is freed at the thread's end.
    static thread_local constinit ThreadRecord* current;
    friend struct ThreadEnd;
};
