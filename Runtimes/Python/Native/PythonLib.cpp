#include "Runtimes/Python/Native/PythonLib.h"

#include <atomic>
#include <cerrno>
#include <exception>
#include <mutex>
#include <system_error>

#include "Native/ConfigHandler/ConfigHandler.h"
#include "Native/Definitions/Runtime.h"
#include "Native/QuorvalenNativeException/Messages.h"
#include "Native/QuorvalenNativeException/QuorvalenNativeException.h"
#include "Native/RuntimeNameHandler/RuntimeNameHandler.h"
#include "Runtimes/Python/Native/PythonNativeReceiver.h"
#include "Runtimes/Python/Native/PythonNativeTransmitter.h"

using Quorvalen::Native::ConfigHandler::ConfigHandler;
using Quorvalen::Native::Definitions::Runtime;
using Quorvalen::Native::Definitions::RuntimeOperationMode;
using Quorvalen::Native::Interfaces::IReceiver;
using Quorvalen::Native::Interfaces::ITransmitter;
using Quorvalen::Native::RuntimeNameHandler::RuntimeNameHandler;
using Quorvalen::Runtimes::Python::Native::Receiver::PythonNativeReceiver;
using Quorvalen::Runtimes::Python::Native::Transmitter::PythonNativeTransmitter;
namespace Messages = Quorvalen::Native::Messages;

RuntimeOperationMode operationMode = RuntimeOperationMode::NotSet;
bool firstCall = true;
IReceiver* receiver = nullptr;
ITransmitter* transmitter = nullptr;
pthread_rwlock_t createReceiverMutex = PTHREAD_RWLOCK_INITIALIZER;
// By design: never taken. One lock orders the creation of both singletons.
pthread_rwlock_t createTransmitterMutex = PTHREAD_RWLOCK_INITIALIZER;
pthread_rwlock_t setOperationModeForTransmitterMutex = PTHREAD_RWLOCK_INITIALIZER;
std::string errorMessage = "Undefined error";
std::string runtimeName = RuntimeNameHandler::GetRuntimeName(static_cast<int>(Runtime::Python));
void* pythonFunction = nullptr;

namespace {

// The statuses by which the entry points report a caught failure.
constexpr int kSendCommandFailed = -2;
constexpr int kReadResponseFailed = -3;
constexpr int kSetEmbeddedRuntimeFailed = -4;
constexpr int kDeployRuntimeFailed = -5;

std::mutex errorMessageWriters;

class WriteLock {
  public:
    // By design: only a deadlock is reported; other results of the lock call are not looked at.
    explicit WriteLock(pthread_rwlock_t& taken) : lock(taken) {
        if (pthread_rwlock_wrlock(&lock) == EDEADLK) {
            throw std::system_error(EDEADLK, std::generic_category());
        }
    }
    ~WriteLock() { pthread_rwlock_unlock(&lock); }
    WriteLock(const WriteLock&) = delete;
    WriteLock& operator=(const WriteLock&) = delete;

  private:
    pthread_rwlock_t& lock;
};

bool ModeIsSet() {
    return std::atomic_ref(operationMode).load(std::memory_order_acquire) !=
           RuntimeOperationMode::NotSet;
}

// The first caller's mode holds for the life of the process. REQUIRES: a creation lock.
void ChooseMode(RuntimeOperationMode mode) {
    if (!ModeIsSet()) std::atomic_ref(operationMode).store(mode, std::memory_order_release);
}

// The pointer is published once the object is complete, for readers that take no lock.
// REQUIRES: a creation lock.
template <typename Object, typename Interface>
void CreateOnce(Interface*& singleton) {
    const std::atomic_ref<Interface*> published(singleton);
    if (published.load(std::memory_order_acquire) != nullptr) return;
    published.store(new Object(operationMode), std::memory_order_release);
}

template <typename Interface>
Interface* Published(Interface*& singleton) {
    return std::atomic_ref<Interface*>(singleton).load(std::memory_order_acquire);
}

// By design: both singletons are created under the receiver's lock.
template <typename Object, typename Interface>
Interface* GetOrCreate(Interface*& singleton, RuntimeOperationMode mode) {
    Interface* existing = Published(singleton);
    if (ModeIsSet() && existing != nullptr) return existing;
    const WriteLock lock(createReceiverMutex);
    ChooseMode(mode);
    CreateOnce<Object>(singleton);
    return Published(singleton);
}

void RememberFailure(const std::exception& failure) {
    const std::lock_guard<std::mutex> lock(errorMessageWriters);
    errorMessage = failure.what();
}

// The boundary where exceptions end: the text is kept, the caller gets `failureStatus`.
template <typename Operation>
int StatusOf(int failureStatus, Operation operation) {
    try {
        return operation();
    } catch (const std::exception& failure) {
        RememberFailure(failure);
        return failureStatus;
    }
}

ITransmitter& ExistingTransmitter() {
    ITransmitter* existing = Published(transmitter);
    if (existing == nullptr) {
        throw QuorvalenNativeException(Messages::kNoTransmitter, Messages::kUnknownRuntime);
    }
    return *existing;
}

unsigned char Byte(int value) {
    return static_cast<unsigned char>(value);
}

}  // namespace

