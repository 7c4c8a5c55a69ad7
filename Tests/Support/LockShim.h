// The test program's own pthread_rwlock_wrlock, which stands before the C library's: a test sees
// which read-write locks are taken for writing and chooses what taking one answers. Add
// LockShim.cpp to the sources of the program that uses it.
#pragma once

#include <vector>

namespace LockShim {

// The next lock call answers `error`. With EDEADLK the lock is not taken, as in the C library; with
// any other error it is taken all the same.
void AnswerOnce(int error);

// The locks that were taken for writing since the last Clear, in order.
std::vector<const void*> Taken();
void Clear();

}  // namespace LockShim
