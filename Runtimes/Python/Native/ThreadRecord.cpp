#include "Runtimes/Python/Native/ThreadRecord.h"

#include <pthread.h>

#include <atomic>
#include <climits>
#include <mutex>
#include <new>
#include <utility>

#include "Runtimes/Python/Native/CommandTurns.h"

namespace {

thread_local constinit bool threadHasEnded = false;

// The records of all threads that have not ended.
std::mutex livingLock;
ThreadRecord* living = nullptr;

void AddToLiving(ThreadRecord* record) {
    const std::lock_guard<std::mutex> guard(livingLock);
    record->nextLiving = living;
    if (living != nullptr) living->previousLiving = record;
    living = record;
}

void RemoveFromLiving(const ThreadRecord* record) {
    const std::lock_guard<std::mutex> guard(livingLock);
    ThreadRecord* const previous = record->previousLiving;
    ThreadRecord* const next = record->nextLiving;
    (previous == nullptr ? living : previous->nextLiving) = next;
    if (next != nullptr) next->previousLiving = previous;
}

}  // namespace

thread_local constinit ThreadRecord* ThreadRecord::current = nullptr;
constinit std::atomic<ThreadRecord*> ThreadRecord::ended{nullptr};

// The function of a key runs at a thread's end, after the destructors of its variables, but not
// while the process exits.
struct ThreadEnd {
    // Made while the library is loaded: a child forked during a first use by another thread would
    // wait for it for ever.
    static const ThreadEnd& instance;

    bool WillBeNoticed(ThreadRecord* record) const {
        return keyExists && forksAreNoticed && pthread_setspecific(key, record) == 0;
    }

  private:
    // Functions of other keys may still send commands: the record lasts for more than one round.
    static void Notice(void* ending) {
        auto* record = static_cast<ThreadRecord*>(ending);
        --record->endRounds;
        if (record->endRounds > 0 && instance.WillBeNoticed(record)) return;
        ThreadRecord::current = nullptr;
        threadHasEnded = true;
        Retire(record);
    }

    // The ending thread waits for no Python: whoever holds the interpreter lock may be joining it.
    static void Retire(ThreadRecord* record) {
        RemoveFromLiving(record);
        if (record->keptState == nullptr) {
            delete record;
            return;
        }
        record->responses.Clear();
        std::atomic<ThreadRecord*>& ended = ThreadRecord::ended;
        ThreadRecord* next = ended.load(std::memory_order_relaxed);
        do {
            record->nextEnded = next;
        } while (!ended.compare_exchange_weak(next, record, std::memory_order_release,
                                              std::memory_order_relaxed));
    }

    // A forked child has no other thread than the forking one, and Python has freed their states
    // there. Their records stay behind. Another thread may have been at the list: it and its lock
    // are made anew, rather than locked before the fork, where handlers of the host's may be
    // waiting for threads that wait for the lock.
    static void ForgetInChild() {
        new (&livingLock) std::mutex;
        living = ThreadRecord::current;
        if (living != nullptr) living->previousLiving = living->nextLiving = nullptr;
        ThreadRecord::ended.store(nullptr, std::memory_order_relaxed);
        CommandTurns::ForgetAll();
    }

    pthread_key_t key = 0;
    const bool keyExists = pthread_key_create(&key, Notice) == 0;
    const bool forksAreNoticed = pthread_atfork(nullptr, nullptr, ForgetInChild) == 0;
};

const ThreadEnd& ThreadEnd::instance = *new ThreadEnd;

ThreadRecord& ThreadRecord::MakeCurrent() {
    current = new ThreadRecord;
    AddToLiving(current);
    const bool noticed = !threadHasEnded && ThreadEnd::instance.WillBeNoticed(current);
    // One less than there are: a thread may send its first command in the first of them.
    current->endRounds = noticed ? PTHREAD_DESTRUCTOR_ITERATIONS - 1 : 0;
    return *current;
}

int ThreadRecord::AllCallsInside() {
    const std::lock_guard<std::mutex> guard(livingLock);
    int calls = 0;
    for (const ThreadRecord* record = living; record != nullptr; record = record->nextLiving) {
        calls += record->callsInside.load(std::memory_order_acquire);
    }
    return calls;
}

ThreadRecord* ThreadRecord::TakeEnded() {
    return ended.exchange(nullptr, std::memory_order_acquire);
}
