#include "Tests/Support/Launcher.h"

#include <utility>

#include "Native/Definitions/RuntimeOperationMode.h"
#include "Tests/Support/DlopenShim.h"
#include "Tests/Support/Files.h"

using Quorvalen::Native::Definitions::RuntimeOperationMode;
using Quorvalen::Native::Interfaces::ILauncher;

void UsePython(Layout& layout, const std::string& fake) {
    const std::string file = "libpython3.14.so";
    layout.WithFake(fake, file);
    DlopenShim::Map(file, layout.NativePrefix() + file);
}

std::string PythonTrace() {
    std::string joined;
    for (const std::string& call : Fakes::Trace()) {
        if (call.rfind("Py", 0) == 0) joined += call + "\n";
    }
    return joined;
}

Launcher::Launcher(const Bridge& opened, int mode)
    : bridge(opened),
      launcher(static_cast<ILauncher*>(BridgeObject::Construct(
          opened,
          "PythonLauncher::PythonLauncher(Quorvalen::Native::Definitions::RuntimeOperationMode)",
          static_cast<RuntimeOperationMode>(mode)))) {}

Launcher::~Launcher() {
    Destroy();
}

void Launcher::Close() {
    bridge.Cpp<void(ILauncher*)>("PythonLauncher::Close()")(launcher);
}

std::string Launcher::NativeInfo() {
    return bridge.Cpp<std::string(ILauncher*)>("PythonLauncher::GetRuntimeInfoFromNativeLevel()")(
        launcher);
}

std::string Launcher::ManagedInfo() {
    return bridge.Cpp<std::string(ILauncher*)>(
        "PythonLauncher::GetRuntimeInfoFromManagedRuntime()")(launcher);
}

// Not by delete, which would free the memory under the class's size.
void Launcher::Destroy() {
    ILauncher* destroyed = std::exchange(launcher, nullptr);
    if (destroyed == nullptr) return;
    destroyed->~ILauncher();
    ::operator delete(static_cast<void*>(destroyed));
}
