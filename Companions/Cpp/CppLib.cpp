#include "CppLib.h"

#include <atomic>
#include <exception>
#include <mutex>
#include <string>

#include "CppNativeReceiver.h"
#include "CppNativeTransmitter.h"
#include "Native/QuorvalenNativeException/Messages.h"
#include "Native/QuorvalenNativeException/QuorvalenNativeException.h"

using Quorvalen::Native::Definitions::RuntimeOperationMode;
using Quorvalen::Native::Interfaces::IReceiver;
using Quorvalen::Native::Interfaces::ITransmitter;

namespace {

constexpr int kSendCommandFailed = -2;
constexpr int kReadResponseFailed = -3;

std::mutex creation;
std::atomic<IReceiver*> receiver = nullptr;
std::atomic<ITransmitter*> transmitter = nullptr;

thread_local std::string errorMessage = "Undefined error";

// The pointer is published once the object is complete.
template <typename Object, typename Interface>
Interface* GetOrCreate(std::atomic<Interface*>& singleton, RuntimeOperationMode mode) {
    if (Interface* existing = singleton) return existing;
    const std::lock_guard<std::mutex> lock(creation);
    if (singleton == nullptr) singleton = new Object(mode);
    return singleton;
}

// The boundary where exceptions end: the text is kept, the caller gets `failureStatus`.
template <typename Operation>
int StatusOf(int failureStatus, Operation operation) {
    try {
        return operation();
    } catch (const std::exception& failure) {
        errorMessage = failure.what();
        return failureStatus;
    }
}

}  // namespace

IReceiver* CreateReceiver(RuntimeOperationMode mode) {
    return GetOrCreate<Quorvalen::CppBridge::CppNativeReceiver>(receiver, mode);
}

ITransmitter* CreateTransmitter(RuntimeOperationMode mode) {
    return GetOrCreate<Quorvalen::CppBridge::CppNativeTransmitter>(transmitter, mode);
}

IReceiver* GetReceiver() {
    return receiver;
}

ITransmitter* GetTransmitter() {
    return transmitter;
}

int SendCommand(unsigned char* message, int length) {
    return StatusOf(kSendCommandFailed, [&] {
        return CreateTransmitter(RuntimeOperationMode::CallingRuntime)
            ->SendCommand(message, length);
    });
}

int ReadResponse(unsigned char* buffer, int length) {
    return StatusOf(kReadResponseFailed, [&] {
        return CreateTransmitter(RuntimeOperationMode::CallingRuntime)
            ->ReadResponse(buffer, length);
    });
}

const char* GetNativeError() {
    return errorMessage.c_str();
}

void emptyFunctionInNativeLib() {}
