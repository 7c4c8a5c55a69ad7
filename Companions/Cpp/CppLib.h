// The C face of the bridge: what other bridges' in-memory channels, and hosts, look up by name.
//
// SendCommand and ReadResponse return -2 and -3 when something went wrong and keep the text for
// GetNativeError; the others let exceptions out. Any thread may call any of them.
#pragma once

#include "Native/Definitions/Export.h"
#include "Native/Definitions/RuntimeOperationMode.h"
#include "Native/Interfaces/IReceiver.h"
#include "Native/Interfaces/ITransmitter.h"

extern "C" {

// The process's one receiver or transmitter, created by the first call; the mode of later calls is
// ignored. The objects stay the library's and are never destroyed.
QUORVALEN_EXPORT Quorvalen::Native::Interfaces::IReceiver* CreateReceiver(
    Quorvalen::Native::Definitions::RuntimeOperationMode mode);
QUORVALEN_EXPORT Quorvalen::Native::Interfaces::ITransmitter* CreateTransmitter(
    Quorvalen::Native::Definitions::RuntimeOperationMode mode);

// The same without creating: null when there is none.
QUORVALEN_EXPORT Quorvalen::Native::Interfaces::IReceiver* GetReceiver();
QUORVALEN_EXPORT Quorvalen::Native::Interfaces::ITransmitter* GetTransmitter();

// Routes a command of `length` bytes, which stay the caller's, to another runtime. Returns the
// response's length in bytes.
QUORVALEN_EXPORT int SendCommand(unsigned char* message, int length);

// Copies at most `length` bytes of the response to this thread's last command into the caller's
// `buffer`. An in-memory response is found by the runtime id in the buffer's first byte.
QUORVALEN_EXPORT int ReadResponse(unsigned char* buffer, int length);

// The text of this thread's last failure. The memory is the library's and is valid until the
// thread's next failure, or its end.
QUORVALEN_EXPORT const char* GetNativeError();

}  // extern "C"

// Does nothing; its address tells the dynamic loader which file this library is.
void emptyFunctionInNativeLib();
