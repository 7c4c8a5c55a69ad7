// Hosts the CPython interpreter inside the process: finds and opens a Python library, starts the
// interpreter, imports the receiver module and hands commands to it. Created by the Python
// receiver, which owns it; in practice it lives until the process ends.
//
// Threads: Start runs one call at a time. Commands, responses and runtime information may be asked
// for on any thread. Close and the destructor must not run while other threads execute commands;
// the restart after a failed command sees to that by itself. While QUORVALEN_PYTHON_LIFETIME asks
// for it, the interpreter lives until the process ends: nothing restarts or finalises it, and the
// threads that send commands keep their Python thread states.
//
// The work is spread over four sources: PythonLauncher.cpp starts, PythonLauncherSearch.cpp finds
// the library, PythonLauncherCommands.cpp executes, PythonLauncherShutdown.cpp informs and closes.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "Native/Definitions/Export.h"
#include "Native/Definitions/PythonVersion.h"
#include "Native/Definitions/RuntimeOperationMode.h"
#include "Native/Launcher/NativeLauncher.h"
#include "Native/QuorvalenNativeException/QuorvalenNativeException.h"
#include "Runtimes/Python/Native/InterpreterGate.h"
#include "Runtimes/Python/Native/PythonFunctions.h"
#include "Runtimes/Python/Native/ThreadNumber.h"
#include "Runtimes/Python/Native/ThreadRecord.h"

class InterpreterLock;

class QUORVALEN_EXPORT PythonLauncher : public Quorvalen::Native::Launcher::NativeLauncher {
  public:
    // Starts nothing.
    PythonLauncher(Quorvalen::Native::Definitions::RuntimeOperationMode mode);

    // Takes the interpreter lock and closes. An exception here ends the process.
    ~PythonLauncher() override;

    // Start(version).
    int Initialize(unsigned char version) override;

    // Executes a command in the interpreter, or in mode 0 through the registered callback, and
    // keeps the response for the calling thread. `message` stays the caller's and has at least 11
    // bytes: byte 10 is read without asking for the length. Returns the response's length in bytes.
    int SendCommand(unsigned char* message, int length) override;

    // Copies the calling thread's response, at most `length` bytes of it (all of it when `length`
    // is negative), and forgets it. Returns 0; raises code 020 when there is none.
    int ReadResponse(unsigned char* buffer, int length) override;

    // Does nothing and returns 1 (true).
    int LoadOptimizedMethod(std::string method) override;

    // The directory to look for `version` in, a plain prefix: it ends in "/". Returns 0.
    int SetPath(unsigned char version, std::string path) override;

    // Does nothing and returns 0.
    int DeployRuntime(unsigned char* message, int length, std::string path,
                      unsigned char flag) override;

    std::string GetRuntimeName() override;

    // Where the library came from, its version, and what the Python side says about itself.
    std::string GetRuntimeInfo() override;

    // Opens the library, binds it and, in mode 1, starts the interpreter. Returns 0. What succeeded
    // before a failure stays done, the interpreter lock included: the same thread may try again.
    int Start(unsigned char version);

    // Releases the Python objects, finalises the interpreter, drops all pending responses and
    // closes the library; does nothing in another mode than 1 or when nothing was started.
    // REQUIRES: the calling thread holds the interpreter lock.
    void Close();

    // Looks for a Python library in the configuration, the environment and by version. Returns 0 or
    // raises code 006.
    int loadSharedLibraryForSpecificVersion();

    // Opens the library path. Returns true on failure.
    bool loadSharedLibraryInstance();

    std::string GetRuntimeInfoFromNativeLevel();

    // Empty on any failure and while no receiver class is bound.
    std::string GetRuntimeInfoFromManagedRuntime();

    // Raises a new exception: the text of `failure` with the runtime information appended.
    [[noreturn]] void HandleException(QuorvalenNativeException failure);

    // Calls "initialize_exception_handler" and returns its result unchecked; the reference is the
    // caller's. REQUIRES: the interpreter lock.
    PyObject* InitializeExceptionHandler();

  private:
    using PythonVersion = Quorvalen::Native::Definitions::PythonVersion;
    using CallbackFunction = PyObject* (*)(unsigned char*, int);

    enum class CommandOutcome { Answered, NotRunning, ArgumentsNotBuilt, CallFailed, WrongResult };

