#include "Runtimes/Python/Native/InterpreterGate.h"

#include "Runtimes/Python/Native/ThreadNumber.h"

constinit std::atomic<bool> InterpreterGate::shut{false};
constinit std::atomic<std::uint64_t> InterpreterGate::restartingThread{kNoThread};

// The caller has been counted already.
void InterpreterGate::EnterShut(ThreadRecord& thread) {
    if (restartingThread.load() == ThisThreadsNumber()) return;
    Leave(thread);
    shut.wait(true);
    Enter(thread);
}

// A call that enters at the same moment may count although it is about to wait; then nothing is
// restarted, as for any other call that is inside.
bool InterpreterGate::TryShut() {
    if (ThreadRecord::AllCallsInside() > 1) return false;  // spares the others the barrier
    if (shut.exchange(true)) return false;
    if (!AsymmetricBarrier::Heavy() || ThreadRecord::AllCallsInside() > 1) {
        Open();
        return false;
    }
    restartingThread.store(ThisThreadsNumber());
    return true;
}

void InterpreterGate::Open() {
    restartingThread.store(kNoThread);
    shut.store(false);
    shut.notify_all();
}
