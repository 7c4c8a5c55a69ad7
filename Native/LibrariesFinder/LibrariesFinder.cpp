#include "Native/LibrariesFinder/LibrariesFinder.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <memory>

#include "Native/Console/Console.h"
#include "Native/QuorvalenNativeException/Messages.h"
#include "Native/QuorvalenNativeException/QuorvalenNativeException.h"
#include "Native/RuntimeNameHandler/RuntimeNameHandler.h"

// Defined by the entry points of the bridge that this file is linked into; its address tells which
// file that is.
void emptyFunctionInNativeLib();

namespace Quorvalen::Native::LibrariesFinder {
namespace {

constexpr const char* kUtilsLibrary = "libUtils.so";
constexpr const char* kConfigsLibrary = "libConfigs.so";
constexpr const char* kTcpClientLibrary = "libQuorvalenTcpClient.so";
constexpr const char* kTcpTlsClientLibrary = "libQuorvalenTcpTlsClient.so";

// Read once, directly after the call it belongs to: the loader keeps one text per thread.
std::string LoaderError() {
    const char* text = dlerror();
    return text == nullptr ? "" : text;
}

bool FileExists(const std::string& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0;
}

void* ReportLoadFailure(const std::string& message, bool throwOnError, bool printError) {
    if (throwOnError) throw QuorvalenNativeException(message, Messages::kUnknownRuntime);
    if (printError) Console::WriteErrorLine(message);
    return nullptr;
}

void* OpenLibrary(const std::string& path, int flags, bool throwOnError, bool printError) {
    std::string reason = Messages::kFileNotFound;
    if (FileExists(path)) {
        if (void* library = dlopen(path.c_str(), flags)) return library;
        reason = LoaderError();
    }
    return ReportLoadFailure(Messages::LibraryNotLoaded(path, reason), throwOnError, printError);
}

// `instance` is plain memory that other threads read too; the loader makes sure that all of them
// would store the same handle.
void* LoadOnce(void*& instance, const char* fileName, bool throwOnError, bool printError) {
    const std::atomic_ref<void*> shared(instance);
    if (void* library = shared.load(std::memory_order_acquire)) return library;
    void* library = LibrariesFinder::loadLibrary(LibrariesFinder::getPathToDir() + fileName,
                                                 throwOnError, printError);
    shared.store(library, std::memory_order_release);
    return library;
}

}  // namespace

void* LibrariesFinder::utilsLibraryInstance = nullptr;
void* LibrariesFinder::configsLibraryInstance = nullptr;
void* LibrariesFinder::tcpClientLibraryInstance = nullptr;
void* LibrariesFinder::tcpTlsClientLibraryInstance = nullptr;

std::string LibrariesFinder::getCurrentWorkingDirectory() {
    std::string directory = std::filesystem::current_path().string();
    std::replace(directory.begin(), directory.end(), '\\', '/');
    return directory + "/";
}

std::string LibrariesFinder::getThisLibraryPath() {
    Dl_info info = {};
    if (dladdr(reinterpret_cast<void*>(&emptyFunctionInNativeLib), &info) == 0) {
        throw QuorvalenNativeException(Messages::OwnPathUnknown(LoaderError()),
                                       Messages::kUnknownRuntime);
    }
    const std::string file = info.dli_fname;
    return file.substr(0, file.rfind('/')) + "/";
}

const std::string& LibrariesFinder::getPathToDir() {
    // Not computed in the static's initialisation: a failure is recorded, recording loads libraries
    // and so comes back here, and a recursive initialisation ends the process. Never freed: other
    // static objects may still load libraries while the process ends.
    static std::atomic<const std::string*> pathToDir = nullptr;
    if (const std::string* known = pathToDir.load(std::memory_order_acquire)) return *known;
    auto computed = std::make_unique<const std::string>(getThisLibraryPath());
    const std::string* first = nullptr;
    if (!pathToDir.compare_exchange_strong(first, computed.get())) return *first;
    return *computed.release();
}

std::string LibrariesFinder::getBinariesRootPath() {
    return getThisLibraryPath() + "../../../../";
}

const std::string& LibrariesFinder::getNativeDirectoryRelativePath() {
    static const std::string nativeDirectoryRelativePath =
        std::string("/Binaries/Native/") + "Linux" + "/" + "X64" + "/";
    return nativeDirectoryRelativePath;
}

void* LibrariesFinder::loadLibrary(std::string path, bool throwOnError, bool printError) {
    return OpenLibrary(path, RTLD_NOW, throwOnError, printError);
}

void* LibrariesFinder::loadLibraryDeepBind(std::string path, bool throwOnError, bool printError) {
    return OpenLibrary(path, RTLD_NOW | RTLD_DEEPBIND, throwOnError, printError);
}

void* LibrariesFinder::loadUtilsLibrary(bool throwOnError) {
    return LoadOnce(utilsLibraryInstance, kUtilsLibrary, throwOnError, false);
}

void* LibrariesFinder::loadConfigsLibrary(bool throwOnError) {
    return LoadOnce(configsLibraryInstance, kConfigsLibrary, throwOnError, false);
}

void* LibrariesFinder::loadTcpClientLibrary(bool throwOnError) {
    return LoadOnce(tcpClientLibraryInstance, kTcpClientLibrary, throwOnError, true);
}

// By design: a caller that asks for an exception never reaches the second place, and the second
// path holds a doubled separator.
void* LibrariesFinder::loadTcpTlsClientLibrary(bool throwOnError) {
    if (void* library =
            LoadOnce(tcpTlsClientLibraryInstance, kTcpTlsClientLibrary, throwOnError, true)) {
        return library;
    }
    const std::string secondPlace = std::string("/openssl3/") + kTcpTlsClientLibrary;
    return LoadOnce(tcpTlsClientLibraryInstance, secondPlace.c_str(), throwOnError, true);
}

std::string LibrariesFinder::getRuntimeLibraryPath(int runtime) {
    return getThisLibraryPath() +
           RuntimeNameHandler::RuntimeNameHandler::getRuntimeLibraryName(runtime);
}

}  // namespace Quorvalen::Native::LibrariesFinder
