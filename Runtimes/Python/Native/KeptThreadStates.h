// Python thread states that outlast the commands of their threads, while the interpreter lives as
// long as the process. A state is kept only for a thread that has none of its own: the starting
// thread and the threads of Python and of the host look after theirs. Any thread.
#pragma once

#include <atomic>
#include <cstdint>

#include "Runtimes/Python/Native/PythonFunctions.h"
#include "Runtimes/Python/Native/ThreadRecord.h"

namespace KeptThreadStates {

// Whether the library has what keeping and giving back takes. The bridge does without when not.
bool ArePossible(const PythonFunctions& python);

// Counts the interpreters: states of one that was finalised must not be touched any more.
extern std::atomic<std::uint64_t> interpreter;

// Whether the thread whose record this is has a state that lasts: nothing is to be kept.
inline bool HasLastingState(const ThreadRecord& thread) {
    return thread.hasStateIn == interpreter.load(std::memory_order_relaxed);
}

// The calling thread, whose record this is, has started the interpreter: it runs on a state that
// lasts as long as the interpreter does.
void NoteStartingThread(ThreadRecord& thread);

// Gives the calling thread, whose record this is, a state that lasts until the thread ends, unless
// it has one of its own. REQUIRES: they are possible, the thread has no lasting state, and
// the interpreter is running.
void KeepOwn(const PythonFunctions& python, ThreadRecord& thread);

// Gives back the states of threads that have ended; objects of theirs are destroyed on the calling
// thread, which may run Python code. REQUIRES: they are possible, and the interpreter is running.
void GiveBackEnded(const PythonFunctions& python);

// The interpreter is about to be finalised, which frees the states of all threads.
void ForgetAll();

}  // namespace KeptThreadStates
