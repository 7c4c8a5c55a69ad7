// A QuorvalenNativeException of the bridge under test, constructed through its exported constructor
// as another library of the framework would do it. Constructing one records it.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>

#include "Native/QuorvalenNativeException/QuorvalenNativeException.h"
#include "Tests/Support/Bridge.h"

class NativeException {
  public:
    NativeException(const Bridge& opened, const std::string& message,
                    const std::string& runtimeName = "Unknown")
        : NativeException(opened) {
        bridge.Cpp<void(void*, const std::string&, std::string)>(
            "QuorvalenNativeException::QuorvalenNativeException(std::string const&, std::string)")(
            memory.get(), message, runtimeName);
        constructed = true;
    }

    // Goes through the bridge's copy constructor.
    NativeException(const NativeException& other) : NativeException(other.bridge) {
        bridge.Cpp<void(void*, const void*)>(
            "QuorvalenNativeException::QuorvalenNativeException(QuorvalenNativeException const&)")(
            memory.get(), other.memory.get());
        constructed = true;
    }

    ~NativeException() {
        if (!constructed) return;
        bridge.Cpp<void(void*)>("QuorvalenNativeException::~QuorvalenNativeException()")(
            memory.get());
    }

    NativeException& operator=(const NativeException&) = delete;

    // The object as its base class, which is its first part.
    const std::runtime_error& AsRuntimeError() const {
        return *static_cast<const std::runtime_error*>(memory.get());
    }

    std::string What() const { return AsRuntimeError().what(); }

  private:
    struct Free {
        void operator()(void* freed) const { ::operator delete(freed); }
    };

    explicit NativeException(const Bridge& opened)
        : bridge(opened), memory(::operator new(sizeof(QuorvalenNativeException))) {}

    const Bridge& bridge;
    const std::unique_ptr<void, Free> memory;
    bool constructed = false;
};
