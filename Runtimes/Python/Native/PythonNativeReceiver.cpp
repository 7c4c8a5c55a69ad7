#include "Runtimes/Python/Native/PythonNativeReceiver.h"

#include "Native/QuorvalenNativeException/Messages.h"
#include "Native/QuorvalenNativeException/QuorvalenNativeException.h"
#include "Runtimes/Python/Native/PythonLauncher.h"

namespace Quorvalen::Runtimes::Python::Native::Receiver {

using Quorvalen::Native::Definitions::RuntimeOperationMode;
namespace Messages = Quorvalen::Native::Messages;

PythonNativeReceiver::PythonNativeReceiver(RuntimeOperationMode mode) : NativeReceiver(mode) {
    if (mode == RuntimeOperationMode::NotSet) {
        throw QuorvalenNativeException(Messages::kPythonReceiverModeNotSet,
                                       Messages::kUnknownRuntime);
    }
    launcher = std::make_unique<PythonLauncher>(mode);
}

PythonNativeReceiver::~PythonNativeReceiver() = default;

}  // namespace Quorvalen::Runtimes::Python::Native::Receiver
