#include "Companions/Host/Runtime.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <vector>

namespace Quorvalen::Companions::Network::Host {

namespace {

using Native::Interfaces::IReceiver;

constexpr unsigned char kCpp = 8;  // the framework's numbers
constexpr unsigned char kPython = 5;
constexpr unsigned char kCommand = 1;
constexpr int kCalledRuntimeMode = 1;

void* LookUp(const std::string& library, const char* name) {
    void* handle = dlopen(library.c_str(), RTLD_NOW);
    void* symbol = handle != nullptr ? dlsym(handle, name) : nullptr;
    if (symbol == nullptr) throw std::runtime_error(dlerror());
    return symbol;
}

// The library is never closed and the receiver never destroyed: Python lives as long as the
// process.
IReceiver& OpenReceiver(const std::string& library) {
    // Commands come over and over on the same threads, which may keep their Python state then.
    setenv("QUORVALEN_PYTHON_LIFETIME", "process", 0);
    const auto create = reinterpret_cast<IReceiver* (*)(int)>(LookUp(library, "CreateReceiver"));
    IReceiver* receiver = create(kCalledRuntimeMode);
    if (receiver == nullptr) throw std::runtime_error(library + " gives no receiver");
    return *receiver;
}

std::vector<unsigned char> CallOf(const std::string& function) {
    const std::string body = R"({"operation":"call","name":")" + function + R"("})";
    std::vector<unsigned char> command(kHeaderLength + body.size());
    command[0] = kPython;
    command[9] = kCpp;
    command[kKind] = kCommand;
    std::copy(body.begin(), body.end(), command.begin() + kHeaderLength);
    return command;
}

// The value of a response's body; null when it is none.
nlohmann::json ValueOf(std::span<const unsigned char> frame) {
    constexpr std::size_t before = kFramePrefixLength + kHeaderLength;
    if (frame.size() < before) return nullptr;
    const auto text = frame.subspan(before);
    const auto body = nlohmann::json::parse(text.begin(), text.end(), nullptr, false);
    return body.is_object() ? body.value("value", nlohmann::json()) : nullptr;
}

}  // namespace

Runtime::Runtime(const Settings& settings)
    : maxFrame(settings.maxFrame), receiver(OpenReceiver(settings.bridge)) {
    receiver.Initialize(kCpp, kPython, settings.pythonVersion);
}

void Runtime::Execute(std::span<unsigned char> command, Response& response) const {
    try {
        ExecuteOrThrow(command, response);
    } catch (const std::exception& error) {
        response.AnswerException(command, "quorvalen.host.ReceiverError", error.what());
    }
}

void Runtime::ExecuteOrThrow(std::span<unsigned char> command, Response& response) const {
    const int length = receiver.SendCommand(command.data(), static_cast<int>(command.size()));
    if (length < 0) {
        throw std::runtime_error("the receiver returned the length " + std::to_string(length));
    }
    const auto size = static_cast<std::size_t>(length);
    if (size <= maxFrame) {
        receiver.ReadResponse(response.Room(size).data(), length);
        return;
    }
    std::vector<unsigned char> dropped(kHeaderLength);
    receiver.ReadResponse(dropped.data(), static_cast<int>(dropped.size()));
    response.AnswerException(command, "quorvalen.host.ResponseTooLong",
                             "the response has " + std::to_string(size) + " bytes, at most " +
                                 std::to_string(maxFrame) + " are sent; the command was executed");
}

std::string Runtime::PythonVersion() const {
    std::vector<unsigned char> command = CallOf("platform.python_version");
    Response response;
    Execute(command, response);
    const nlohmann::json version = ValueOf(response.Frame());
    return version.is_string() ? version.get<std::string>() : "unknown";
}

void Runtime::FlushOutput() const {
    std::vector<unsigned char> command = CallOf("sys.stdout.flush");
    Response response;
    Execute(command, response);
}

}  // namespace Quorvalen::Companions::Network::Host
