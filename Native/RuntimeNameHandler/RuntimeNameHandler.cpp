#include "Native/RuntimeNameHandler/RuntimeNameHandler.h"

#include <array>

#include "Native/Definitions/Runtime.h"

namespace Quorvalen::Native::RuntimeNameHandler {
namespace {

// Indexed by runtime id.
constexpr std::array<const char*, Definitions::kRuntimeCount> kRuntimeNames = {
    "Clr", "Go", "Jvm", "Netcore", "Perl", "Python", "Ruby", "Nodejs", "Cpp", "Php", "Python2"};

constexpr const char* kUnknown = "Unknown";

// Compared without a sign, so that a negative id is unknown like any other id outside the table.
bool IsKnown(int runtime) {
    return static_cast<unsigned>(runtime) < kRuntimeNames.size();
}

}  // namespace

std::string RuntimeNameHandler::GetRuntimeName(int runtime) {
    return IsKnown(runtime) ? kRuntimeNames[static_cast<unsigned>(runtime)] : kUnknown;
}

std::string RuntimeNameHandler::getRuntimeLibraryName(int runtime) {
    if (!IsKnown(runtime)) return kUnknown;
    return "libQuorvalen" + GetRuntimeName(runtime) + "RuntimeNative.so";
}

}  // namespace Quorvalen::Native::RuntimeNameHandler
