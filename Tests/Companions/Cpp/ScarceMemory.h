// Makes the memory of the calling thread scarce: every `new` of the process, the bridge's included,
// throws std::bad_alloc on this thread when it asks for more than `bytes`. (Not for less: the JSON
// package's destructors ask for a little, and may not fail.)
#pragma once

#include <cstddef>
#include <limits>

inline constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();

void SetLargestAllocation(std::size_t bytes);