IReceiver* CreateReceiver(RuntimeOperationMode mode) {
    return GetOrCreate<PythonNativeReceiver>(receiver, mode);
}

ITransmitter* CreateTransmitter(RuntimeOperationMode mode) {
    return GetOrCreate<PythonNativeTransmitter>(transmitter, mode);
}

IReceiver* GetReceiver() {
    return Published(receiver);
}

ITransmitter* GetTransmitter() {
    return Published(transmitter);
}

int SendCommand(unsigned char* message, int length) {
    return StatusOf(kSendCommandFailed, [&] {
        AtStartUp();
        return ExistingTransmitter().SendCommand(message, length);
    });
}

int ReadResponse(unsigned char* buffer, int length) {
    return StatusOf(kReadResponseFailed,
                    [&] { return ExistingTransmitter().ReadResponse(buffer, length); });
}

int SetEmbeddedRuntime(int callingRuntime, int targetRuntime, int version, const char* text) {
    return StatusOf(kSetEmbeddedRuntimeFailed, [&] {
        AtStartUp();
        return ExistingTransmitter().SetEmbeddedRuntime(Byte(callingRuntime), Byte(targetRuntime),
                                                        Byte(version), std::string(text));
    });
}

int DeployRuntime(unsigned char* message, int length, const char* text, int flag) {
    return StatusOf(kDeployRuntimeFailed, [&] {
        AtStartUp();
        return ExistingTransmitter().DeployRuntime(message, length, std::string(text), Byte(flag));
    });
}

int SetConfigSource(const char* source) {
    return SetConfigSource(std::string(source));
}

int SetWorkingDirectory(const char* path) {
    return SetWorkingDirectoryPath(std::string(path));
}

const char* GetNativeError() {
    return errorMessage.c_str();
}

int SetCallback(void* function) {
    std::atomic_ref(pythonFunction).store(function);
    return function == nullptr ? 1 : 0;
}

int SetConfigSource(std::string source) {
    return ConfigHandler::SetConfigSource(source);
}

int SetWorkingDirectoryPath(std::string path) {
    return ConfigHandler::SetWorkingDirectory(path);
}

// By design: guards the transmitter with another lock than CreateTransmitter does.
int SetOperationModeForTransmitter() {
    if (ModeIsSet() && Published(transmitter) != nullptr) return 0;
    const WriteLock lock(setOperationModeForTransmitterMutex);
    ChooseMode(RuntimeOperationMode::CallingRuntime);
    CreateOnce<PythonNativeTransmitter>(transmitter);
    return 0;
}

void AtStartUp() {
    if (!std::atomic_ref(firstCall).load(std::memory_order_acquire)) return;
    SetOperationModeForTransmitter();
    std::atomic_ref(firstCall).store(false, std::memory_order_release);
}

void* getPythonCallbackFunction() {
    return std::atomic_ref(pythonFunction).load();
}

void emptyFunctionInNativeLib() {}

// What the compiler decorates is reachable under its plain name too, for callers that look it up.
QUORVALEN_EXPORT void emptyFunctionUnderPlainName() __asm__("emptyFunctionInNativeLib")
    __attribute__((alias("_Z24emptyFunctionInNativeLibv")));
extern QUORVALEN_EXPORT std::string errorMessageUnderPlainName __asm__("errorMessage")
    __attribute__((alias("_Z12errorMessageB5cxx11")));
extern QUORVALEN_EXPORT std::string runtimeNameUnderPlainName __asm__("runtimeName")
    __attribute__((alias("_Z11runtimeNameB5cxx11")));
