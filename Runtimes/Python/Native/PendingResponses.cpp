#include "Runtimes/Python/Native/PendingResponses.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <new>
#include <utility>

namespace {

// Responses up to here share one storage.
constexpr std::size_t kSmallest = 256;

constexpr std::size_t kCacheLine = 64;
constexpr std::size_t kHugePage = 2 << 20;

// What an attempt to get a command's place costs in vain, which may be all pages of the next
// command when malloc gives them back to the system, is spread over so many commands.
constexpr unsigned kLongestPause = 1023;

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

bool Overlap(const CommandPlace& command, const Bytes& bytes, std::size_t size) {
    const auto begin = reinterpret_cast<std::uintptr_t>(bytes.get());
    return begin < command.begin + command.size && command.begin < begin + size;
}

// Whether the page of this byte is there already. It is not when malloc has asked the system for
// it, even where the same page lay before.
bool IsInMemory(unsigned char* byte) {
    const auto pageSize = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    unsigned char* page = byte - reinterpret_cast<std::uintptr_t>(byte) % pageSize;
    unsigned char state = 0;
    return mincore(page, 1, &state) == 0 && (state & 1) != 0;
}

}  // namespace

Response PendingResponses::NewStorage(std::size_t size) {
    if (size >= kLarge) return {AllocateHugePages(size), size, size};
    const std::size_t capacity =
        size > kAlwaysKept ? size : std::bit_ceil(std::max(size, kSmallest));
    return {Allocate(capacity, kCacheLine), size, capacity};
    // The analyser loses sight of the deleter, which frees it.
}  // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks)

// The bytes of the command are still in the cache, which the storage of the last response has left
// when command and response are large. malloc has just got them back, unless Python's function
// keeps them; it is asked for as much, and what it gives is taken if it is the same place. The
// storage goes back with the response, so that the next command finds it: storage that stayed would
// take the place away from Python.
Response PendingResponses::StorageIn(CommandPlace command, std::size_t size) {
    if (pause > 0) {
        --pause;
        return {};
    }
    constexpr std::align_val_t asMallocDoes{__STDCPP_DEFAULT_NEW_ALIGNMENT__};
    Bytes bytes(static_cast<unsigned char*>(::operator new[](size, asMallocDoes, std::nothrow)),
                {asMallocDoes});
    const bool isThere =
        bytes && Overlap(command, bytes, size) && IsInMemory(bytes.get() + size - 1);
    nextPause = isThere ? nextPause / 2 : std::min(2 * nextPause + 1, kLongestPause);
    pause = nextPause;
    if (!isThere) return {};
    return {std::move(bytes), size, 0};
}

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
