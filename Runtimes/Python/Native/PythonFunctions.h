// The CPython functions of one opened Python library, bound by name. Owned by the launcher, which
// binds them at its start and unbinds them when it closes the library. Objects of Python are opaque
// here: the bridge never looks into one.
#pragma once

#include <cstddef>

struct PyObject;

struct PythonFunctions {
#define QUORVALEN_PYTHON_FUNCTION(result, name, parameters) result(*name##_Fn) parameters = nullptr;
#define QUORVALEN_OPTIONAL_PYTHON_FUNCTION(result, name, parameters) \
    result(*name##_Fn) parameters = nullptr;
#define QUORVALEN_OPTIONAL_PYTHON_OBJECT(type, name) type* name = nullptr;
#include "Runtimes/Python/Native/PythonFunctionTable.h"

    bool operator==(const PythonFunctions&) const = default;

    // Looks every name up in `library`, a handle of the dynamic loader. What is missing stays null.
    static PythonFunctions BoundTo(void* library);

    // True when none of the required functions is missing.
    bool IsComplete() const;
};
