// A fake bridge library for tests and benchmarks of the host: no Python, and the response is the
// command's own bytes. In a body that is JSON some members make the receiver do more:
//
//     {"sleep": 0.2}       answers after so many seconds
//     {"throw": "text"}    fails with that text
//     {"length": 5000}     answers with so many bytes, the header and then zeros; -1: just returns
//     it
//     {"gate": "file"}     answers when the file exists, which a test creates
//
// Nothing is allocated for other commands of a usual size once a thread has answered one.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Tests/Fakes/SlotOrder.h"

namespace {

constexpr std::size_t kHeaderLength = 11;
constexpr std::size_t kKeptLength = std::size_t{1} << 20;

thread_local std::vector<unsigned char> pending;

// The text behind `{"name": ` in `body`, without quotes; empty when the body begins otherwise.
std::string Member(std::string_view body, const std::string& name) {
    const std::string before = "{\"" + name + "\": ";
    if (!body.starts_with(before)) return "";
    std::string value(body.substr(before.size(), body.size() - before.size() - 1));
    if (value.starts_with("\"")) value = value.substr(1, value.size() - 2);
    return value;
}

void WaitForFile(const std::string& file) {
    while (!std::filesystem::exists(file)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

// Returns the length of the answer.
int DoMore(std::string_view body) {
    const std::string sleep = Member(body, "sleep");
    const std::string text = Member(body, "throw");
    const std::string length = Member(body, "length");
    const std::string gate = Member(body, "gate");
    if (!sleep.empty()) {
        std::this_thread::sleep_for(std::chrono::duration<double>(std::stod(sleep)));
    }
    if (!text.empty()) throw std::runtime_error(text);
    if (!gate.empty()) WaitForFile(gate);
    if (length.empty()) return static_cast<int>(pending.size());
    const int count = std::stoi(length);
    if (count >= 0) pending.resize(static_cast<std::size_t>(count));
    return count;
}

class Receiver : public SlotOrder::IReceiver {
  public:
    int SetConfigSource(std::string) override { return 0; }
    int Initialize(unsigned char callingRuntime, unsigned char targetRuntime,
                   unsigned char version) override {
        const char* failure = std::getenv("FAKE_ECHO_INITIALIZE");
        if (failure != nullptr) {
            throw std::runtime_error(failure + (": " + std::to_string(callingRuntime)) + " " +
                                     std::to_string(targetRuntime) + " " + std::to_string(version));
        }
        return 0;
    }
    int SendCommand(unsigned char* message, int length) override {
        pending.assign(message, message + length);
        if (pending.size() < kHeaderLength + 2 || pending[kHeaderLength + 1] != '"') return length;
        return DoMore(std::string_view(reinterpret_cast<const char*>(message) + kHeaderLength,
                                       pending.size() - kHeaderLength));
    }
    int ReadResponse(unsigned char* buffer, int length) override {
        const std::size_t count = std::min(static_cast<std::size_t>(length), pending.size());
        if (count > 0) std::memcpy(buffer, pending.data(), count);
        if (pending.size() > kKeptLength) pending = std::vector<unsigned char>();
        return 0;
    }
    void LogException(unsigned char*, int) override {}
    int LoadOptimizedMethod(std::string) override { return 0; }
    int SetEmbeddedRuntime(unsigned char, std::string) override { return 0; }
    int DeployRuntime(unsigned char*, int, std::string, unsigned char) override { return 0; }
};

}  // namespace

extern "C" SlotOrder::IReceiver* CreateReceiver(int mode) {
    static Receiver receiver;
    return mode == 1 ? &receiver : nullptr;
}
