// The test program's own time, nanosleep and fopen, which stand before the C library's: a test
// decides what time it is, sees every pause instead of waiting for it, and sees which files are
// opened for writing. Add ClockShim.cpp to the sources of the program that uses it.
#pragma once

#include <ctime>
#include <functional>
#include <string>
#include <vector>

namespace ClockShim {

// What `time` answers from now on, in seconds since 1970. The real time until then.
void SetTime(std::time_t now);

// How often the calling thread has asked for the time since its last call of this function.
int QuestionsForTheTime();

// The pauses that were asked for, in milliseconds. None of them was waited for.
std::vector<long> Pauses();

// Called at the beginning of every pause.
void AtPause(std::function<void()> action);

// The next pause ends as if a signal had come when `left` milliseconds were left.
void InterruptNextPause(long left);

// "path mode" of every file opened through fopen whose name holds "ErrorLogger".
std::vector<std::string> OpenedLogFiles();

// Opening `path` opens `file` instead; an empty `file` makes it fail with EACCES.
void RedirectFile(const std::string& path, const std::string& file);

}  // namespace ClockShim
