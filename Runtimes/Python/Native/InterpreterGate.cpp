#include "Runtimes/Python/Native/InterpreterGate.h"

// The caller has been counted already.
void InterpreterGate::EnterShut() {
    do {
        if (restartingThread.load() == std::this_thread::get_id()) return;
        Leave();
        WaitUntilOpen();
    } while ((inside.fetch_add(1, std::memory_order_acquire) & kShut) != 0);
}

// The exchange succeeds only from "one inside, open", so a call that enters at the same moment
// either counts and prevents the restart or finds the gate shut.
bool InterpreterGate::TryShut() {
    std::uint32_t onlyTheCaller = 1;
    if (!inside.compare_exchange_strong(onlyTheCaller, 1 | kShut)) return false;
    restartingThread.store(std::this_thread::get_id());
    return true;
}

void InterpreterGate::Open() {
    restartingThread.store(std::thread::id());
    inside.fetch_and(~kShut);
    inside.notify_all();
}

void InterpreterGate::WaitUntilOpen() {
    for (std::uint32_t seen = inside.load(); (seen & kShut) != 0; seen = inside.load()) {
        inside.wait(seen);
    }
}
