#include "Runtimes/Python/Native/InterpreterGate.h"

// The caller has been counted already.
void InterpreterGate::EnterShut(ThreadRecord& thread) {
    if (restartingThread.load() == std::this_thread::get_id()) return;
    Leave(thread);
    shut.wait(true);
    Enter(thread);
}

// A call that enters at the same moment may count although it is about to wait; then nothing is
// restarted, as for any other call that is inside.
bool InterpreterGate::TryShut() {
    if (ThreadRecord::AllCallsInside() > 1) return false;  // spares the others the barrier
    if (shut.exchange(true)) return false;
    AsymmetricBarrier::Heavy();
    if (ThreadRecord::AllCallsInside() > 1) {
        Open();
        return false;
    }
    restartingThread.store(std::this_thread::get_id());
    return true;
}

void InterpreterGate::Open() {
    restartingThread.store(std::thread::id());
    shut.store(false);
    shut.notify_all();
}
