#include "Tests/Support/LockShim.h"

#include <dlfcn.h>
#include <pthread.h>

#include <cerrno>
#include <mutex>
#include <utility>

namespace {

struct State {
    // Recording must not allocate: a test may be failing allocations.
    State() { taken.reserve(1000); }

    std::mutex lock;
    int answer = 0;
    std::vector<const void*> taken;
};

// Never destroyed: locks are taken while the process ends.
State& Shared() {
    static State* state = new State;
    return *state;
}

}  // namespace

namespace LockShim {

void AnswerOnce(int error) {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    Shared().answer = error;
}

std::vector<const void*> Taken() {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    return Shared().taken;
}

void Clear() {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    Shared().taken.clear();
}

}  // namespace LockShim

extern "C" __attribute__((visibility("default"))) int pthread_rwlock_wrlock(
    pthread_rwlock_t* lock) noexcept {
    using Lock = int (*)(pthread_rwlock_t*);
    static const auto next = reinterpret_cast<Lock>(dlsym(RTLD_NEXT, "pthread_rwlock_wrlock"));
    int answer = 0;
    {
        const std::lock_guard<std::mutex> guard(Shared().lock);
        Shared().taken.push_back(lock);
        answer = std::exchange(Shared().answer, 0);
    }
    if (answer == EDEADLK) return answer;
    next(lock);
    return answer;
}
