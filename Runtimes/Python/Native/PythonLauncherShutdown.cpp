// What the launcher tells about its runtime, how it hands its failures on, and how it shuts down.
#include <dlfcn.h>

#include <sstream>

#include "Native/QuorvalenNativeException/Messages.h"
#include "Runtimes/Python/Native/InterpreterLock.h"
#include "Runtimes/Python/Native/KeptThreadStates.h"
#include "Runtimes/Python/Native/PythonLauncher.h"

using Quorvalen::Native::Definitions::RuntimeOperationMode;
namespace Messages = Quorvalen::Native::Messages;

namespace {

// `threading` waits at shutdown for the thread that started the interpreter; on any other thread
// that would be for ever.
constexpr const char* kLetThreadingShutDownAtOnce =
    "import sys\n"
    "if 'threading' in sys.modules:\n"
    "    sys.modules['threading']._shutdown = lambda: None\n";

}  // namespace

// A restart on another thread closes the library under the functions used here, so this counts as a
// call inside the interpreter.
std::string PythonLauncher::GetRuntimeInfo() {
    const InterpreterGate::Pass pass(gate, ThreadRecord::OfThisThread());
    const std::string managed = GetRuntimeInfoFromManagedRuntime();
    return GetRuntimeInfoFromNativeLevel() + "\n" + managed;
}

std::string PythonLauncher::GetRuntimeInfoFromNativeLevel() {
    std::unique_lock<std::mutex> lock(libraryLock);
    const std::string path = pythonLibraryPath;
    const auto askVersion = python.Py_GetVersion_Fn;
    const auto askPlatform = python.Py_GetPlatform_Fn;
    lock.unlock();
    std::ostringstream info;
    info << "Python Native Launcher Runtime Info:\n";
    info << "Library Location: " << path << "\n";
    if (askVersion != nullptr && askPlatform != nullptr) {
        const char* version = askVersion();
        const char* platform = askPlatform();
        // By design: a null text puts the stream into its failed state, which ends the text.
        info << "Runtime Version: " << version << "\n";
        info << "Runtime Platform: " << platform << "\n";
    }
    return info.str();
}

std::string PythonLauncher::GetRuntimeInfoFromManagedRuntime() {
    if (!MayAskManagedRuntime()) return "";
    std::string info;
    const ManagedAnswer answer = AskManagedRuntime(info);
    if (answer.complete) GiveUpLockIfStillHeld(answer.lockState);
    return info;
}

// Asking would wait for ever when a failed start left the lock with another thread.
bool PythonLauncher::MayAskManagedRuntime() const {
    const std::uint64_t holder = startLockHolder.load();
    if (!receiverClassBound.load()) return false;
    if (holder == ThisThreadsNumber()) return true;
    return running.load() && holder == kNoThread;
}

PythonLauncher::ManagedAnswer PythonLauncher::AskManagedRuntime(std::string& info) {
    const InterpreterLock lock(python);
    try {
        PyObject* function = python.PyObject_GetAttrString_Fn(receiverClass, "get_runtime_info");
        if (function == nullptr) {
            ShowPythonError();
            return {false, lock.State()};
        }
        if (python.PyCallable_Check_Fn(function) == 0) {
            python.Py_DecRef_Fn(function);
            return {false, lock.State()};
        }
        PyObject* value = python.PyObject_CallObject_Fn(function, nullptr);
        python.Py_DecRef_Fn(function);
        if (value == nullptr) {
            ShowPythonError();
            return {false, lock.State()};
        }
        const OwnedReference owned(python, value);
        info = TextOf(value);
    } catch (const std::exception&) {
        info.clear();
    }
    return {true, lock.State()};
}

// What is no valid text leaves a Python error pending, which would fail this thread's next command.
std::string PythonLauncher::TextOf(PyObject* value) {
    const char* text = python.PyUnicode_AsUTF8_Fn(value);
    if (text != nullptr) return text;
    ShowPythonError();
    return "";
}

void PythonLauncher::HandleException(QuorvalenNativeException failure) {
    const std::string message = failure.what();
    throw QuorvalenNativeException(message + "\nRUNTIME INFO:\n" + GetRuntimeInfo(),
                                   Messages::kUnknownRuntime);
}

PyObject* PythonLauncher::InitializeExceptionHandler() {
    return python.PyObject_CallObject_Fn(exceptionHandlerInitializer, nullptr);
}

// Printing a pending SystemExit would end the host; it is reported as unraisable instead.
void PythonLauncher::ShowPythonError() {
    const bool canTell = python.PyErr_ExceptionMatches_Fn != nullptr &&
                         python.PyErr_WriteUnraisable_Fn != nullptr &&
                         python.PyExc_SystemExit != nullptr;
    if (canTell && python.PyErr_ExceptionMatches_Fn(*python.PyExc_SystemExit) != 0) {
        python.PyErr_WriteUnraisable_Fn(nullptr);
    } else {
        python.PyErr_Print_Fn();
    }
}

void PythonLauncher::Close() {
    if (operationMode != RuntimeOperationMode::CalledRuntime) return;
    running.store(false);
    receiverClassBound.store(false);
    if (interpreterInitialized) CloseInterpreter();
    DropPendingResponses();
    if (pythonLibrary == nullptr) return;
    dlclose(pythonLibrary);
    pythonLibrary = nullptr;
    const std::lock_guard<std::mutex> lock(libraryLock);
    python = PythonFunctions();
}

void PythonLauncher::CloseInterpreter() {
    const bool elsewhere = interpreterIsOurs && startingThread != ThisThreadsNumber();
    if (elsewhere) python.PyRun_SimpleString_Fn(kLetThreadingShutDownAtOnce);
    // By design: the exception handler initialiser is not among them.
    for (PyObject* kept :
         {sendCommand, heartBeat, receiverClass, moduleDictionary, module, moduleNameObject}) {
        python.Py_DecRef_Fn(kept);
    }
    if (elsewhere) BecomeStartingThread();
    if (interpreterIsOurs) {
        KeptThreadStates::ForgetAll();
        python.Py_Finalize_Fn();
    }
    if (interpreterIsOurs || livesUntilProcessEnds) KeepLibraryMapped();
    interpreterInitialized = false;
    interpreterIsOurs = false;
    startingThreadState = nullptr;
    startLockHolder.store(kNoThread);
}

// From 3.13 on, finalising on any other thread than the starting one frees the state that the
// thread is running on, so the thread puts on the starting thread's state first. Earlier versions
// need no such thing, and their debug builds end the process over it.
void PythonLauncher::BecomeStartingThread() {
    const bool needed = python.PyThreadState_GetUnchecked_Fn != nullptr;
    if (!needed || python.PyThreadState_Swap_Fn == nullptr || startingThreadState == nullptr)
        return;
    python.PyThreadState_Swap_Fn(startingThreadState);
}

PythonLauncher::~PythonLauncher() {
    if (!interpreterInitialized) {
        Close();
        return;
    }
    // Waiting for a lock that a failed start left with another thread would be for ever.
    const std::uint64_t holder = startLockHolder.load();
    if (holder != kNoThread && holder != ThisThreadsNumber()) return;
    const PythonFunctions bound = python;
    const bool finalised = interpreterIsOurs;
    const int lockState = bound.PyGILState_Ensure_Fn();
    Close();
    if (!finalised) bound.PyGILState_Release_Fn(lockState);
    // The interpreter goes on without the lock that a failed start kept.
    if (livesUntilProcessEnds && holder != kNoThread) bound.PyEval_SaveThread_Fn();
}
