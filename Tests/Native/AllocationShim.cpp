#include "Tests/Native/AllocationShim.h"

#include <dlfcn.h>

#include <cstdlib>
#include <new>

#include "Tests/Native/Sanitizers.h"

namespace {

struct Plan {
    const void* library = nullptr;
    int callsUntilFailure = 0;
    bool failed = false;
};

struct Watched {
    const void* library = nullptr;
    long long count = 0;
    const void* last = nullptr;
};

thread_local long long count = 0;
thread_local Plan plan;
thread_local Watched watched;

bool MustFail(const void* caller) {
    if (plan.callsUntilFailure == 0 || AllocationShim::LibraryOf(caller) != plan.library) {
        return false;
    }
    plan.failed = --plan.callsUntilFailure == 0;
    return plan.failed;
}

// Notes what `caller` has got, and hands it on.
void* Given(void* memory, const void* caller) {
    if (watched.library != nullptr && AllocationShim::LibraryOf(caller) == watched.library) {
        ++watched.count;
        watched.last = memory;
    }
    return memory;
}

void* OrThrow(void* memory) {
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

void* Allocate(std::size_t size, const void* caller) {
    if (MustFail(caller)) throw std::bad_alloc();
#if QUORVALEN_TEST_SANITIZED
    ++count;  // malloc is not ours there
#endif
    return Given(OrThrow(std::malloc(size == 0 ? 1 : size)), caller);
}

// The C library's aligned_alloc is nobody's own, so it is counted here. Null when there is none.
void* AllocateAligned(std::size_t size, std::align_val_t alignment, const void* caller) {
    if (MustFail(caller)) return nullptr;
    ++count;
    const auto unit = static_cast<std::size_t>(alignment);
    return Given(std::aligned_alloc(unit, (size + unit - 1) / unit * unit), caller);
}

}  // namespace

namespace AllocationShim {

long long Count() {
    return count;
}

void Watch(const void* library) {
    watched = {library, 0, nullptr};
}

long long WatchedCount() {
    return watched.count;
}

const void* LastWatched() {
    return watched.last;
}

void FailIn(const void* library, int nth) {
    plan = {library, nth, false};
}

bool FailNoMore() {
    const bool failed = plan.failed;
    plan = {};
    return failed;
}

const void* LibraryOf(const void* address) {
    Dl_info info = {};
    return dladdr(address, &info) == 0 ? nullptr : info.dli_fbase;
}

}  // namespace AllocationShim

void* operator new(std::size_t size) {
    return Allocate(size, __builtin_return_address(0));
}
void* operator new[](std::size_t size) {
    return Allocate(size, __builtin_return_address(0));
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return OrThrow(AllocateAligned(size, alignment, __builtin_return_address(0)));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return OrThrow(AllocateAligned(size, alignment, __builtin_return_address(0)));
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return AllocateAligned(size, alignment, __builtin_return_address(0));
}
void operator delete(void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}

#if !QUORVALEN_TEST_SANITIZED

// The C library's functions under the names that it keeps for programs with a malloc of their own.
extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t number, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);

__attribute__((visibility("default"))) void* malloc(std::size_t size) noexcept {
    ++count;
    return __libc_malloc(size);
}
__attribute__((visibility("default"))) void* calloc(std::size_t number, std::size_t size) noexcept {
    ++count;
    return __libc_calloc(number, size);
}
__attribute__((visibility("default"))) void* realloc(void* memory, std::size_t size) noexcept {
    ++count;
    return __libc_realloc(memory, size);
}

}  // extern "C"

#endif
