// The receiver of the Python bridge: the generic receiver with a launcher that hosts CPython. One
// per process, created by the exported CreateReceiver and never destroyed.
#pragma once

#include "Native/Definitions/Export.h"
#include "Native/Definitions/RuntimeOperationMode.h"
#include "Native/Receiver/NativeReceiver.h"

namespace Quorvalen::Runtimes::Python::Native::Receiver {

class QUORVALEN_EXPORT PythonNativeReceiver : public Quorvalen::Native::Receiver::NativeReceiver {
  public:
    // Raises code 032 when the mode is not set. Does not start the interpreter.
    PythonNativeReceiver(Quorvalen::Native::Definitions::RuntimeOperationMode mode);
    ~PythonNativeReceiver() override;
};

}  // namespace Quorvalen::Runtimes::Python::Native::Receiver
