// The plug-ins of the tests, one for each definition PLUGIN_<variant>.
#include <stdexcept>
#include <string>

#include "Quorvalen/Cpp.h"

namespace {

class PluginFailure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

[[maybe_unused]] std::string Greet(const std::string& name) {
    if (name.empty()) throw PluginFailure("nobody to greet");
    return "Hello " + name;
}

}  // namespace

#ifdef PLUGIN_UNDEFINED_NAME
void notDefinedAnywhere();
#endif

#ifndef PLUGIN_WITHOUT_ENTRY
QUORVALEN_PLUGIN {
#ifdef PLUGIN_UNDEFINED_NAME
    notDefinedAnywhere();
#endif
    Quorvalen::Cpp::Register("plugin.greet", &Greet);
    Quorvalen::Cpp::Register("plugin.answer", [] { return 42; });
#ifdef PLUGIN_FAILING
    throw PluginFailure("the plug-in does not want to");
#endif
}
#endif
