// Times one start of Python, from opening the first library to the first response.
//
//   start bridge BRIDGE               through the bridge
//   start bare PYTHON_DIRECTORY       the same calls and imports by hand
//
// Prints the nanoseconds in the last line of standard output.
#include <chrono>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <string>

#include "Benchmarks/HostedPython.h"
#include "Benchmarks/Library.h"

using namespace Benchmarks;
using Quorvalen::Native::Interfaces::IReceiver;

namespace {

constexpr std::size_t kSize = 64;

void StartWithBridge(const std::string& bridge, Exchange& exchange) {
    IReceiver* receiver = LookUp<IReceiver* (*)(int)>(OpenLibrary(bridge), "CreateReceiver")(1);
    receiver->Initialize(kCpp, kPython, 0);
    const int length = receiver->SendCommand(exchange.command.data(), exchange.Length());
    receiver->ReadResponse(exchange.response.data(), length);
}

void StartBare(const std::string& directory, Exchange& exchange) {
    const auto python =
        PythonFunctions::BoundTo(OpenLibrary(PythonLibrary(), RTLD_LAZY | RTLD_GLOBAL));
    if (!python.IsComplete()) throw std::runtime_error(PythonLibrary() + " lacks functions");
    python.Py_Initialize_Fn();
    const std::string search = "import sys; sys.path.insert(0, '" + directory + "')";
    if (python.PyRun_SimpleString_Fn(search.c_str()) != 0) throw std::runtime_error(search);
    PyObject* function = FindSendCommand(python);
    python.PyEval_SaveThread_Fn();
    CallByHand(python, function, exchange);
}

}  // namespace

int main(int argc, char** argv) {
    using Clock = std::chrono::steady_clock;
    const std::map<std::string, void (*)(const std::string&, Exchange&)> ways = {
        {"bridge", StartWithBridge}, {"bare", StartBare}};
    const auto way = argc == 3 ? ways.find(argv[1]) : ways.end();
    if (way == ways.end()) {
        std::fprintf(stderr, "usage: start bridge BRIDGE | start bare PYTHON_DIRECTORY\n");
        return 2;
    }
    try {
        Exchange exchange(kSize, kPython);
        const auto begin = Clock::now();
        way->second(argv[2], exchange);
        const std::chrono::nanoseconds time = Clock::now() - begin;
        exchange.RequireEcho();
        std::printf("%lld\n", static_cast<long long>(time.count()));
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "start: %s\n", error.what());
        return 1;
    }
}
