#include "Native/ConfigHandler/ConfigHandler.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string_view>
#include <vector>

#include "Native/Definitions/SymbolLookup.h"
#include "Native/LibrariesFinder/LibrariesFinder.h"
#include "Native/QuorvalenNativeException/Messages.h"
#include "Native/QuorvalenNativeException/QuorvalenNativeException.h"

namespace Quorvalen::Native::ConfigHandler {
namespace {

using Setter = int (*)(const char*);
using StringGetter = int (*)(char*, unsigned long);
using ChannelStringGetter = int (*)(const char*, const char*, char*, unsigned long);
using IntGetter = int (*)();
using ChannelIntGetter = int (*)(const char*, const char*);

constexpr unsigned long kBufferSize = 8192;

constexpr int kDefaultLevel = 1;

struct LevelName {
    std::string_view name;
    int level;
};
constexpr std::array<LevelName, 3> kLevels = {{{"off", 0}, {"runtimeinfo", 1}, {"all", 2}}};

// Lower-cased as ASCII whatever the host's locale is, so that the words mean the same everywhere.
char ToLower(char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a')
                                                : character;
}

std::optional<int> LevelFromName(std::string name) {
    std::transform(name.begin(), name.end(), name.begin(), ToLower);
    for (const LevelName& known : kLevels) {
        if (name == known.name) return known.level;
    }
    return std::nullopt;
}

template <typename Function>
Function FindFunction(void* library, const char* name) {
    const auto function = Definitions::LookUpSymbol<Function>(library, name);
    if (function == nullptr) {
        throw QuorvalenNativeException(Messages::ConfigFunctionNotFound(name),
                                       Messages::kUnknownRuntime);
    }
    return function;
}

// `function` writes its result, or its error text when it answers a negative number, into a buffer
// of fixed size. The length it answers is trusted only as far as the buffer goes.
template <typename Function, typename... Arguments>
std::string CallConfigStringFunction(Function function, Arguments... arguments) {
    std::vector<char> buffer(kBufferSize, '\0');
    const int length = function(arguments..., buffer.data(), kBufferSize);
    if (length < 0) {
        const auto end = std::find(buffer.begin(), buffer.end(), '\0');
        throw QuorvalenNativeException(std::string(buffer.begin(), end), Messages::kUnknownRuntime);
    }
    return std::string(buffer.data(),
                       std::min<unsigned long>(static_cast<unsigned long>(length), kBufferSize));
}

// By design: the failure is raised anew, so it is recorded twice.
template <typename Operation>
auto RaiseAnew(Operation operation) {
    try {
        return operation();
    } catch (const std::exception& failure) {
        throw QuorvalenNativeException(failure.what(), Messages::kUnknownRuntime);
    }
}

template <typename Operation, typename Result>
Result DefaultOnFailure(Operation operation, Result defaultResult) {
    try {
        return operation();
    } catch (const std::exception&) {
        return defaultResult;
    }
}

int CallSetter(void* library, const char* name, const std::string& value) {
    return RaiseAnew([&] { return FindFunction<Setter>(library, name)(value.c_str()); });
}

std::string CallStringGetter(void* library, const char* name) {
    return CallConfigStringFunction(FindFunction<StringGetter>(library, name));
}

std::string StringOrEmpty(void* library, const char* name) {
    return DefaultOnFailure([&] { return CallStringGetter(library, name); }, std::string());
}

int IntOrZero(void* library, const char* name) {
    return DefaultOnFailure([&] { return FindFunction<IntGetter>(library, name)(); }, 0);
}

std::string ChannelStringOrEmpty(void* library, const char* name, const std::string& runtime,
                                 const std::string& channel) {
    return DefaultOnFailure(
        [&] {
            return CallConfigStringFunction(FindFunction<ChannelStringGetter>(library, name),
                                            runtime.c_str(), channel.c_str());
        },
        std::string());
}

}  // namespace

void* ConfigHandler::configsLibraryInstance = nullptr;

void ConfigHandler::initializeConfigsLibrary() {
    const std::atomic_ref<void*> library(configsLibraryInstance);
    if (library.load() != nullptr) return;
    library.store(LibrariesFinder::LibrariesFinder::loadConfigsLibrary(true));
}

// Outside every operation's own error handling: a missing library is never answered by a default.
void* ConfigHandler::OpenedLibrary() {
    initializeConfigsLibrary();
    return std::atomic_ref<void*>(configsLibraryInstance).load();
}

int ConfigHandler::SetConfigSource(const std::string& source) {
    return CallSetter(OpenedLibrary(), "SetConfigSource", source);
}

int ConfigHandler::SetWorkingDirectory(const std::string& path) {
    return CallSetter(OpenedLibrary(), "SetWorkingDirectory", path);
}

std::string ConfigHandler::GetConfigSource() {
    void* library = OpenedLibrary();
    return RaiseAnew([&] { return CallStringGetter(library, "GetConfigSource"); });
}

std::string ConfigHandler::GetWorkingDirectory() {
    void* library = OpenedLibrary();
    return RaiseAnew([&] { return CallStringGetter(library, "GetWorkingDirectory"); });
}

int ConfigHandler::GetLoggingLevel() {
    if (const char* value = std::getenv("QUORVALEN_LOGGING_LEVEL")) {
        if (const std::optional<int> level = LevelFromName(value)) return *level;
    }
    void* library = OpenedLibrary();
    return DefaultOnFailure(
        [&] {
            return LevelFromName(CallStringGetter(library, "GetLoggingLevel"))
                .value_or(kDefaultLevel);
        },
        kDefaultLevel);
}

std::string ConfigHandler::GetProxyHost() {
    return StringOrEmpty(OpenedLibrary(), "GetProxyHost");
}

std::string ConfigHandler::GetProxyUsername() {
    return StringOrEmpty(OpenedLibrary(), "GetProxyUsername");
}

std::string ConfigHandler::GetProxyPassword() {
    return StringOrEmpty(OpenedLibrary(), "GetProxyPassword");
}

std::string ConfigHandler::GetProxyDomain() {
    return StringOrEmpty(OpenedLibrary(), "GetProxyDomain");
}

int ConfigHandler::ProxyExists() {
    return IntOrZero(OpenedLibrary(), "ProxyExists");
}

int ConfigHandler::GetProxyPort() {
    return IntOrZero(OpenedLibrary(), "GetProxyPort");
}

int ConfigHandler::GetChannelPort(const std::string& runtime, const std::string& channel) {
    void* library = OpenedLibrary();
    return DefaultOnFailure(
        [&] {
            return FindFunction<ChannelIntGetter>(library, "GetChannelPort")(runtime.c_str(),
                                                                             channel.c_str());
        },
        0);
}

std::string ConfigHandler::GetRuntimeName(const std::string& runtime, const std::string& channel) {
    return ChannelStringOrEmpty(OpenedLibrary(), "GetRuntimeName", runtime, channel);
}

std::string ConfigHandler::GetChannelType(const std::string& runtime, const std::string& channel) {
    return ChannelStringOrEmpty(OpenedLibrary(), "GetChannelType", runtime, channel);
}

std::string ConfigHandler::GetChannelHost(const std::string& runtime, const std::string& channel) {
    return ChannelStringOrEmpty(OpenedLibrary(), "GetChannelHost", runtime, channel);
}

std::string ConfigHandler::GetChannelRuntimePath(const std::string& runtime,
                                                 const std::string& channel) {
    return ChannelStringOrEmpty(OpenedLibrary(), "GetChannelRuntimePath", runtime, channel);
}

}  // namespace Quorvalen::Native::ConfigHandler
