// The responses that wait to be read by one thread, and the storage of those that were read, which
// the thread's next response uses again. Part of the thread's record; that thread alone touches it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>
#include <vector>

struct FreedAtEnd {
    std::align_val_t alignment{};
    void operator()(unsigned char* bytes) const { ::operator delete[](bytes, alignment); }
};

// The bytes of one response. The storage may be larger than the response; what it holds before it
// is written is not defined.
struct Response {
    std::unique_ptr<unsigned char[], FreedAtEnd> bytes;
    std::size_t size = 0;
    std::size_t capacity = 0;  // what a later response finds here; 0 when the storage does not stay
};

// Where the bytes of a command lay that the receiver of the command has freed since, unless it
// keeps them. Nothing is read or written there.
struct CommandPlace {
    std::uintptr_t begin = 0;
    std::size_t size = 0;
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
    // One launcher's pending response, or the storage that its last one left.
    struct Entry {
        ResponseOwner owner;
        bool isPending;
        Response response;
        Response setAside;  // storage that stays, while the pending response has one that does not
    };

    // Storage for `size` bytes: where the command lay if that is free and large, that of the
    // launcher's last response if it fits. It is the caller's, so that a command within the command
    // cannot write over it. Throws std::bad_alloc.
    Response Storage(ResponseOwner owner, std::size_t size, CommandPlace command) {
        Entry& entry = EntryOf(owner.launcher);
        if (entry.isPending) return NewStorage(size);
        if (size >= kLarge && size <= command.size) [[unlikely]] {
            Response response = StorageIn(command, size);
            if (response.bytes) return response;
        }
        Response left = std::exchange(entry.response, {});
        if (left.capacity < size || !IsUsedBy(left.capacity, size)) [[unlikely]] {
            left = {};
            return NewStorage(size);
        }
        left.size = size;
        return left;
    }

    // Makes `response` the pending one of `owner`; the earlier one of the same launcher is
    // forgotten. Throws std::bad_alloc, and nothing has changed then.
    void Keep(ResponseOwner owner, Response&& response) {
        Entry& entry = EntryOf(owner.launcher);
        if (entry.isPending) [[unlikely]]
            Forget(entry);
        if (response.capacity == 0) [[unlikely]]
            entry.setAside = std::move(entry.response);
        entry.response = std::move(response);
        entry.owner = owner;
        entry.isPending = true;
    }

    // The entry of the response that is pending for `owner`, null when there is none. It stays
    // valid until another member function is called.
    Entry* PendingOf(ResponseOwner owner) {
        for (Entry& entry : entries) {
            if (entry.owner.launcher != owner.launcher || !entry.isPending) continue;
            if (entry.owner.generation == owner.generation) [[likely]]
                return &entry;
            Forget(entry);
            break;
        }
        return nullptr;
    }

    // The response is not pending any more; its storage is kept for the next one or freed.
    void Forget(Entry& entry) {
        const std::size_t size = entry.response.size;
        if (entry.response.capacity == 0) [[unlikely]]
            entry.response = std::move(entry.setAside);
        // One big response does not stay: the one before it has to have used the storage too.
        if (!IsUsedBy(entry.response.capacity, std::min(size, previousSize))) [[unlikely]]
            entry.response = {};
        previousSize = size;
        entry.isPending = false;
    }

    // Frees everything.
    void Clear();

  private:
    static constexpr std::size_t kAlwaysKept = 65536;  // bytes, as all sizes here
    // Larger storage stays only while at least this part of it is used.
    static constexpr std::size_t kUsedPart = 4;
    // Storage from here on is made of huge pages, of which the last one may be half empty, unless
    // it is where the command lay.
    static constexpr std::size_t kLarge = 4 << 20;

    static bool IsUsedBy(std::size_t capacity, std::size_t size) {
        return capacity <= kAlwaysKept || size >= capacity / kUsedPart;
    }
    Entry& EntryOf(std::uint64_t launcher) {
        if (!entries.empty() && entries.front().owner.launcher == launcher) [[likely]]
            return entries.front();
        return OtherEntryOf(launcher);
    }
    [[gnu::noinline]] Entry& OtherEntryOf(std::uint64_t launcher);
    [[gnu::noinline]] static Response NewStorage(std::size_t size);
    [[gnu::noinline]] Response StorageIn(CommandPlace command, std::size_t size);

    std::vector<Entry> entries;    // as many as launchers have a response pending at once: one
    std::size_t previousSize = 0;  // of the response before the last one that was read

    // How many large commands come before the next attempt to get a command's place, now and when
    // that has been made.
    unsigned pause = 0;
    unsigned nextPause = 0;
};
