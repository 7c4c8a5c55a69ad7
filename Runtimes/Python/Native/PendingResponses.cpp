#include "Runtimes/Python/Native/PendingResponses.h"

#include <bit>

namespace {

// Responses up to here share one storage.
constexpr std::size_t kSmallest = 256;

}  // namespace

Response PendingResponses::NewStorage(std::size_t size) {
    spare = {};
    const std::size_t capacity =
        size > kAlwaysKept ? size : std::bit_ceil(std::max(size, kSmallest));
    return {std::make_unique_for_overwrite<unsigned char[]>(capacity), size, capacity};
}

void PendingResponses::Clear() {
    entries.clear();
    entries.shrink_to_fit();
    spare = {};
}

PendingResponses::Pending& PendingResponses::OtherEntryOf(std::uint64_t launcher) {
    for (Pending& entry : entries) {
        if (entry.owner.launcher == launcher) return entry;
    }
    for (Pending& entry : entries) {
        if (!entry.isPending) return entry;
    }
    return entries.emplace_back();
}
