// The transmitter of the Python bridge: the generic transmitter under a name of its own. One per
// process, created by the exported entry points and never destroyed.
#pragma once

#include "Native/Definitions/Export.h"
#include "Native/Definitions/RuntimeOperationMode.h"
#include "Native/Transmitter/NativeTransmitter.h"

namespace Quorvalen::Runtimes::Python::Native::Transmitter {

class QUORVALEN_EXPORT PythonNativeTransmitter
    : public Quorvalen::Native::Transmitter::NativeTransmitter {
  public:
    PythonNativeTransmitter(Quorvalen::Native::Definitions::RuntimeOperationMode mode);
    ~PythonNativeTransmitter() override;
};

}  // namespace Quorvalen::Runtimes::Python::Native::Transmitter
