#include "Runtimes/Python/Native/KeptThreadStates.h"

#include <memory>

#include "Runtimes/Python/Native/InterpreterLock.h"

namespace {

// From 3.12 on, deleting the state of any thread unbinds the deleting thread from its own.
bool DeletingUnbinds(const PythonFunctions& python) {
    return python.PyErr_GetRaisedException_Fn != nullptr;
}

bool CanBindAgain(const PythonFunctions& python) {
    return python.PyInterpreterState_Get_Fn != nullptr && python.PyThreadState_New_Fn != nullptr &&
           python.PyThreadState_Swap_Fn != nullptr &&
           python.PyThreadState_DeleteCurrent_Fn != nullptr &&
           python.PyEval_RestoreThread_Fn != nullptr;
}

// Puts on a state for the time in which others are deleted, and then the thread's own again, which
// binds the thread to it. REQUIRES: the interpreter lock, which is given up on the way.
class StandInState {
  public:
    explicit StandInState(const PythonFunctions& functions)
        : python(functions),
          standIn(python.PyThreadState_New_Fn(python.PyInterpreterState_Get_Fn())),
          own(standIn == nullptr ? nullptr : python.PyThreadState_Swap_Fn(standIn)) {}
    ~StandInState() {
        if (standIn == nullptr) return;
        python.PyThreadState_Clear_Fn(standIn);
        python.PyThreadState_DeleteCurrent_Fn();
        python.PyEval_RestoreThread_Fn(own);
    }
    StandInState(const StandInState&) = delete;
    StandInState& operator=(const StandInState&) = delete;

    bool IsOn() const { return standIn != nullptr; }

  private:
    const PythonFunctions& python;
    void* const standIn;
    void* const own;
};

// Clearing may run Python code, which must find the thread bound to its state: all are cleared
// before the first is deleted. REQUIRES: the interpreter lock.
void Free(const PythonFunctions& python, ThreadRecord* records) {
    for (const ThreadRecord* record = records; record != nullptr; record = record->nextEnded) {
        if (KeptThreadStates::HasLastingState(*record))
            python.PyThreadState_Clear_Fn(record->keptState);
    }
    while (records != nullptr) {
        const std::unique_ptr<ThreadRecord> record(records);
        records = record->nextEnded;
        if (KeptThreadStates::HasLastingState(*record))
            python.PyThreadState_Delete_Fn(record->keptState);
    }
}

}  // namespace

namespace KeptThreadStates {

constinit std::atomic<std::uint64_t> interpreter{1};

bool ArePossible(const PythonFunctions& python) {
    return python.PyGILState_GetThisThreadState_Fn != nullptr &&
           python.PyThreadState_Clear_Fn != nullptr && python.PyThreadState_Delete_Fn != nullptr &&
           (!DeletingUnbinds(python) || CanBindAgain(python));
}

void NoteStartingThread(ThreadRecord& thread) {
    thread.hasStateIn = interpreter.load(std::memory_order_relaxed);
}

// The outer taking of the lock is never given back by the thread, only the lock itself is.
void KeepOwn(const PythonFunctions& python, ThreadRecord& thread) {
    if (thread.endRounds == 0) return;
    if (python.PyGILState_GetThisThreadState_Fn() != nullptr) return;
    python.PyGILState_Ensure_Fn();
    thread.keptState = python.PyEval_SaveThread_Fn();
    thread.hasStateIn = interpreter.load(std::memory_order_relaxed);
}

// Without memory for a stand-in the states wait for the next command.
void GiveBackEnded(const PythonFunctions& python) {
    const InterpreterLock lock(python);
    if (!DeletingUnbinds(python)) {
        Free(python, ThreadRecord::TakeEnded());
        return;
    }
    const StandInState standIn(python);
    if (standIn.IsOn()) Free(python, ThreadRecord::TakeEnded());
}

void ForgetAll() {
    interpreter.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace KeptThreadStates