    // Start
    void RefuseStartWhileAnotherThreadHoldsTheLock();
    void OpenPythonLibrary();
    void BindPythonFunctions();
    void StartInterpreter();
    void ChooseLifetime();
    void InitializeInterpreter();
    void NoteWhoseInterpreterThisIs();
    int TakeInterpreterLockForStart();
    void AddToModuleSearchPath(const std::string& directory);
    void ImportReceiverClass();
    void BindReceiverFunctions();
    void Keep(PyObject*& field, PyObject* fetched, const char* failure);
    void KeepCallable(PyObject*& field, const char* attribute, const char* failure);
    void OwnBorrowed(PyObject* object);
    void ForgetKeptObjects();
    void FinishStart(int lockState);
    [[noreturn]] void FailStart(const std::string& message);

    // Search
    void SetLibraryPath(std::string path);
    template <typename Operation>
    void EmptyPathOnFailure(Operation operation);
    bool FindInConfiguration();
    bool FindInEnvironmentPath();
    bool FindInEnvironmentVersion();
    bool FindByVersion();

    // Commands
    [[gnu::noinline]] void AskCallback(unsigned char* message, int length, ThreadRecord& thread,
                                       Response& response);
    [[noreturn, gnu::cold, gnu::noinline]] void RaiseFailure(CommandOutcome outcome,
                                                             const unsigned char* message);
    CommandOutcome RunCommand(unsigned char* message, int length, ThreadRecord& thread,
                              Response& response);
    CommandOutcome CallReceiver(unsigned char* message, int length, ThreadRecord& thread,
                                Response& response, int& lockState);
    [[gnu::cold, gnu::noinline]] CommandOutcome FailCommand(InterpreterLock& lock);
    PyObject* BuildArguments(const unsigned char* message, int length, CommandPlace& place);
    bool IsByteArray(PyObject* object);
    void Copy(PyObject* byteArray, ThreadRecord& thread, Response& response, CommandPlace place);
    ResponseOwner Owner() const;
    bool OtherPythonThreadsAreAlive();
    void RestartInterpreter();
    void DropPendingResponses();
    void GiveUpLockIfStillHeld(int lockState);

    // Information and shutdown
    struct ManagedAnswer {
        bool complete;  // a value was returned, whatever it was
        int lockState;
    };
    bool MayAskManagedRuntime() const;
    ManagedAnswer AskManagedRuntime(std::string& info);
    std::string TextOf(PyObject* value);
    [[gnu::cold, gnu::noinline]] void ShowPythonError();
    void CloseInterpreter();
    void BecomeStartingThread();
    void KeepLibraryMapped();

    PythonVersion requestedVersion;
    std::map<PythonVersion, std::string> versionDirectories;
    void* pythonLibrary;
    std::string pythonLibraryPath;
    std::string moduleName;

    // Owned references, valid between Start and Close; stale after Close.
    PyObject* moduleNameObject;
    PyObject* module;
    PyObject* moduleDictionary;
    PyObject* receiverClass;
    PyObject* heartBeat;
    PyObject* sendCommand;
    PyObject* exceptionHandlerInitializer;

    CallbackFunction callback;
    PythonFunctions python;

    // The responses themselves wait in the records of their threads.
    const std::uint64_t launcherNumber;
    std::atomic<std::uint64_t> responseGeneration{0};
    std::mutex startLock;
    // Guards the writing of `pythonLibraryPath` and `python` against threads that ask for runtime
    // information meanwhile; never held while Python runs.
    std::mutex libraryLock;
    std::string runtimeName;

    // Commands may be handed to the interpreter.
    std::atomic<bool> running{false};
    // `receiverClass` is a live object.
    std::atomic<bool> receiverClassBound{false};
    // The thread that is starting, or that a failed start left holding the interpreter lock.
    std::atomic<std::uint64_t> startLockHolder{kNoThread};
    // There is an interpreter for Close to close.
    bool interpreterInitialized = false;
    // Chosen by the first start.
    bool lifetimeIsChosen = false;
    bool livesUntilProcessEnds = false;
    std::atomic<bool> keepsThreadStates{false};
    // False when somebody else had started the interpreter, or when it lives until the process
    // ends: it is not ours to finalise.
    bool interpreterIsOurs = false;
    // The starting thread was a Python thread of the host's before the start.
    bool hostRunsPython = false;
    std::uint64_t startingThread = kNoThread;
    void* startingThreadState = nullptr;  // the interpreter's; null while its thread holds the lock
    InterpreterGate gate;
};
