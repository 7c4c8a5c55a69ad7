#include "CppNativeReceiver.h"

#include "CppLauncher.h"

namespace Quorvalen::CppBridge {

CppNativeReceiver::CppNativeReceiver(Quorvalen::Native::Definitions::RuntimeOperationMode mode)
    : NativeReceiver(mode) {
    launcher = std::make_unique<CppLauncher>(mode);
}

}  // namespace Quorvalen::CppBridge
