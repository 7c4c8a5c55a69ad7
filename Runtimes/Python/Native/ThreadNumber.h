// A number for each thread that is never used again, not even after the thread has ended. The
// system's own ids are: a new thread often gets the id of one that ended just before, and would be
// taken for the thread that started the interpreter or that still holds its lock. Any thread.
#pragma once

#include <cstdint>

inline constexpr std::uint64_t kNoThread = 0;

std::uint64_t ThisThreadsNumber();
