#include "Tests/Runtimes/Python/PythonLauncherFixture.h"

#include <map>
#include <mutex>

namespace {

struct Actions {
    std::mutex lock;
    std::map<std::string, std::function<void()>> byCall;
};

// Never destroyed: calls are recorded while the process ends.
Actions& PendingActions() {
    static Actions* actions = new Actions;
    return *actions;
}

void RunPendingAction(const std::string& call) {
    std::function<void()> action;
    {
        const std::lock_guard<std::mutex> guard(PendingActions().lock);
        const auto found = PendingActions().byCall.find(call);
        if (found == PendingActions().byCall.end()) return;
        action = found->second;
        PendingActions().byCall.erase(found);
    }
    action();
}

bool IsOfPython(const std::string& call) {
    return call.rfind("Py", 0) == 0 || call.rfind("dlclose(libpython", 0) == 0;
}

Calls ManagedInfoCalls(int lockState) {
    return {"PyGILState_Ensure() = " + std::to_string(lockState),
            "PyObject_GetAttrString(Receiver, \"get_runtime_info\")",
            "PyCallable_Check(get_runtime_info)",
            "PyObject_CallObject(get_runtime_info, null)",
            "Py_DecRef(get_runtime_info)",
            "PyUnicode_AsUTF8(info)",
            "Py_DecRef(info)",
            "PyGILState_Release(" + std::to_string(lockState) + ")"};
}

const char* kInfoHeading = "\nRUNTIME INFO:\nPython Native Launcher Runtime Info:\n";

}  // namespace

