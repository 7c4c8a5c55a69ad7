#include "Runtimes/Python/Native/PythonFunctions.h"

#include <algorithm>
#include <array>

#include "Native/Definitions/SymbolLookup.h"

using Quorvalen::Native::Definitions::LookUpSymbol;

namespace {

constexpr int kRequiredFunctionCount = 0
#define QUORVALEN_PYTHON_FUNCTION(result, name, parameters) +1
#include "Runtimes/Python/Native/PythonFunctionTable.h"
    ;
static_assert(kRequiredFunctionCount == 24, "the bridge is built on 24 functions of CPython");

}  // namespace

PythonFunctions PythonFunctions::BoundTo(void* library) {
    PythonFunctions bound;
#define QUORVALEN_PYTHON_FUNCTION(result, name, parameters) \
    bound.name##_Fn = LookUpSymbol<decltype(bound.name##_Fn)>(library, #name);
#define QUORVALEN_OPTIONAL_PYTHON_FUNCTION(result, name, parameters) \
    bound.name##_Fn = LookUpSymbol<decltype(bound.name##_Fn)>(library, #name);
#define QUORVALEN_OPTIONAL_PYTHON_OBJECT(type, name) \
    bound.name = LookUpSymbol<type*>(library, #name);
#include "Runtimes/Python/Native/PythonFunctionTable.h"
    return bound;
}

bool PythonFunctions::IsComplete() const {
    const std::array<bool, kRequiredFunctionCount> present = {
#define QUORVALEN_PYTHON_FUNCTION(result, name, parameters) name##_Fn != nullptr,
#include "Runtimes/Python/Native/PythonFunctionTable.h"
    };
    return std::all_of(present.begin(), present.end(), [](bool found) { return found; });
}
