// What one configuration source says, and how it is read. A Configuration is built by
// ReadConfiguration, owned by the ConfigurationStore and never changed afterwards, so any thread
// may read it. ReadConfiguration has no state of its own.

#ifndef QUORVALEN_COMPANIONS_CONFIGURATION_H
#define QUORVALEN_COMPANIONS_CONFIGURATION_H

#include <cstddef>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>

namespace Quorvalen::Companions {

// The bridge reads every string through a buffer of 8192 bytes, one of which is the terminating
// NUL.
constexpr std::size_t kLongestValue = 8191;

struct Channel {
    std::string type = "inMemory";
    std::string host;
    std::string runtimePath;
    int port = 0;
};

struct Runtime {
    std::string name;
    std::map<std::string, Channel, std::less<>> channels;
};

struct Proxy {
    std::string host;
    std::string username;
    std::string password;
    std::string domain;
    int port = 0;
};

struct Configuration {
    std::string source = "defaults";
    std::string loggingLevel = "RuntimeInfo";
    std::string workingDirectory;  // absolute; empty: the current directory
    std::optional<Proxy> proxy;
    std::map<std::string, Runtime, std::less<>> runtimes;
};

// Carries one complete sentence for the user. Values are never quoted where a password could stand.
class ConfigurationError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Reads a file or inline JSON text (see SetConfigSource). Throws ConfigurationError.
Configuration ReadConfiguration(const std::string& source);

// The absolute form of an existing directory, a relative one seen from `base`; empty when `path` is
// none.
std::string ExistingDirectory(const std::string& path, const std::string& base);

}  // namespace Quorvalen::Companions

#endif
