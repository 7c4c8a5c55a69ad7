// The interpreter that the bridge has started in this process, and the ways to have its one
// function called: through the bridge, by hand, and through pybind11. Created on the thread that is
// to be the starting one, and never destroyed, as Python is not. The round trips may be called on
// any thread.
#pragma once

#include <string>

#include "Benchmarks/Exchange.h"
#include "Native/Interfaces/IReceiver.h"
#include "Runtimes/Python/Native/PythonFunctions.h"

namespace Benchmarks {

constexpr unsigned char kCpp = 8;
constexpr unsigned char kPython = 5;

// The Python library of this run; the bridge reads the same variable.
std::string PythonLibrary();

// `Receiver.send_command` of the receiver module, which is on the search path already. A new
// reference. REQUIRES: the interpreter lock.
PyObject* FindSendCommand(const PythonFunctions& python);

// What the calls of a command cost when they are written by hand, and the response is copied
// straight to where it is wanted.
void CallByHand(const PythonFunctions& python, PyObject* function, Exchange& exchange);

class HostedPython {
  public:
    // Opens the bridge, starts Python with it and opens the same Python library a second time.
    explicit HostedPython(const std::string& bridge);

    // Opens the caller that was compiled with pybind11 against this Python, and calls it once:
    // pybind11 remembers the Python state of the first thread that calls it. REQUIRES: the starting
    // thread, whose state stays.
    void OpenPybind(const std::string& library);

    void AskBridge(Exchange& exchange) const;
    void AskByHand(Exchange& exchange) const;
    void AskPybind(Exchange& exchange) const;

  private:
    using PybindRoundTrip = long (*)(void* function, const char* bytes, long length, char* buffer);

    Quorvalen::Native::Interfaces::IReceiver* receiver = nullptr;
    PythonFunctions python;
    PyObject* sendCommand = nullptr;
    PybindRoundTrip pybindRoundTrip = nullptr;
};

}  // namespace Benchmarks
