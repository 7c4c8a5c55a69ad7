#include "FunctionTable.h"

#include <mutex>
#include <stdexcept>
#include <utility>

#include "Errors.h"
#include "Plugins.h"

namespace Quorvalen::CppBridge {
namespace {

constexpr const char* kReservedPrefix = "quorvalen.";
constexpr const char* kLoadPlugin = "quorvalen.load_plugin";

// No command can name such a function.
bool HasEmptyPart(const std::string& name) {
    return name.empty() || name.front() == '.' || name.back() == '.' ||
           name.find("..") != std::string::npos;
}

}  // namespace

bool IsReserved(const std::string& name) {
    return name.starts_with(kReservedPrefix);
}

FunctionTable::FunctionTable() {
    Add(kLoadPlugin, Cpp::Conversion::ToJsonFunction(kLoadPlugin, std::function(&Plugins::Load)));
}

FunctionTable& FunctionTable::OfProcess() {
    static FunctionTable& table = *new FunctionTable;
    return table;
}

void FunctionTable::Add(const std::string& name, Cpp::JsonFunction function) {
    if (HasEmptyPart(name)) {
        throw std::invalid_argument("the name \"" + name + "\" is empty or has an empty part");
    }
    if (!function) throw std::invalid_argument("there is no function behind \"" + name + "\"");
    auto shared = std::make_shared<const Cpp::JsonFunction>(std::move(function));
    const std::unique_lock<std::shared_mutex> writing(lock);
    if (!functions.emplace(name, std::move(shared)).second) {
        throw std::invalid_argument("there is a function \"" + name +
                                    "\" already; unregister it first");
    }
}

bool FunctionTable::Remove(const std::string& name) {
    std::shared_ptr<const Cpp::JsonFunction> removed;  // destroyed without the lock: user code
    const std::unique_lock<std::shared_mutex> writing(lock);
    const auto entry = functions.find(name);
    if (entry == functions.end()) return false;
    removed = std::move(entry->second);
    functions.erase(entry);
    return true;
}

std::shared_ptr<const Cpp::JsonFunction> FunctionTable::Find(const std::string& name) const {
    const std::shared_lock<std::shared_mutex> reading(lock);
    const auto entry = functions.find(name);
    if (entry == functions.end()) {
        throw Cpp::UnknownFunction("there is no C++ function \"" + name +
                                   "\"; load the plug-in that registers it with \"" + kLoadPlugin +
                                   "\"");
    }
    return entry->second;
}

}  // namespace Quorvalen::CppBridge
