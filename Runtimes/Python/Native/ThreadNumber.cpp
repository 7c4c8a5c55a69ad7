#include "Runtimes/Python/Native/ThreadNumber.h"

#include <atomic>

std::uint64_t ThisThreadsNumber() {
    static std::atomic<std::uint64_t> last{kNoThread};
    thread_local const std::uint64_t number = ++last;
    return number;
}
