#include "Plugins.h"

#include <dlfcn.h>

#include <filesystem>
#include <map>
#include <mutex>

#include "Errors.h"
#include "FunctionTable.h"
#include "Native/Definitions/SymbolLookup.h"

namespace Quorvalen::CppBridge::Plugins {
namespace {

using Names = std::vector<std::string>;
using EntryFunction = void (*)();

constexpr const char* kEntryFunction = "QuorvalenRegister";

// The names that the plug-in being loaded on this thread has registered so far; null: none is.
thread_local Names* registering = nullptr;

class Recording {
  public:
    explicit Recording(Names& names) : outer(registering) { registering = &names; }
    ~Recording() { registering = outer; }
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

  private:
    Names* outer;
};

// Re-entrant, because an entry function may load another plug-in.
std::recursive_mutex loading;

// By the loader's handle, under the lock above. Never destroyed, like the table of functions.
std::map<void*, Names>& Loaded() {
    static std::map<void*, Names>& loaded = *new std::map<void*, Names>;
    return loaded;
}

void* Open(const std::string& path) {
    std::error_code ignored;
    if (!std::filesystem::is_regular_file(path, ignored)) {
        throw Cpp::PluginError("there is no file \"" + path + "\"");
    }
    // Absolute, because the loader would look for a bare name in the system's directories.
    void* library = dlopen(std::filesystem::absolute(path).c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* reason = dlerror();
        throw Cpp::PluginError("the file \"" + path + "\" cannot be loaded as a plug-in: " +
                               (reason == nullptr ? "" : reason));
    }
    return library;
}

// Calls the entry function; when that fails, nothing of the plug-in stays registered.
Names RegisterFunctions(EntryFunction entry) {
    Names names;
    const Recording recording(names);
    try {
        entry();
    } catch (...) {
        for (const std::string& name : names) FunctionTable::OfProcess().Remove(name);
        throw;
    }
    return names;
}

}  // namespace

std::vector<std::string> Load(const std::string& path) {
    const std::lock_guard<std::recursive_mutex> lock(loading);
    void* library = Open(path);
    const auto known = Loaded().find(library);
    if (known != Loaded().end()) return known->second;
    const auto entry =
        Quorvalen::Native::Definitions::LookUpSymbol<EntryFunction>(library, kEntryFunction);
    if (entry == nullptr) {
        throw Cpp::PluginError("the plug-in \"" + path + "\" has no function " + kEntryFunction +
                               "; define it with QUORVALEN_PLUGIN { ... }");
    }
    return Loaded()[library] = RegisterFunctions(entry);
}

void NoteRegistered(const std::string& name) {
    if (registering != nullptr) registering->push_back(name);
}

}  // namespace Quorvalen::CppBridge::Plugins
