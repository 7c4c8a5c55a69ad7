#include "Benchmarks/HostedPython.h"

#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "Benchmarks/Library.h"

using Quorvalen::Native::Interfaces::IReceiver;

namespace Benchmarks {

namespace {

PyObject* Checked(PyObject* object) {
    if (object == nullptr) throw std::runtime_error("a call into Python failed");
    return object;
}

IReceiver* StartReceiver(const std::string& bridge) {
    constexpr int kCalledRuntimeMode = 1;
    constexpr unsigned char kAnyVersion = 0;
    const auto create = LookUp<IReceiver* (*)(int)>(OpenLibrary(bridge), "CreateReceiver");
    IReceiver* receiver = create(kCalledRuntimeMode);
    receiver->Initialize(kCpp, kPython, kAnyVersion);
    return receiver;
}

}  // namespace

std::string PythonLibrary() {
    const char* library = std::getenv("QUORVALEN_PYTHON_RUNTIME_PATH");
    if (library == nullptr) throw std::runtime_error("QUORVALEN_PYTHON_RUNTIME_PATH is not set");
    return library;
}

PyObject* FindSendCommand(const PythonFunctions& python) {
    PyObject* name =
        Checked(python.PyUnicode_DecodeFSDefault_Fn("quorvalen.core.receiver.Receiver"));
    PyObject* module = Checked(python.PyImport_Import_Fn(name));
    PyObject* receiver = Checked(python.PyObject_GetAttrString_Fn(module, "Receiver"));
    PyObject* function = Checked(python.PyObject_GetAttrString_Fn(receiver, "send_command"));
    for (PyObject* object : {name, module, receiver}) python.Py_DecRef_Fn(object);
    return function;
}

// The bridge asks for the lock's state after each command too.
void CallByHand(const PythonFunctions& python, PyObject* function, Exchange& exchange) {
    const int lockState = python.PyGILState_Ensure_Fn();
    PyObject* bytes = python.PyBytes_FromStringAndSize_Fn(
        reinterpret_cast<const char*>(exchange.command.data()), exchange.Length());
    PyObject* arguments = python.PyTuple_Pack_Fn(1, bytes);
    python.Py_DecRef_Fn(bytes);
    PyObject* result = Checked(python.PyObject_CallObject_Fn(function, arguments));
    python.Py_DecRef_Fn(arguments);
    const auto size = static_cast<std::size_t>(python.PyByteArray_Size_Fn(result));
    std::memcpy(exchange.response.data(), python.PyByteArray_AsString_Fn(result), size);
    python.Py_DecRef_Fn(result);
    python.PyGILState_Release_Fn(lockState);
    python.PyGILState_Check_Fn();
}

HostedPython::HostedPython(const std::string& bridge)
    : receiver(StartReceiver(bridge)),
      python(PythonFunctions::BoundTo(OpenLibrary(PythonLibrary(), RTLD_LAZY | RTLD_GLOBAL))) {
    if (!python.IsComplete()) throw std::runtime_error(PythonLibrary() + " lacks functions");
    const int lockState = python.PyGILState_Ensure_Fn();
    sendCommand = FindSendCommand(python);
    python.PyGILState_Release_Fn(lockState);
}

void HostedPython::OpenPybind(const std::string& library) {
    pybindRoundTrip = LookUp<PybindRoundTrip>(OpenLibrary(library), "PybindRoundTrip");
    Exchange exchange(64, kPython);
    AskPybind(exchange);
}

void HostedPython::AskBridge(Exchange& exchange) const {
    const int length = receiver->SendCommand(exchange.command.data(), exchange.Length());
    if (length != exchange.Length()) throw std::runtime_error("a response of another length");
    receiver->ReadResponse(exchange.response.data(), length);
}

void HostedPython::AskByHand(Exchange& exchange) const {
    CallByHand(python, sendCommand, exchange);
}

void HostedPython::AskPybind(Exchange& exchange) const {
    pybindRoundTrip(sendCommand, reinterpret_cast<const char*>(exchange.command.data()),
                    exchange.Length(), reinterpret_cast<char*>(exchange.response.data()));
}

}  // namespace Benchmarks
