#include "CppLauncher.h"

#include <algorithm>
#include <utility>

#include "CommandExecution.h"
#include "Native/LibrariesFinder/LibrariesFinder.h"
#include "Native/QuorvalenNativeException/QuorvalenNativeException.h"

namespace Quorvalen::CppBridge {
namespace {

constexpr const char* kRuntimeName = "Cpp";
constexpr const char* kNoPendingResponse =
    "Cpp Launcher: No response is waiting on this thread. \nCall SendCommand before ReadResponse";

thread_local std::shared_ptr<const Bytes> pendingResponse;

}  // namespace

int CppLauncher::Initialize(unsigned char) {
    return 0;
}

int CppLauncher::SendCommand(unsigned char* message, int length) {
    const std::size_t size =
        message == nullptr || length < 0 ? 0 : static_cast<std::size_t>(length);
    auto response = Answer({message, size});
    const int responseLength = static_cast<int>(response->size());
    pendingResponse = std::move(response);
    return responseLength;
}

int CppLauncher::ReadResponse(unsigned char* buffer, int length) {
    const std::shared_ptr<const Bytes> response = std::exchange(pendingResponse, nullptr);
    if (response == nullptr) throw QuorvalenNativeException(kNoPendingResponse, kRuntimeName);
    const auto room = static_cast<std::size_t>(length);
    std::copy_n(response->begin(), std::min(response->size(), room), buffer);
    return 0;
}

int CppLauncher::LoadOptimizedMethod(std::string) {
    return 0;
}

int CppLauncher::SetPath(unsigned char, std::string) {
    return 0;
}

int CppLauncher::DeployRuntime(unsigned char*, int, std::string, unsigned char) {
    return 0;
}

std::string CppLauncher::GetRuntimeName() {
    return kRuntimeName;
}

std::string CppLauncher::GetRuntimeInfo() {
    using Quorvalen::Native::LibrariesFinder::LibrariesFinder;
    return "Cpp Native Launcher Runtime Info:\nLibrary Location: " +
           LibrariesFinder::getThisLibraryPath() + "\nCompiler Version: " + __VERSION__ + "\n";
}

}  // namespace Quorvalen::CppBridge
