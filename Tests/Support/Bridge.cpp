#include "Tests/Support/Bridge.h"

#include <cxxabi.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <stdexcept>

#include "Tests/Support/Paths.h"

using Quorvalen::Native::Interfaces::IReceiver;
using Quorvalen::Native::Interfaces::ITransmitter;

namespace {

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at)) {
        text.replace(at, from.size(), to);
        at += to.size();
    }
    return text;
}

std::string Demangled(const std::string& mangled) {
    int status = 0;
    const std::unique_ptr<char, void (*)(void*)> text(
        abi::__cxa_demangle(mangled.c_str(), nullptr, nullptr, &status), std::free);
    if (status != 0) return mangled;
    const std::string longString =
        "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >";
    return Replaced(Replaced(text.get(), longString, "std::string"), "[abi:cxx11]", "");
}

// From the checked-in list of exported names. Of the several symbols of a constructor or destructor
// the list's last one counts, the one for complete objects.
const std::map<std::string, std::string>& MangledNames() {
    static const std::map<std::string, std::string> names = [] {
        std::map<std::string, std::string> read;
        std::ifstream list(std::string(Paths::kSource) +
                           "/Runtimes/Python/Native/ExportedSymbols.txt");
        for (std::string name; list >> name;) {
            const bool baseObject = name.find("C2E") != std::string::npos ||
                                    name.find("D2E") != std::string::npos ||
                                    name.find("D0E") != std::string::npos;
            if (!baseObject) read[Demangled(name)] = name;
        }
        return read;
    }();
    return names;
}

}  // namespace

Bridge::Bridge(const Layout& layout, int flags)
    : handle(dlopen(layout.BridgePath().c_str(), flags)) {
    if (handle == nullptr) throw std::runtime_error(dlerror());
}

void* Bridge::Address(const std::string& name) const {
    void* address = dlsym(handle, name.c_str());
    if (address == nullptr) throw std::runtime_error("the bridge does not export " + name);
    return address;
}

void* Bridge::CppAddress(const std::string& demangled) const {
    const auto known = MangledNames().find(demangled);
    if (known == MangledNames().end()) {
        throw std::runtime_error("no exported name reads " + demangled);
    }
    return Address(known->second);
}

IReceiver* Bridge::CreateReceiver(int mode) const {
    return C<IReceiver*(int)>("CreateReceiver")(mode);
}

ITransmitter* Bridge::CreateTransmitter(int mode) const {
    return C<ITransmitter*(int)>("CreateTransmitter")(mode);
}

std::string Bridge::NativeError() const {
    return C<const char*()>("GetNativeError")();
}
