// The test program's own operator new (and, without sanitizers, malloc), which the bridge finds
// before the standard library's: counts allocations and lets a chosen one fail. Any thread; counts
// and failures belong to the calling thread.
#pragma once

namespace AllocationShim {

// Memory asked for by this thread so far, through operator new or malloc, whoever asked.
long long Count();

// Lets the `nth` (1 is the next) operator new that this thread calls from code of `library` (the
// base address of its mapping) throw std::bad_alloc.
void FailIn(const void* library, int nth);

// Ends that. Tells whether an allocation failed.
bool FailNoMore();

// The base address of the mapping that holds `address`.
const void* LibraryOf(const void* address);

}  // namespace AllocationShim
