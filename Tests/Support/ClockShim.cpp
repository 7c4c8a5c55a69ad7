#include "Tests/Support/ClockShim.h"

#include <dlfcn.h>

#include <cerrno>
#include <cstdio>
#include <map>
#include <mutex>
#include <utility>

namespace {

constexpr long kNanosecondsPerMillisecond = 1000000;

struct State {
    std::mutex lock;
    std::time_t now = 0;
    std::vector<long> pauses;
    std::function<void()> atPause;
    long interruptedWith = 0;
    std::vector<std::string> opened;
    std::map<std::string, std::string> redirected;
};

// Never destroyed: files are opened while the process ends.
State& Shared() {
    static State* state = new State;
    return *state;
}

thread_local int questionsForTheTime = 0;

template <typename Function>
Function* Next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

long Milliseconds(const timespec& duration) {
    return duration.tv_sec * 1000 + duration.tv_nsec / kNanosecondsPerMillisecond;
}

// The file to open in place of `path`; empty when opening has to fail.
std::string FileFor(const std::string& path, const char* mode) {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    if (path.find("ErrorLogger") != std::string::npos) {
        Shared().opened.push_back(path + " " + mode);
    }
    const auto redirected = Shared().redirected.find(path);
    return redirected == Shared().redirected.end() ? path : redirected->second;
}

std::FILE* Open(const char* function, const char* path, const char* mode) {
    const std::string file = FileFor(path, mode);
    if (file.empty()) {
        errno = EACCES;
        return nullptr;
    }
    return Next<std::FILE*(const char*, const char*)>(function)(file.c_str(), mode);
}

}  // namespace

namespace ClockShim {

void SetTime(std::time_t now) {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    Shared().now = now;
}

int QuestionsForTheTime() {
    return std::exchange(questionsForTheTime, 0);
}

std::vector<long> Pauses() {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    return Shared().pauses;
}

void AtPause(std::function<void()> action) {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    Shared().atPause = std::move(action);
}

void InterruptNextPause(long left) {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    Shared().interruptedWith = left;
}

std::vector<std::string> OpenedLogFiles() {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    return Shared().opened;
}

void RedirectFile(const std::string& path, const std::string& file) {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    Shared().redirected[path] = file;
}

}  // namespace ClockShim

extern "C" {

__attribute__((visibility("default"))) std::time_t time(std::time_t* result) noexcept {
    ++questionsForTheTime;
    std::time_t now;
    {
        const std::lock_guard<std::mutex> guard(Shared().lock);
        now = Shared().now;
    }
    if (now == 0) {
        timespec real = {};
        clock_gettime(CLOCK_REALTIME, &real);
        now = real.tv_sec;
    }
    if (result != nullptr) *result = now;
    return now;
}

__attribute__((visibility("default"))) int nanosleep(const timespec* asked, timespec* left) {
    std::function<void()> atPause;
    long interruptedWith = 0;
    {
        const std::lock_guard<std::mutex> guard(Shared().lock);
        Shared().pauses.push_back(Milliseconds(*asked));
        atPause = Shared().atPause;
        interruptedWith = std::exchange(Shared().interruptedWith, 0);
    }
    if (atPause) atPause();
    if (interruptedWith == 0) return 0;
    *left = {0, interruptedWith * kNanosecondsPerMillisecond};
    errno = EINTR;
    return -1;
}

// The standard library's file streams open files through one of these.
__attribute__((visibility("default"))) std::FILE* fopen(const char* path, const char* mode) {
    return Open("fopen", path, mode);
}
__attribute__((visibility("default"))) std::FILE* fopen64(const char* path, const char* mode) {
    return Open("fopen64", path, mode);
}

}  // extern "C"
