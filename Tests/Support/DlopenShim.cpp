#include "Tests/Support/DlopenShim.h"

#include <dlfcn.h>

#include <map>
#include <mutex>

namespace {

struct State {
    std::mutex lock;
    std::map<std::string, std::string> files;
    std::vector<std::string> calls;
    std::string leavesError;
    bool bareNamesAllowed = false;
};

// Never destroyed: libraries are opened while the process ends.
State& Shared() {
    static State* state = new State;
    return *state;
}

// Only the names whose presence decides something; the sanitizers and the C library open others.
bool IsBarePythonName(const std::string& path) {
    return path.rfind("libpython", 0) == 0 && path.find('/') == std::string::npos;
}

std::string FileFor(const char* path) {
    if (path == nullptr) return "";
    const std::lock_guard<std::mutex> guard(Shared().lock);
    const auto mapped = Shared().files.find(path);
    if (mapped != Shared().files.end()) return mapped->second;
    if (!IsBarePythonName(path) || Shared().bareNamesAllowed) return path;
    return "/nowhere/" + std::string(path);
}

void RecordCall(const char* path, int flags) {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    Shared().calls.push_back(std::string(path == nullptr ? "" : path) + " " +
                             std::to_string(flags));
}

bool LeavesError(const char* path) {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    return path != nullptr && !Shared().leavesError.empty() && Shared().leavesError == path;
}

}  // namespace

namespace DlopenShim {

void Map(const std::string& bareName, const std::string& file) {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    Shared().files[bareName] = file;
}

void AllowBareNames() {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    Shared().bareNamesAllowed = true;
}

std::vector<std::string> Calls() {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    return Shared().calls;
}

void Clear() {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    Shared().calls.clear();
}

void LeaveErrorAfter(const std::string& path) {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    Shared().leavesError = path;
}

}  // namespace DlopenShim

extern "C" __attribute__((visibility("default"))) void* dlopen(const char* path,
                                                               int flags) noexcept {
    using Dlopen = void* (*)(const char*, int);
    static const auto next = reinterpret_cast<Dlopen>(dlsym(RTLD_NEXT, "dlopen"));
    RecordCall(path, flags);
    const std::string file = FileFor(path);
    void* library = next(path == nullptr ? nullptr : file.c_str(), flags);
    if (LeavesError(path)) static_cast<void>(dlsym(library, "no such name"));
    return library;
}
