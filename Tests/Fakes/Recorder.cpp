#include "Tests/Fakes/Recorder.h"

#include <atomic>
#include <cstdio>
#include <map>
#include <mutex>

namespace Fakes {
namespace {

struct Failure {
    int callsUntilFailure;
    bool forever;
};

struct State {
    std::mutex lock;
    std::vector<std::string> trace;
    std::map<std::string, Failure> failures;
    std::map<std::string, std::string> texts;
    std::map<std::string, long long> numbers;
    std::atomic<void (*)(const std::string&)> hook = nullptr;
};

// Never destroyed: fakes record while the process ends.
State& Shared() {
    static State* state = new State;
    return *state;
}

template <typename Value>
Value Find(const std::map<std::string, Value>& values, const std::string& name,
           const Value& defaultValue) {
    const auto found = values.find(name);
    return found == values.end() ? defaultValue : found->second;
}

}  // namespace

void Record(const std::string& call) {
    {
        const std::lock_guard<std::mutex> guard(Shared().lock);
        Shared().trace.push_back(call);
    }
    if (const auto hook = Shared().hook.load()) hook(call);
}

std::vector<std::string> Trace() {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    return Shared().trace;
}

void ClearTrace() {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    Shared().trace.clear();
}

void SetHook(void (*hook)(const std::string& call)) {
    Shared().hook.store(hook);
}

void Fail(const std::string& function, int nth, bool forever) {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    Shared().failures[function] = {nth, forever};
}

void FailNoMore() {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    Shared().failures.clear();
}

bool MustFail(const std::string& function) {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    const auto found = Shared().failures.find(function);
    if (found == Shared().failures.end()) return false;
    Failure& failure = found->second;
    if (failure.callsUntilFailure > 0) --failure.callsUntilFailure;
    if (failure.callsUntilFailure > 0) return false;
    if (!failure.forever) Shared().failures.erase(found);
    return true;
}

void SetText(const std::string& name, const std::string& value) {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    Shared().texts[name] = value;
}

std::string Text(const std::string& name, const std::string& defaultValue) {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    return Find(Shared().texts, name, defaultValue);
}

void SetNumber(const std::string& name, long long value) {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    Shared().numbers[name] = value;
}

long long Number(const std::string& name, long long defaultValue) {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    return Find(Shared().numbers, name, defaultValue);
}

std::string ShowBytes(const unsigned char* bytes, int length) {
    std::string shown = "[" + std::to_string(length) + "]";
    for (int i = 0; i < length; ++i) {
        char text[4];
        std::snprintf(text, sizeof text, " %02x", static_cast<unsigned>(bytes[i]));
        shown += text;
    }
    return shown;
}

}  // namespace Fakes
