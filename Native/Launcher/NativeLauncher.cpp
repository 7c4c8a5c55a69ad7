#include "Native/Launcher/NativeLauncher.h"

#include <atomic>

namespace Quorvalen::Native::Launcher {

NativeLauncher::NativeLauncher(Definitions::RuntimeOperationMode mode)
    : operationMode(mode), initialized(false) {}

NativeLauncher::~NativeLauncher() = default;

bool NativeLauncher::IsInitialized() {
    return std::atomic_ref(initialized).load(std::memory_order_acquire);
}

void NativeLauncher::SetInitialized() {
    std::atomic_ref(initialized).store(true, std::memory_order_release);
}

std::string NativeLauncher::GetRuntimeInfo() {
    return "";
}

}  // namespace Quorvalen::Native::Launcher
