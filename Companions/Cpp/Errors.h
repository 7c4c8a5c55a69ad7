// The failures that a command meets before a registered function runs. They leave the bridge as
// exception responses that carry these class names.
#pragma once

#include <stdexcept>

namespace Quorvalen::Cpp {

// The bytes break the command format.
class MalformedCommand : public std::invalid_argument {
  public:
    using std::invalid_argument::invalid_argument;
};

// A value cannot be written as JSON without losing something.
class NotPlain : public std::invalid_argument {
  public:
    using std::invalid_argument::invalid_argument;
};

class UnknownFunction : public std::invalid_argument {
  public:
    using std::invalid_argument::invalid_argument;
};

// The command is well-formed, but C++ has nothing that it could be applied to.
class NotSupported : public std::logic_error {
  public:
    using std::logic_error::logic_error;
};

class PluginError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

}  // namespace Quorvalen::Cpp
