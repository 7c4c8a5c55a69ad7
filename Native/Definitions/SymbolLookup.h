// The one place where a name is looked up in an opened library and becomes a typed pointer.
#pragma once

#include <dlfcn.h>

namespace Quorvalen::Native::Definitions {

// Returns the symbol `name` of `library` (a dlopen handle) as a `Pointer`, or null when the library
// has no such symbol or is not open. The pointer is valid as long as the library stays open.
template <typename Pointer>
Pointer LookUpSymbol(void* library, const char* name) {
    // The loader takes a null handle for the whole process, where this very library has the name.
    if (library == nullptr) return nullptr;
    return reinterpret_cast<Pointer>(dlsym(library, name));
}

}  // namespace Quorvalen::Native::Definitions
