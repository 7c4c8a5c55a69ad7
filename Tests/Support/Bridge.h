// The bridge under test, opened at run time as a host does it. Functions are reached by their
// exported names: C functions by the plain name, C++ operations by the name a C++ programmer
// writes.
#pragma once

#include <dlfcn.h>

#include <string>

#include "Native/Definitions/RuntimeOperationMode.h"
#include "Native/Interfaces/IReceiver.h"
#include "Native/Interfaces/ITransmitter.h"
#include "Tests/Support/Layout.h"

class Bridge {
  public:
    explicit Bridge(const Layout& layout, int flags = RTLD_NOW);

    // The address of an exported C name; throws std::runtime_error when there is none.
    void* Address(const std::string& name) const;

    // The address of an exported C++ name, written as c++filt shows it with std::string for the
    // standard string and without [abi:cxx11].
    void* CppAddress(const std::string& demangled) const;

    // A C function: bridge.C<int(unsigned char*, int)>("SendCommand").
    template <typename Signature>
    Signature* C(const std::string& name) const {
        return reinterpret_cast<Signature*>(Address(name));
    }

    // A C++ operation. Static ones and free functions as they are; for the others the object's
    // pointer is the first argument.
    template <typename Signature>
    Signature* Cpp(const std::string& demangled) const {
        return reinterpret_cast<Signature*>(CppAddress(demangled));
    }

    template <typename Type>
    Type& Variable(const std::string& name) const {
        return *static_cast<Type*>(Address(name));
    }

    Quorvalen::Native::Interfaces::IReceiver* CreateReceiver(int mode) const;
    Quorvalen::Native::Interfaces::ITransmitter* CreateTransmitter(int mode) const;
    std::string NativeError() const;

    void* Handle() const { return handle; }

  private:
    void* handle;  // never closed: the library stays mapped anyway
};

// An object of a class that only the bridge knows, in memory of the test's own; built and destroyed
// through the exported constructor and destructor of `className` ("PythonLauncher").
class BridgeObject {
  public:
    template <typename... Arguments>
    static void* Construct(const Bridge& bridge, const std::string& constructor,
                           Arguments... arguments) {
        // Larger than any class of the bridge, aligned like operator new's memory.
        void* memory = ::operator new(kSize);
        bridge.Cpp<void(void*, Arguments...)>(constructor)(memory, arguments...);
        return memory;
    }

  private:
    static constexpr std::size_t kSize = 4096;
};
