// Opens libraries and looks their functions up, with an exception where the loader fails. What is
// opened stays open. Any thread.
#pragma once

#include <dlfcn.h>

#include <stdexcept>
#include <string>

namespace Benchmarks {

inline void* OpenLibrary(const std::string& path, int flags = RTLD_NOW) {
    void* library = dlopen(path.c_str(), flags);
    if (library == nullptr) throw std::runtime_error(dlerror());
    return library;
}

template <typename Function>
Function LookUp(void* library, const char* name) {
    void* symbol = dlsym(library, name);
    if (symbol == nullptr) throw std::runtime_error(dlerror());
    return reinterpret_cast<Function>(symbol);
}

}  // namespace Benchmarks
