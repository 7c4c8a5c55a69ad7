#include "Tests/Companions/Cpp/ScarceMemory.h"

#include <cstdlib>
#include <new>

namespace {

thread_local std::size_t largestAllocation = kNoLimit;

}  // namespace

void SetLargestAllocation(std::size_t bytes) {
    largestAllocation = bytes;
}

void* operator new(std::size_t size) {
    void* memory = size > largestAllocation ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