Calls Joined(const std::vector<Calls>& parts) {
    Calls all;
    for (const Calls& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

std::string PythonCalls() {
    Calls calls;
    for (const std::string& call : Fakes::Trace()) {
        if (IsOfPython(call)) calls.push_back(call);
    }
    return Lines(calls);
}

Calls StartCalls(const Layout& layout, int lockState) {
    const std::string directory = layout.NativePrefix() + "../../../../Binaries/Python";
    const std::string state = std::to_string(lockState);
    Calls calls = {
        "Py_Initialize()",
        "Py_IsInitialized()",
        "PyGILState_Ensure() = " + state,
        "PyRun_SimpleString(\"import sys; sys.path.insert(0, '" + directory + "')\")",
        "PyUnicode_DecodeFSDefault(\"quorvalen.core.receiver.Receiver\")",
        "PyImport_Import(module name)",
        "PyModule_GetDict(module)",
        "PyDict_GetItemString(dictionary, \"Receiver\")",
        "PyCallable_Check(Receiver)",
        "PyObject_GetAttrString(Receiver, \"heart_beat\")",
        "PyCallable_Check(heart_beat)",
        "PyObject_GetAttrString(Receiver, \"send_command\")",
        "PyCallable_Check(send_command)",
        "PyObject_GetAttrString(Receiver, \"initialize_exception_handler\")",
        "PyCallable_Check(initialize_exception_handler)",
        "PyObject_CallObject(initialize_exception_handler, null)",
        "PyGILState_Release(" + state + ")",
    };
    // When the thread had to ask for the lock, giving the state back gives the lock back.
    if (lockState == 0) calls.push_back("PyEval_SaveThread()");
    return calls;
}

Calls StartCallsWithOptional(const Layout& layout) {
    Calls calls;
    for (const std::string& call : StartCalls(layout)) {
        calls.push_back(call);
        if (call == "Py_Initialize()") calls.push_back("PyEval_InitThreads()");
        if (call == "PyModule_GetDict(module)") calls.push_back("Py_IncRef(dictionary)");
        if (call == "PyDict_GetItemString(dictionary, \"Receiver\")") {
            calls.push_back("Py_IncRef(Receiver)");
        }
    }
    return calls;
}

Calls CommandCallsUntilResult(const Bytes& command, const std::string& function) {
    return {"PyGILState_Ensure() = 1",
            "PyBytes_FromStringAndSize(" +
                Fakes::ShowBytes(command.data(), static_cast<int>(command.size())) + ")",
            "PyTuple_Pack(1)",
            "Py_DecRef(bytes)",
            "PyObject_CallObject(" + function + ", arguments)",
            "Py_DecRef(arguments)"};
}

Calls CommandCalls(const Bytes& command, const std::string& function) {
    return Joined({CommandCallsUntilResult(command, function),
                   {"PyByteArray_Size(result)", "PyByteArray_AsString(result)", "Py_DecRef(result)",
                    "PyGILState_Release(1)", "PyGILState_Check() = 0"}});
}

Calls FailedCommandCalls(const Bytes& command) {
    return Joined({CommandCallsUntilResult(command), {"PyErr_Print()", "PyGILState_Release(1)"}});
}

Calls CloseCallsElsewhere() {
    return Joined({{"PyRun_SimpleString(\"import sys\nif 'threading' in sys.modules:\n"
                    "    sys.modules['threading']._shutdown = lambda: None\n\")"},
                   CloseCalls()});
}

Calls CloseCalls() {
    return {"Py_DecRef(send_command)", "Py_DecRef(heart_beat)",    "Py_DecRef(Receiver)",
            "Py_DecRef(dictionary)",   "Py_DecRef(module)",        "Py_DecRef(module name)",
            "Py_Finalize()",           "dlclose(libpython3.14.so)"};
}

Calls InfoCalls() {
    return Joined({ManagedInfoCalls(1), {"PyGILState_Check() = 0"}, NativeInfoCalls()});
}

Calls InfoCallsOfLockHolder() {
    return Joined({ManagedInfoCalls(0),
                   {"PyGILState_Check() = 1", "PyEval_SaveThread()"},
                   NativeInfoCalls()});
}

Calls NativeInfoCalls() {
    return {"Py_GetVersion()", "Py_GetPlatform()"};
}

std::string WithInfo(const std::string& message, const std::string& managed) {
    return message + kInfoHeading + "Library Location: " + kPythonLibrary +
           "\nRuntime Version: 3.fake\nRuntime Platform: fake-linux\n\n" + managed;
}

std::string WithUnboundInfo(const std::string& message, const std::string& path) {
    return message + kInfoHeading + "Library Location: " + path + "\n\n";
}

Bytes Command(const std::string& text, unsigned char kind) {
    const unsigned char header[] = {5, 0, 0, 127, 0, 0, 1, 0x90, 0x1f, 6, kind};
    Bytes command;
    for (const unsigned char byte : header) command.push_back(byte);
    for (const char character : text) command.push_back(static_cast<unsigned char>(character));
    return command;
}

int Send(Launcher& launcher, Bytes command) {
    return launcher->SendCommand(command.data(), static_cast<int>(command.size()));
}

std::string Read(Launcher& launcher, int length) {
    Bytes buffer(static_cast<std::size_t>(length));
    EXPECT_EQ(0, launcher->ReadResponse(buffer.data(), length));
    return std::string(buffer.begin(), buffer.end());
}

std::string SendFailure(Launcher& launcher, const Bytes& command) {
    return FailureOf([&] { Send(launcher, command); });
}

std::string ReadFailure(Launcher& launcher) {
    unsigned char buffer[64];
    return FailureOf([&] { launcher->ReadResponse(buffer, sizeof buffer); });
}

void WithinNext(const std::string& call, std::function<void()> action) {
    const std::lock_guard<std::mutex> guard(PendingActions().lock);
    PendingActions().byCall[call] = std::move(action);
    Fakes::SetHook(RunPendingAction);
}

void OutsideTheInterpreter(const std::function<void()>& operation) {
    reinterpret_cast<void* (*)()>(dlsym(RTLD_DEFAULT, "PyEval_SaveThread"))();
    operation();
    reinterpret_cast<int (*)()>(dlsym(RTLD_DEFAULT, "PyGILState_Ensure"))();
}

bool HoldsInterpreterLock() {
    // The bridge opens the library for everybody.
    const auto check = reinterpret_cast<int (*)()>(dlsym(RTLD_DEFAULT, "PyGILState_Check"));
    EXPECT_NE(nullptr, check);
    return check != nullptr && check() != 0;
}
