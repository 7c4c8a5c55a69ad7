// The test program's own operator new (and, without sanitizers, malloc), which the bridge finds
// before the standard library's: counts allocations, watches those of a library and lets a chosen
// one fail. Any thread; counts and failures belong to the calling thread.
#pragma once

namespace AllocationShim {

// Memory asked for by this thread so far, through operator new or malloc, whoever asked.
long long Count();

// Counts what code of `library` (the base address of its mapping) gets from operator new on this
// thread from now on.
void Watch(const void* library);
long long WatchedCount();
// The last of it, freed or not; null when there was none.
const void* LastWatched();

// Lets the `nth` (1 is the next) operator new that this thread calls from code of `library` fail,
// with std::bad_alloc or without.
void FailIn(const void* library, int nth);

// Ends that. Tells whether an allocation failed.
bool FailNoMore();

// The base address of the mapping that holds `address`.
const void* LibraryOf(const void* address);

}  // namespace AllocationShim
