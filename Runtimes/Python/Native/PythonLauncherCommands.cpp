// The execution of commands: the bytes go to a Python function in one call, the bytes that come
// back wait for the calling thread.
#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "Native/Definitions/CommandHeader.h"
#include "Native/QuorvalenNativeException/Messages.h"
#include "Runtimes/Python/Native/CommandTurns.h"
#include "Runtimes/Python/Native/InterpreterLock.h"
#include "Runtimes/Python/Native/KeptThreadStates.h"
#include "Runtimes/Python/Native/PythonLauncher.h"

using Quorvalen::Native::Definitions::RuntimeOperationMode;
namespace Definitions = Quorvalen::Native::Definitions;
namespace Messages = Quorvalen::Native::Messages;

namespace {

// By design: the byte is read without asking for the length.
bool IsHeartBeat(const unsigned char* message) {
    return message[Definitions::CommandHeader::kKind] == Definitions::kHeartBeat;
}

// The end of what was written last is still in the cache, and the beginning is when this is done,
// where the next copy begins.
void CopyFromTheEnd(unsigned char* to, const char* from, std::size_t length) {
    constexpr std::size_t kPart = 256 << 10;  // bytes; fits into a core's own cache
    for (; length > kPart; length -= kPart) {
        std::memcpy(to + length - kPart, from + length - kPart, kPart);
    }
    std::memcpy(to, from, length);
}

QuorvalenNativeException Failure(const std::string& message) {
    return QuorvalenNativeException(message, Messages::kUnknownRuntime);
}

}  // namespace

// Flattened: every command goes through here, and each call on its way that is left costs some of
// what it may cost over the calls of Python. Begins a page, so that its place in one does not
// change with the code around it: elsewhere in a page, the same instructions took up to 30 ns more
// for a command of 64 bytes to one build of CPython 3.11.
[[gnu::flatten, gnu::aligned(4096)]] int PythonLauncher::SendCommand(unsigned char* message,
                                                                     int length) {
    if (message == nullptr) RaiseFailure(CommandOutcome::ArgumentsNotBuilt, message);
    ThreadRecord& thread = ThreadRecord::OfThisThread();
    Response response;
    if (operationMode == RuntimeOperationMode::CallingRuntime) {
        AskCallback(message, length, thread, response);
    } else {
        const CommandOutcome outcome = RunCommand(message, length, thread, response);
        if (outcome != CommandOutcome::Answered) RaiseFailure(outcome, message);
    }
    const int size = static_cast<int>(response.size);
    thread.responses.Keep(Owner(), std::move(response));
    return size;
}

// By design: no lock is taken and the result is not released; the callback runs on its own terms.
void PythonLauncher::AskCallback(unsigned char* message, int length, ThreadRecord& thread,
                                 Response& response) {
    if (callback == nullptr) throw Failure(Messages::kNoCallback);
    PyObject* result = callback(message, length);
    if (result == nullptr) HandleException(Failure(Messages::kCallbackFailed));
    Copy(result, thread, response, {});
}

void PythonLauncher::RaiseFailure(CommandOutcome outcome, const unsigned char* message) {
    switch (outcome) {
        case CommandOutcome::NotRunning:
            HandleException(Failure(Messages::kRuntimeNotInitialized));
        case CommandOutcome::ArgumentsNotBuilt:
            HandleException(Failure(Messages::kArgumentsNotBuilt));
        case CommandOutcome::CallFailed:
            HandleException(Failure(Messages::kCommandFailed));
        case CommandOutcome::Answered:
        case CommandOutcome::WrongResult:
            break;
    }
    HandleException(Failure(
        Messages::ResultIsNoByteArray(IsHeartBeat(message) ? "heart_beat" : "send_command")));
}

// Failures are raised by the caller, once this call has left the interpreter.
PythonLauncher::CommandOutcome PythonLauncher::RunCommand(unsigned char* message, int length,
                                                          ThreadRecord& thread,
                                                          Response& response) {
    const InterpreterGate::Pass pass(gate, thread);
    if (!running.load(std::memory_order_acquire)) return CommandOutcome::NotRunning;
    const bool keepsStates = keepsThreadStates.load(std::memory_order_relaxed);
    if (keepsStates) {
        if (!KeptThreadStates::HasLastingState(thread)) KeptThreadStates::KeepOwn(python, thread);
        if (ThreadRecord::HaveEnded()) KeptThreadStates::GiveBackEnded(python);
    }
    // A command within a command must not wait for the outer one.
    const bool isInner = thread.callsInside.load(std::memory_order_relaxed) > 1;
    const CommandTurns::Turn turn(python, keepsStates && !isInner);
    int lockState = kLockWasNotHeld;
    const CommandOutcome outcome = CallReceiver(message, length, thread, response, lockState);
    if (outcome == CommandOutcome::Answered) GiveUpLockIfStillHeld(lockState);
    return outcome;
}

PythonLauncher::CommandOutcome PythonLauncher::CallReceiver(unsigned char* message, int length,
                                                            ThreadRecord& thread,
                                                            Response& response, int& lockState) {
    InterpreterLock lock(python);
    lockState = lock.State();
    PyObject* function = IsHeartBeat(message) ? heartBeat : sendCommand;
    CommandPlace place;
    PyObject* arguments = BuildArguments(message, length, place);
    if (arguments == nullptr) {
        ShowPythonError();
        return CommandOutcome::ArgumentsNotBuilt;
    }
    PyObject* result = python.PyObject_CallObject_Fn(function, arguments);
    python.Py_DecRef_Fn(arguments);
    if (result == nullptr) return FailCommand(lock);
    const OwnedReference owned(python, result);
    if (!IsByteArray(result)) return CommandOutcome::WrongResult;
    Copy(result, thread, response, place);
    return CommandOutcome::Answered;
}

