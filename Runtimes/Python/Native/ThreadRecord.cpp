#include "Runtimes/Python/Native/ThreadRecord.h"

#include <pthread.h>

#include <atomic>
#include <climits>
#include <utility>

namespace {

thread_local constinit bool threadHasEnded = false;

std::atomic<ThreadRecord*> ended{nullptr};

// The ending thread waits for nobody: whoever holds the interpreter lock may be joining it.
void Retire(ThreadRecord* record) {
    if (record->keptState == nullptr) {
        delete record;
        return;
    }
    record->responses.Clear();
    ThreadRecord* next = ended.load(std::memory_order_relaxed);
    do {
        record->nextEnded = next;
    } while (!ended.compare_exchange_weak(next, record, std::memory_order_release,
                                          std::memory_order_relaxed));
}

}  // namespace

thread_local constinit ThreadRecord* ThreadRecord::current = nullptr;

// The function of a key runs at a thread's end, after the destructors of its variables, but not
// while the process exits.
struct ThreadEnd {
    static const ThreadEnd& Get() {
        static const ThreadEnd* const made = new ThreadEnd;
        return *made;
    }

    bool WillBeNoticed(ThreadRecord* record) const {
        return keyExists && forksAreNoticed && pthread_setspecific(key, record) == 0;
    }

  private:
    // Functions of other keys may still send commands: the record lasts for more than one round.
    static void Notice(void* ending) {
        auto* record = static_cast<ThreadRecord*>(ending);
        --record->endRounds;
        if (record->endRounds > 0 && Get().WillBeNoticed(record)) return;
        ThreadRecord::current = nullptr;
        threadHasEnded = true;
        Retire(record);
    }

    // In a forked child Python has freed the states of all threads but the forking one.
    static void ForgetInChild() { ended.store(nullptr, std::memory_order_relaxed); }

    pthread_key_t key = 0;
    const bool keyExists = pthread_key_create(&key, Notice) == 0;
    const bool forksAreNoticed = pthread_atfork(nullptr, nullptr, ForgetInChild) == 0;
};

ThreadRecord& ThreadRecord::MakeCurrent() {
    current = new ThreadRecord;
    const bool noticed = !threadHasEnded && ThreadEnd::Get().WillBeNoticed(current);
    // One less than there are: a thread may send its first command in the first of them.
    current->endRounds = noticed ? PTHREAD_DESTRUCTOR_ITERATIONS - 1 : 0;
    return *current;
}

bool ThreadRecord::HaveEnded() {
    return ended.load(std::memory_order_relaxed) != nullptr;
}

ThreadRecord* ThreadRecord::TakeEnded() {
    return ended.exchange(nullptr, std::memory_order_acquire);
}
