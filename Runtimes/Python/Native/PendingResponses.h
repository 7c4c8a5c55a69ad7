// The responses that wait to be read by one thread, and the storage of those that were read, which
// the thread's next response uses again. Part of the thread's record; that thread alone touches it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

// The bytes of one response. The storage may be larger than the response; what it holds before it
// is written is not defined.
struct Response {
    std::unique_ptr<unsigned char[]> bytes;
    std::size_t size = 0;
    std::size_t capacity = 0;
};

// Which responses count as pending: those of one launcher since it last dropped them all. A
// launcher drops the responses of all threads by counting on, without touching any of their
// storage.
struct ResponseOwner {
    std::uint64_t launcher;    // a number that is never used again
    std::uint64_t generation;  // counts the drops
};

class PendingResponses {
  public:
    // Storage for `size` bytes, the thread's spare one if it fits. It is the caller's, so that a
    // command within the command cannot write over it. Throws std::bad_alloc.
    Response Storage(std::size_t size) {
        if (spare.capacity < size || spare.bytes == nullptr || !IsUsedBy(spare.capacity, size)) {
            return NewStorage(size);
        }
        spare.size = size;
        return std::move(spare);
    }

    // Makes `response` the pending one of `owner`; the earlier one of the same launcher is
    // forgotten. Throws std::bad_alloc, and nothing has changed then.
    void Keep(ResponseOwner owner, Response&& response) {
        Pending& entry = EntryOf(owner.launcher);
        if (entry.isPending) Recycle(std::move(entry.response));
        entry.response = std::move(response);
        entry.owner = owner;
        entry.isPending = true;
    }

    // Moves the pending response of `owner` into `response` and forgets it. False when there is
    // none.
    bool Take(ResponseOwner owner, Response& response) {
        for (Pending& entry : entries) {
            if (entry.owner.launcher != owner.launcher || !entry.isPending) continue;
            entry.isPending = false;
            response = std::move(entry.response);
            if (entry.owner.generation == owner.generation) [[likely]]
                return true;
            Recycle(std::move(response));
            return false;
        }
        return false;
    }

    // Hands storage back that Storage or Take gave; it is kept for the next response or freed.
    void Recycle(Response&& response) {
        const std::size_t size = response.size;
        // One big response does not stay: the one before it has to have used the storage too.
        if (IsUsedBy(response.capacity, std::min(size, previousSize))) spare = std::move(response);
        previousSize = size;
    }

    // Frees everything.
    void Clear();

  private:
    struct Pending {
        ResponseOwner owner;
        bool isPending;
        Response response;
    };

    static constexpr std::size_t kAlwaysKept = 65536;  // bytes, as all sizes here
    // Larger storage stays only while at least this part of it is used.
    static constexpr std::size_t kUsedPart = 4;

    static bool IsUsedBy(std::size_t capacity, std::size_t size) {
        return capacity <= kAlwaysKept || size >= capacity / kUsedPart;
    }
    Pending& EntryOf(std::uint64_t launcher) {
        if (!entries.empty() && entries.front().owner.launcher == launcher) [[likely]]
            return entries.front();
        return OtherEntryOf(launcher);
    }
    Pending& OtherEntryOf(std::uint64_t launcher);
    Response NewStorage(std::size_t size);

    std::vector<Pending> entries;  // as many as launchers have a response pending at once: one
    Response spare;
    std::size_t previousSize = 0;  // of the response before the last one that was read
};
