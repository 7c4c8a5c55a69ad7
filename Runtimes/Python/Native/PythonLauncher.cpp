#include "Runtimes/Python/Native/PythonLauncher.h"

#include <sys/stat.h>

#include <cstdlib>
#include <utility>

#include "Native/Console/Console.h"
#include "Native/LibrariesFinder/LibrariesFinder.h"
#include "Native/QuorvalenNativeException/Messages.h"
#include "Runtimes/Python/Native/InterpreterLock.h"
#include "Runtimes/Python/Native/KeptThreadStates.h"
#include "Runtimes/Python/Native/PythonLib.h"

using Quorvalen::Native::Definitions::RuntimeOperationMode;
using Quorvalen::Native::LibrariesFinder::LibrariesFinder;
namespace Console = Quorvalen::Native::Console;
namespace Messages = Quorvalen::Native::Messages;

namespace {

constexpr int kPythonVersionCount = 10;
constexpr const char* kLifetimeVariable = "QUORVALEN_PYTHON_LIFETIME";
constexpr const char* kLifetimeOfProcess = "process";

QuorvalenNativeException Failure(const std::string& message) {
    return QuorvalenNativeException(message, Messages::kUnknownRuntime);
}

void RequireReceiverFile(const std::string& pythonDirectory) {
    const std::string file = pythonDirectory + "/quorvalen/core/receiver/Receiver.py";
    struct stat status = {};
    if (stat(file.c_str(), &status) != 0) throw Failure(Messages::ReceiverFileNotFound(file));
}

// Once in the life of the process, in one piece.
void ReportLifetime(const std::string& value) {
    static std::atomic_flag reported;
    if (reported.test_and_set()) return;
    Console::WriteErrorLine("QUORVALEN_PYTHON_LIFETIME is \"" + value +
                            "\" and ignored: the only value is \"" + kLifetimeOfProcess + "\"");
}

std::uint64_t NextLauncherNumber() {
    static std::atomic<std::uint64_t> last{0};
    return ++last;
}

}  // namespace

PythonLauncher::PythonLauncher(RuntimeOperationMode mode)
    : NativeLauncher(mode),
      requestedVersion(PythonVersion::Any),
      pythonLibrary(nullptr),
      moduleName("quorvalen.core.receiver.Receiver"),
      moduleNameObject(nullptr),
      module(nullptr),
      moduleDictionary(nullptr),
      receiverClass(nullptr),
      heartBeat(nullptr),
      sendCommand(nullptr),
      exceptionHandlerInitializer(nullptr),
      callback(nullptr),
      launcherNumber(NextLauncherNumber()),
      runtimeName("Python") {
    for (int version = 0; version < kPythonVersionCount; ++version) {
        versionDirectories[static_cast<PythonVersion>(version)] = "";
    }
}

int PythonLauncher::Initialize(unsigned char version) {
    return Start(version);
}

int PythonLauncher::LoadOptimizedMethod(std::string) {
    return 1;
}

int PythonLauncher::DeployRuntime(unsigned char*, int, std::string, unsigned char) {
    return 0;
}

std::string PythonLauncher::GetRuntimeName() {
    return runtimeName;
}

int PythonLauncher::Start(unsigned char version) {
    // Another thread's restart must not close the interpreter under this start, nor the other way
    // round; the restart's own start passes freely.
    const InterpreterGate::Pass pass(gate, ThreadRecord::OfThisThread());
    const std::lock_guard<std::mutex> lock(startLock);
    RefuseStartWhileAnotherThreadHoldsTheLock();
    requestedVersion = static_cast<PythonVersion>(version);
    OpenPythonLibrary();
    BindPythonFunctions();
    if (operationMode == RuntimeOperationMode::CalledRuntime) {
        StartInterpreter();
    } else if (operationMode == RuntimeOperationMode::CallingRuntime) {
        callback = reinterpret_cast<CallbackFunction>(getPythonCallbackFunction());
    }
    return 0;
}

// A failed start keeps the interpreter lock; a start on another thread would wait for it for ever.
void PythonLauncher::RefuseStartWhileAnotherThreadHoldsTheLock() {
    const std::uint64_t holder = startLockHolder.load();
    if (holder != kNoThread && holder != ThisThreadsNumber()) {
        throw Failure(Messages::kLockHeldByFailedStart);
    }
}

void PythonLauncher::OpenPythonLibrary() {
    if (loadSharedLibraryForSpecificVersion() != 0) {
        HandleException(Failure(Messages::kPythonNotOpened));
    }
}

// A repeated start finds the same functions and leaves them alone, because other threads may be
// calling through them.
void PythonLauncher::BindPythonFunctions() {
    const PythonFunctions bound = PythonFunctions::BoundTo(pythonLibrary);
    if (bound != python) {
        const std::lock_guard<std::mutex> lock(libraryLock);
        python = bound;
    }
    if (!python.IsComplete()) throw Failure(Messages::kPythonFunctionMissing);
}

void PythonLauncher::StartInterpreter() {
    const std::string pythonDirectory = LibrariesFinder::getBinariesRootPath() + "Binaries/Python";
    RequireReceiverFile(pythonDirectory);
    ChooseLifetime();
    InitializeInterpreter();
    const int lockState = TakeInterpreterLockForStart();
    AddToModuleSearchPath(pythonDirectory);
    ImportReceiverClass();
    BindReceiverFunctions();
    // By design: the result is not released. Without one a Python error is pending, which would
    // fail the next command.
    if (InitializeExceptionHandler() == nullptr) ShowPythonError();
    FinishStart(lockState);
}

