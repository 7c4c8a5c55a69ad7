// The receiver of the C++ bridge: the generic receiver with a launcher that calls registered
// functions. One per process, created by the exported CreateReceiver and never destroyed.
#pragma once

#include "Native/Definitions/RuntimeOperationMode.h"
#include "Native/Receiver/NativeReceiver.h"

namespace Quorvalen::CppBridge {

class CppNativeReceiver : public Quorvalen::Native::Receiver::NativeReceiver {
  public:
    explicit CppNativeReceiver(Quorvalen::Native::Definitions::RuntimeOperationMode mode);
};

}  // namespace Quorvalen::CppBridge
