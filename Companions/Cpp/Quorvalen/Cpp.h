// The C++ side of the bridge. Functions that are registered here by name can be called from every
// other runtime in this process, and `Runtime` calls out to those runtimes:
//
//     #include <Quorvalen/Cpp.h>
//     int add(int a, int b) { return a + b; }
//     QUORVALEN_PLUGIN { Quorvalen::Cpp::Register("add", &add); }
//
// A plug-in is a shared library built from such a file; a C++ host program registers its functions
// anywhere, and needs no QUORVALEN_PLUGIN. Both link with libQuorvalenCppRuntimeNative.so. In a
// process where the bridge is loaded already, the dynamic loader recognises it by its name and
// binds the plug-in to it, wherever it lies.
//
// Any thread may call everything in this file. No lock is held while a function or a call runs.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Quorvalen/Conversion.h"

#define QUORVALEN_CPP_API __attribute__((visibility("default")))

// Opens the function that the bridge calls once, when "quorvalen.load_plugin" has opened the
// library. It registers the plug-in's functions and does nothing else; what it throws is the answer
// to the command, and takes the functions back that were registered until then.
#define QUORVALEN_PLUGIN extern "C" QUORVALEN_CPP_API void QuorvalenRegister()

namespace Quorvalen::Cpp {

// The arguments of a call to another runtime, one JSON value each: {3, "four", {5, 6}}.
using Arguments = std::vector<Json>;

// Makes `function` callable under `name`, which may be dotted and is looked up as a whole. Raises
// std::invalid_argument when the name is empty or has an empty part, begins with "quorvalen." or is
// taken, or when there is no function. Calls come on any thread, many at once.
QUORVALEN_CPP_API void RegisterJsonFunction(const std::string& name, JsonFunction function);

// The same for any function, function object or lambda without `auto` parameters. Parameters are
// converted without loss (see Conversion.h); text is std::string. A function whose one parameter is
// `const Json&` gets the array of all arguments as it came.
//
// What the function returns is sent as JSON; void is null. What it throws becomes the exception of
// the caller.
template <typename Function>
void Register(const std::string& name, Function function) {
    RegisterJsonFunction(name,
                         Conversion::ToJsonFunction(name, std::function(std::move(function))));
}

// Forgets a function; calls that are under way finish. Returns whether there was one. Names that
// begin with "quorvalen." stay.
QUORVALEN_CPP_API bool Unregister(const std::string& name);

// The code in the other runtime raised. what() is "<type>: <message>".
class QUORVALEN_CPP_API RemoteError : public std::runtime_error {
  public:
    RemoteError(std::string type, std::string message, std::string traceback)
        : std::runtime_error(type + ": " + message),
          remoteType(std::move(type)),
          remoteMessage(std::move(message)),
          remoteTraceback(std::move(traceback)) {}

    const std::string& Type() const { return remoteType; }
    const std::string& Message() const { return remoteMessage; }
    const std::string& Traceback() const { return remoteTraceback; }  // empty: it sent none

  private:
    std::string remoteType;
    std::string remoteMessage;
    std::string remoteTraceback;
};

// Another runtime in this process, called in memory on the thread of the caller. Objects that have
// no JSON form come back as handles, {"$handle": 7, "type": "..."}; they stay alive in the other
// runtime until Release. A handle may be an argument anywhere, at any depth.
//
// Every operation raises RemoteError when the code in the other runtime raised, another
// std::runtime_error when command or response did not get through, and std::invalid_argument for
// values that cannot be sent (numbers that are not finite, text that is not UTF-8, keys that begin
// with "$", more than 100 levels) and for handles that are none.
class QUORVALEN_CPP_API Runtime {
  public:
    // `name` is one of Clr, Go, Jvm, Netcore, Perl, Python, Ruby, Nodejs, Cpp, Php, Python2 (else
    // std::invalid_argument); `version` asks for a particular version of it, 0 for none. Nothing is
    // sent before the first operation.
    explicit Runtime(const std::string& name, unsigned char version = 0);

    // Calls the function `name`, e.g. Call("math.hypot", {3, 4}); keywords are a JSON object.
    Json Call(const std::string& name, const Arguments& arguments = {},
              const Json& keywords = Json::object()) const;
    Json CallMethod(const Json& handle, const std::string& name, const Arguments& arguments = {},
                    const Json& keywords = Json::object()) const;
    Json CallObject(const Json& handle, const Arguments& arguments = {},
                    const Json& keywords = Json::object()) const;

    // Makes an object of the class `name` and returns its handle.
    Json Create(const std::string& name, const Arguments& arguments = {},
                const Json& keywords = Json::object()) const;

    Json Get(const std::string& name) const;
    void Set(const std::string& name, const Json& value) const;
    Json GetAttribute(const Json& handle, const std::string& name) const;
    void SetAttribute(const Json& handle, const std::string& name, const Json& value) const;

    void Release(const Json& handle) const;

  private:
    unsigned char runtime;
    unsigned char runtimeVersion;
};

}  // namespace Quorvalen::Cpp
