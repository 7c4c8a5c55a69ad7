// What every launcher has in common: the process's operation mode and whether the receiver has
// finished starting it. A receiver creates and destroys its launcher.
#pragma once

#include <string>

#include "Native/Definitions/Export.h"
#include "Native/Definitions/RuntimeOperationMode.h"
#include "Native/Interfaces/ILauncher.h"

namespace Quorvalen::Native::Launcher {

class QUORVALEN_EXPORT NativeLauncher : public Interfaces::ILauncher {
  public:
    NativeLauncher(Definitions::RuntimeOperationMode mode);
    ~NativeLauncher() override;

    bool IsInitialized() override;

    // There is no way back: a launcher that was started once counts as started.
    void SetInitialized() override;

    // Empty unless the runtime has something to say.
    std::string GetRuntimeInfo() override;

  protected:
    Definitions::RuntimeOperationMode operationMode;
    // Read and written through std::atomic_ref: a receiver asks for it on any thread.
    bool initialized;
};

}  // namespace Quorvalen::Native::Launcher
