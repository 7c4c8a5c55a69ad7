// The library's outer face: the functions that hosts and other bridge libraries look up by name,
// and the process-wide variables behind them.
//
// The C functions return a negative status when something went wrong, each its own (-2 SendCommand,
// -3 ReadResponse, -4 SetEmbeddedRuntime, -5 DeployRuntime), and keep the text for GetNativeError.
// A negative result of another runtime is passed on unchanged. CreateReceiver, CreateTransmitter,
// SetConfigSource and SetWorkingDirectory let exceptions out instead.
//
// Any thread may call any of them. A SendCommand and the ReadResponse of its answer go through one
// current channel: callers keep the two together.
#pragma once

#include <pthread.h>

#include <string>

#include "Native/Definitions/Export.h"
#include "Native/Definitions/RuntimeOperationMode.h"
#include "Native/Interfaces/IReceiver.h"
#include "Native/Interfaces/ITransmitter.h"

extern "C" {

// The process's one receiver or transmitter, created by the first call. The first caller that
// creates anything chooses the process's mode; later modes are ignored. The objects stay the
// library's.
QUORVALEN_EXPORT Quorvalen::Native::Interfaces::IReceiver* CreateReceiver(
    Quorvalen::Native::Definitions::RuntimeOperationMode mode);
QUORVALEN_EXPORT Quorvalen::Native::Interfaces::ITransmitter* CreateTransmitter(
    Quorvalen::Native::Definitions::RuntimeOperationMode mode);

// The same without creating: null when there is none.
QUORVALEN_EXPORT Quorvalen::Native::Interfaces::IReceiver* GetReceiver();
QUORVALEN_EXPORT Quorvalen::Native::Interfaces::ITransmitter* GetTransmitter();

// Routes a command of `length` bytes, which stay the caller's. Returns the response's length.
QUORVALEN_EXPORT int SendCommand(unsigned char* message, int length);

// Copies at most `length` bytes of the response into the caller's `buffer`. An in-memory response
// is found by the runtime id in the buffer's first byte.
QUORVALEN_EXPORT int ReadResponse(unsigned char* buffer, int length);

// `text` is a NUL-terminated string that stays the caller's; the small integers are bytes.
QUORVALEN_EXPORT int SetEmbeddedRuntime(int callingRuntime, int targetRuntime, int version,
                                        const char* text);
QUORVALEN_EXPORT int DeployRuntime(unsigned char* message, int length, const char* text, int flag);

// Hand the configuration library its source and its working directory and return its result.
QUORVALEN_EXPORT int SetConfigSource(const char* source);
QUORVALEN_EXPORT int SetWorkingDirectory(const char* path);

// The text of the last failure that a status reported. The memory is the library's and is valid
// until the next failure.
QUORVALEN_EXPORT const char* GetNativeError();

// Registers the function through which mode 0 hands commands to Python: it takes the message and
// its length in bytes and returns a bytearray object. Null unregisters. Returns 1 for null, else 0.
QUORVALEN_EXPORT int SetCallback(void* function);

}  // extern "C"

// The same for callers that have a string already.
QUORVALEN_EXPORT int SetConfigSource(std::string source);
QUORVALEN_EXPORT int SetWorkingDirectoryPath(std::string path);

// Makes sure that a mode is chosen and that the transmitter exists. Always 0.
QUORVALEN_EXPORT int SetOperationModeForTransmitter();

// Does the above once in the life of the process.
QUORVALEN_EXPORT void AtStartUp();

QUORVALEN_EXPORT void* getPythonCallbackFunction();

// Does nothing; its address tells the dynamic loader which file this library is. Exported under
// this C++ name and under its plain name.
QUORVALEN_EXPORT void emptyFunctionInNativeLib();

// Written under the locks below by whoever creates first; read without a lock.
extern QUORVALEN_EXPORT Quorvalen::Native::Definitions::RuntimeOperationMode operationMode;
extern QUORVALEN_EXPORT bool firstCall;
// Never destroyed: other libraries hold the pointers until the process ends.
extern QUORVALEN_EXPORT Quorvalen::Native::Interfaces::IReceiver* receiver;
extern QUORVALEN_EXPORT Quorvalen::Native::Interfaces::ITransmitter* transmitter;

extern QUORVALEN_EXPORT pthread_rwlock_t createReceiverMutex;
extern QUORVALEN_EXPORT pthread_rwlock_t createTransmitterMutex;
extern QUORVALEN_EXPORT pthread_rwlock_t setOperationModeForTransmitterMutex;

// Writers take turns; readers of GetNativeError do not wait.
extern QUORVALEN_EXPORT std::string errorMessage;
extern QUORVALEN_EXPORT std::string runtimeName;
extern QUORVALEN_EXPORT void* pythonFunction;
