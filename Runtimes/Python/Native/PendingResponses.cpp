#include "Runtimes/Python/Native/PendingResponses.h"

#include <sys/mman.h>

#include <bit>
#include <new>
#include <utility>

namespace {

// Responses up to here share one storage.
constexpr std::size_t kSmallest = 256;

constexpr std::size_t kCacheLine = 64;
constexpr std::size_t kHugePage = 2 << 20;
// Storage from here on is made of huge pages, of which the last one may be half empty.
constexpr std::size_t kSmallestOfHugePages = 2 * kHugePage;

std::size_t RoundedUp(std::size_t size, std::size_t unit) {
    return (size + unit - 1) / unit * unit;
}

using Bytes = decltype(Response::bytes);

Bytes Allocate(std::size_t size, std::size_t alignment) {
    const std::align_val_t alignedTo{alignment};
    return Bytes(static_cast<unsigned char*>(::operator new[](size, alignedTo)), {alignedTo});
}

// What a large response costs most are pages that nobody has touched yet; a huge page stands for
// 512 of them. The system may refuse, and nothing is lost then.
Bytes AllocateHugePages(std::size_t size) {
    const std::size_t whole = RoundedUp(size, kHugePage);
    Bytes bytes = Allocate(whole, kHugePage);
    madvise(bytes.get(), whole, MADV_HUGEPAGE);
    return bytes;
}

}  // namespace

Response PendingResponses::NewStorage(std::size_t size) {
    if (size >= kSmallestOfHugePages) return {AllocateHugePages(size), size, size};
    const std::size_t capacity =
        size > kAlwaysKept ? size : std::bit_ceil(std::max(size, kSmallest));
    return {Allocate(capacity, kCacheLine), size, capacity};
    // The analyser loses sight of the deleter, which frees it.
}  // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks)

void PendingResponses::Clear() {
    entries.clear();
    entries.shrink_to_fit();
}

PendingResponses::Entry& PendingResponses::OtherEntryOf(std::uint64_t launcher) {
    for (Entry& entry : entries) {
        if (entry.owner.launcher == launcher) return entry;
    }
    for (Entry& entry : entries) {
        if (!entry.isPending) return entry;
    }
    return entries.emplace_back();
}