// Later starts of the launcher, its restarts among them, keep to the choice.
void PythonLauncher::ChooseLifetime() {
    if (lifetimeIsChosen) return;
    lifetimeIsChosen = true;
    const char* value = std::getenv(kLifetimeVariable);
    if (value == nullptr) return;
    livesUntilProcessEnds = std::string(value) == kLifetimeOfProcess;
    keepsThreadStates.store(livesUntilProcessEnds && KeptThreadStates::ArePossible(python));
    if (!livesUntilProcessEnds) ReportLifetime(value);
}

void PythonLauncher::InitializeInterpreter() {
    if (!running) ForgetKeptObjects();
    NoteWhoseInterpreterThisIs();
    python.Py_Initialize_Fn();
    // Before 3.7 the interpreter has no lock to speak of until it is asked for one.
    if (python.PyEval_InitThreads_Fn != nullptr) python.PyEval_InitThreads_Fn();
    if (python.Py_IsInitialized_Fn() == 0) {
        HandleException(Failure(Messages::kRuntimeNotInitialized));
    }
    interpreterInitialized = true;
}

// A thread that has a Python state before we initialise anything is the host's own Python thread.
// It may even hold the interpreter lock, which else only the thread that initialised does.
void PythonLauncher::NoteWhoseInterpreterThisIs() {
    if (interpreterInitialized || python.PyGILState_GetThisThreadState_Fn == nullptr) return;
    hostRunsPython = python.PyGILState_GetThisThreadState_Fn() != nullptr;
}

// By design: a failure in the steps that follow leaves the lock with this thread.
int PythonLauncher::TakeInterpreterLockForStart() {
    const bool keptByFailedStart = startLockHolder.load() == ThisThreadsNumber();
    const int lockState = python.PyGILState_Ensure_Fn();
    startLockHolder.store(ThisThreadsNumber());
    // Only the thread that initialised the interpreter holds the lock without having asked for it.
    const bool initialised = lockState == kLockWasHeld && !keptByFailedStart && !hostRunsPython;
    if (initialised && livesUntilProcessEnds) {
        KeptThreadStates::NoteStartingThread(ThreadRecord::OfThisThread());
    } else if (initialised && !interpreterIsOurs) {
        interpreterIsOurs = true;
        startingThread = ThisThreadsNumber();
    }
    return lockState;
}

void PythonLauncher::AddToModuleSearchPath(const std::string& directory) {
    const std::string statement = "import sys; sys.path.insert(0, '" + directory + "')";
    if (python.PyRun_SimpleString_Fn(statement.c_str()) == -1) {
        FailStart(Messages::SearchPathNotExtended(directory));
    }
}

void PythonLauncher::ImportReceiverClass() {
    Keep(moduleNameObject, python.PyUnicode_DecodeFSDefault_Fn(moduleName.c_str()),
         Messages::kModuleNameNotDecoded);
    Keep(module, python.PyImport_Import_Fn(moduleNameObject), Messages::kModuleNotImported);
    Keep(moduleDictionary, python.PyModule_GetDict_Fn(module), Messages::kModuleWithoutDictionary);
    OwnBorrowed(moduleDictionary);
    Keep(receiverClass, python.PyDict_GetItemString_Fn(moduleDictionary, "Receiver"),
         Messages::kNoReceiverClass);
    OwnBorrowed(receiverClass);
    receiverClassBound.store(true);
    if (python.PyCallable_Check_Fn(receiverClass) == 0) {
        FailStart(Messages::kReceiverClassNotCallable);
    }
}

void PythonLauncher::BindReceiverFunctions() {
    KeepCallable(heartBeat, "heart_beat", Messages::kNoHeartBeat);
    KeepCallable(sendCommand, "send_command", Messages::kNoSendCommand);
    KeepCallable(exceptionHandlerInitializer, "initialize_exception_handler",
                 Messages::kNoExceptionHandlerInitializer);
}

// Stores what a step of the start fetched, or shows why Python could not give it and raises. A null
// never overwrites an object that commands of other threads may be using.
void PythonLauncher::Keep(PyObject*& field, PyObject* fetched, const char* failure) {
    if (fetched == nullptr) {
        ShowPythonError();
        FailStart(failure);
    }
    field = fetched;
}

void PythonLauncher::KeepCallable(PyObject*& field, const char* attribute, const char* failure) {
    Keep(field, python.PyObject_GetAttrString_Fn(receiverClass, attribute), failure);
    if (python.PyCallable_Check_Fn(field) == 0) FailStart(failure);
}

// Close releases these objects, so the borrowed ones need a reference of our own.
void PythonLauncher::OwnBorrowed(PyObject* object) {
    if (python.Py_IncRef_Fn != nullptr) python.Py_IncRef_Fn(object);
}

void PythonLauncher::ForgetKeptObjects() {
    receiverClassBound.store(false);
    for (PyObject** kept : {&moduleNameObject, &module, &moduleDictionary, &receiverClass,
                            &heartBeat, &sendCommand, &exceptionHandlerInitializer}) {
        *kept = nullptr;
    }
}

// When the interpreter was running already, giving the state back has given the lock back too, and
// there is no thread state left to save.
void PythonLauncher::FinishStart(int lockState) {
    startLockHolder.store(kNoThread);
    python.PyGILState_Release_Fn(lockState);
    if (lockState != kLockWasNotHeld) startingThreadState = python.PyEval_SaveThread_Fn();
    running.store(true);
}

// Commands of other threads would wait for the lock that stays with this one.
void PythonLauncher::FailStart(const std::string& message) {
    running.store(false);
    HandleException(Failure(message));
}
