#include "Runtimes/Python/Native/PythonNativeTransmitter.h"

namespace Quorvalen::Runtimes::Python::Native::Transmitter {

PythonNativeTransmitter::PythonNativeTransmitter(
    Quorvalen::Native::Definitions::RuntimeOperationMode mode)
    : NativeTransmitter(mode) {}

PythonNativeTransmitter::~PythonNativeTransmitter() = default;

}  // namespace Quorvalen::Runtimes::Python::Native::Transmitter
