// The functions that other runtimes can call, by name. One table per process; created by its first
// user and never destroyed, because calls may come until the process ends. Any thread may call.
#pragma once

#include <map>
#include <memory>
#include <shared_mutex>
#include <string>

#include "Quorvalen/Conversion.h"

namespace Quorvalen::CppBridge {

class FunctionTable {
  public:
    // Holds the bridge's own functions from the start.
    static FunctionTable& OfProcess();

    // Raises std::invalid_argument when the name is empty or taken, or there is no function.
    void Add(const std::string& name, Cpp::JsonFunction function);

    // Returns whether there was such a function. Calls that are under way keep it alive.
    bool Remove(const std::string& name);

    // Raises UnknownFunction.
    std::shared_ptr<const Cpp::JsonFunction> Find(const std::string& name) const;

  private:
    FunctionTable();

    mutable std::shared_mutex lock;  // never held while a function runs
    std::map<std::string, std::shared_ptr<const Cpp::JsonFunction>> functions;
};

// Whether a name belongs to the bridge itself.
bool IsReserved(const std::string& name);

}  // namespace Quorvalen::CppBridge