PythonLauncher::CommandOutcome PythonLauncher::FailCommand(InterpreterLock& lock) {
    ShowPythonError();
    // An interpreter that is not ours, or that anybody else is in, stays as it is.
    if (!interpreterIsOurs) return CommandOutcome::CallFailed;
    const InterpreterGate::Closure closure(gate);
    if (closure.IsShut() && !OtherPythonThreadsAreAlive()) {
        // By design: the restart runs with the lock held and leaves none behind.
        lock.Dismiss();
        RestartInterpreter();
    }
    return CommandOutcome::CallFailed;
}

PyObject* PythonLauncher::BuildArguments(const unsigned char* message, int length,
                                         CommandPlace& place) {
    PyObject* bytes =
        python.PyBytes_FromStringAndSize_Fn(reinterpret_cast<const char*>(message), length);
    if (bytes == nullptr) return nullptr;
    place = {reinterpret_cast<std::uintptr_t>(bytes), static_cast<std::size_t>(length)};
    PyObject* arguments = python.PyTuple_Pack_Fn(1, bytes);
    python.Py_DecRef_Fn(bytes);
    return arguments;
}

bool PythonLauncher::IsByteArray(PyObject* object) {
    if (python.PyByteArray_Type == nullptr || python.PyObject_IsInstance_Fn == nullptr) return true;
    const int isInstance = python.PyObject_IsInstance_Fn(object, python.PyByteArray_Type);
    if (isInstance < 0) ShowPythonError();
    return isInstance > 0;
}

// A negative size becomes a length that no vector can have, and so the standard length error.
void PythonLauncher::Copy(PyObject* byteArray, ThreadRecord& thread, Response& response,
                          CommandPlace place) {
    const std::ptrdiff_t size = python.PyByteArray_Size_Fn(byteArray);
    const char* data = python.PyByteArray_AsString_Fn(byteArray);
    const auto length = static_cast<std::size_t>(size);
    if (size < 0) const std::vector<unsigned char> tooLong(length);
    response = thread.responses.Storage(Owner(), length, place);
    if (size > 0) CopyFromTheEnd(response.bytes.get(), data, length);
}

// By design: a thread that held the lock before its command loses it here. When the thread did not
// hold it, the lock has been given back, whatever the check says: once a subinterpreter exists, the
// check always answers yes.
void PythonLauncher::GiveUpLockIfStillHeld(int lockState) {
    if (python.PyGILState_Check_Fn() <= 0 || lockState == kLockWasNotHeld) return;
    void* threadState = python.PyEval_SaveThread_Fn();
    if (startLockHolder.load() == ThisThreadsNumber()) {
        startingThreadState = threadState;
        startLockHolder.store(kNoThread);
    }
}

int PythonLauncher::ReadResponse(unsigned char* buffer, int length) {
    PendingResponses& responses = ThreadRecord::OfThisThread().responses;
    PendingResponses::Entry* const entry = responses.PendingOf(Owner());
    if (entry == nullptr) HandleException(Failure(Messages::kNoPendingResponse));
    // Widened with its sign, a negative length asks for everything.
    const std::size_t count = std::min(entry->response.size, static_cast<std::size_t>(length));
    if (count > 0) std::memcpy(buffer, entry->response.bytes.get(), count);
    responses.Forget(*entry);
    return 0;
}

ResponseOwner PythonLauncher::Owner() const {
    return {launcherNumber, responseGeneration.load(std::memory_order_relaxed)};
}

// A thread of Python's own (a daemon, or any thread when the restart is not on the starting thread)
// would wake up in the next interpreter with a state of the last one, and crash; a subinterpreter
// cannot outlast its process's finalisation either. Beside this thread's state only the starting
// thread's may be there. REQUIRES: the interpreter lock.
bool PythonLauncher::OtherPythonThreadsAreAlive() {
    if (python.PyInterpreterState_Head_Fn == nullptr ||
        python.PyInterpreterState_Next_Fn == nullptr ||
        python.PyInterpreterState_ThreadHead_Fn == nullptr ||
        python.PyThreadState_Next_Fn == nullptr) {
        return false;
    }
    const int ours = startingThread == ThisThreadsNumber() ? 1 : 2;
    int alive = 0;
    for (void* interpreter = python.PyInterpreterState_Head_Fn(); interpreter != nullptr;
         interpreter = python.PyInterpreterState_Next_Fn(interpreter)) {
        for (void* thread = python.PyInterpreterState_ThreadHead_Fn(interpreter); thread != nullptr;
             thread = python.PyThreadState_Next_Fn(thread)) {
            ++alive;
        }
    }
    return alive > ours;
}

// Objects and modules of the failed interpreter are gone afterwards, for every thread.
// REQUIRES: the gate is shut and this thread holds the interpreter lock.
void PythonLauncher::RestartInterpreter() {
    Close();
    Start(static_cast<unsigned char>(requestedVersion));
}

// Those of all threads. Their storage stays with the threads, which nobody waits for here.
void PythonLauncher::DropPendingResponses() {
    responseGeneration.fetch_add(1, std::memory_order_relaxed);
}
