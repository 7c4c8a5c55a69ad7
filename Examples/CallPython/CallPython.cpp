// call-python: a host program in its smallest useful form. It opens the Python bridge with the
// dynamic loader, gets the receiver, initialises it and calls one Python function by name. Read
// Run() first.
//
// The eleven header bytes of a command belong to the bridge; the JSON text that follows them is
// agreed between this program and the Python package beside the bridge. All that a host needs to
// be built is the interface header.
#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "Examples/CallPython/CommandLine.h"
#include "Native/Interfaces/IReceiver.h"

namespace {

using Quorvalen::Native::Interfaces::IReceiver;
using Bytes = std::vector<unsigned char>;
using Json = nlohmann::json;

constexpr int kPythonRaised = 1;  // exit statuses
constexpr int kBridgeFailed = 2;

// The framework's numbers for the two runtimes, for "any version" and for hosting Python.
constexpr unsigned char kCpp = 8;
constexpr unsigned char kPython = 5;
constexpr unsigned char kAnyVersion = 0;
constexpr int kCalledRuntimeMode = 1;

// Positions in the header; what is not set is zero: in this process, at no network address.
constexpr std::size_t kTargetRuntime = 0;
constexpr std::size_t kCallingRuntime = 9;
constexpr std::size_t kKind = 10;
constexpr std::size_t kHeaderLength = 11;

constexpr unsigned char kCommand = 1;  // kinds
constexpr unsigned char kException = 10;

// --- The bridge ----------------------------------------------------------------------------------

void* Open(const std::string& path) {
    void* library = dlopen(path.c_str(), RTLD_NOW);
    if (library == nullptr) throw std::runtime_error(dlerror());
    return library;
}

template <typename Function>
Function LookUp(void* library, const char* name) {
    void* symbol = dlsym(library, name);
    if (symbol == nullptr) throw std::runtime_error(dlerror());
    return reinterpret_cast<Function>(symbol);
}

// The library is never closed and the receiver never destroyed: Python lives as long as the
// process.
IReceiver& OpenReceiver(const std::string& library) {
    auto createReceiver = LookUp<IReceiver* (*)(int)>(Open(library), "CreateReceiver");
    return *createReceiver(kCalledRuntimeMode);
}

// A refused configuration answers every question for a text with the reason.
std::string WhyConfigurationIsRefused(const std::string& library) {
    const auto configs = std::filesystem::path(library).replace_filename("libConfigs.so");
    auto getSource = LookUp<int (*)(char*, unsigned long)>(Open(configs), "GetConfigSource");
    std::string reason(8192, '\0');
    getSource(reason.data(), reason.size());
    return reason.c_str();
}

void Configure(IReceiver& receiver, const Options& options) {
    if (options.config.empty() || receiver.SetConfigSource(options.config) >= 0) return;
    throw std::runtime_error("the configuration is refused. " +
                             WhyConfigurationIsRefused(options.library));
}

// --- One command ---------------------------------------------------------------------------------

// An argument that is JSON goes on as it stands, so that no number is rounded on the way.
std::string AsJson(const std::string& argument) {
    return Json::accept(argument) ? argument : Json(argument).dump();
}

Bytes BuildCommand(const std::string& name, const std::vector<std::string>& arguments) {
    std::string body = R"({"operation":"call","name":)" + Json(name).dump() + R"(,"arguments":[)";
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        body += (i > 0 ? "," : "") + AsJson(arguments[i]);
    }
    body += "]}";
    Bytes command(kHeaderLength + body.size());
    command[kTargetRuntime] = kPython;
    command[kCallingRuntime] = kCpp;
    command[kKind] = kCommand;
    std::copy(body.begin(), body.end(), command.begin() + kHeaderLength);
    return command;
}

// The response waits for the thread that sent the command: read it on the same thread.
Bytes Ask(IReceiver& receiver, Bytes& command) {
    const int length = receiver.SendCommand(command.data(), static_cast<int>(command.size()));
    Bytes response(static_cast<std::size_t>(length));
    receiver.ReadResponse(response.data(), length);
    if (response.size() < kHeaderLength) throw std::runtime_error("the response has no header");
    return response;
}

bool IsException(const Bytes& response) {
    return response[kKind] == kException;
}

Json BodyOf(const Bytes& response) {
    return Json::parse(response.begin() + kHeaderLength, response.end());
}

// What Python printed may still be in Python's own buffer, which nobody empties at the end of the
// process.
void ShowWhatPythonPrinted(IReceiver& receiver) {
    Bytes flush = BuildCommand("sys.stdout.flush", {});
    Ask(receiver, flush);
}

// --- The program ---------------------------------------------------------------------------------

// One line for every tenth of the calls.
void ShowProgress(long long done, long long total) {
    if (done * 10 / total == (done - 1) * 10 / total) return;
    std::cerr << done << " of " << total << " calls\n";
}

void ShowSpeed(long long calls, double seconds) {
    std::cout << calls << " calls in " << seconds << " s, "
              << std::llround(static_cast<double>(calls) / seconds) << " calls per second\n";
}

Bytes AskRepeatedly(IReceiver& receiver, Bytes& command, long long times) {
    const auto start = std::chrono::steady_clock::now();
    Bytes response;
    for (long long done = 1; done <= times; ++done) {
        response = Ask(receiver, command);
        if (IsException(response)) return response;
        ShowProgress(done, times);
    }
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
    ShowSpeed(times, time.count());
    return response;
}

int Show(const Bytes& response) {
    const Json body = BodyOf(response);
    if (!IsException(response)) {
        std::cout << body.at("value") << '\n';
        return EXIT_SUCCESS;
    }
    std::cerr << body.at("traceback").get<std::string>();
    return kPythonRaised;
}

int Run(const Options& options) {
    IReceiver& receiver = OpenReceiver(options.library);
    Configure(receiver, options);
    receiver.Initialize(kCpp, kPython, kAnyVersion);

    Bytes command = BuildCommand(options.name, options.arguments);
    const Bytes response = options.repeat == 1 ? Ask(receiver, command)
                                               : AskRepeatedly(receiver, command, options.repeat);
    ShowWhatPythonPrinted(receiver);
    return Show(response);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        Options options;
        int status = 0;
        if (!ReadCommandLine(argc, argv, options, status)) return status;
        if (!options.runtime.empty()) {
            setenv("QUORVALEN_PYTHON_RUNTIME_PATH", options.runtime.c_str(), 1);
        }
        return Run(options);
    } catch (const std::exception& error) {
        std::cerr << "call-python: " << error.what() << '\n';
        return kBridgeFailed;
    }
}
