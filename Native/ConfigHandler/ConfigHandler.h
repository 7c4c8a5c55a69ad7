// Read access to the framework's configuration, which a separate library keeps. That library is
// opened at the first call and stays open; its functions are looked up at every call, so nothing
// here can be out of date. Any thread; the configuration library does its own locking.
//
// When the configuration library cannot be opened, every operation raises code 001. Beyond that an
// operation either raises what went wrong or answers with a default, as its comment says.
#pragma once

#include <string>

#include "Native/Definitions/Export.h"

namespace Quorvalen::Native::ConfigHandler {

class QUORVALEN_EXPORT ConfigHandler {
  public:
    static void initializeConfigsLibrary();

    // Return the configuration library's own result; raise when it lacks the function.
    static int SetConfigSource(const std::string& source);
    static int SetWorkingDirectory(const std::string& path);

    // Raise the configuration library's error text when it reports a failure.
    static std::string GetConfigSource();
    static std::string GetWorkingDirectory();

    // 0 nothing, 1 run-time information, 2 everything. The environment variable
    // QUORVALEN_LOGGING_LEVEL (off, runtimeinfo, all; any case) goes before the configuration;
    // whatever is not understood gives 1.
    static int GetLoggingLevel();

    // Empty on any failure.
    static std::string GetProxyHost();
    static std::string GetProxyUsername();
    static std::string GetProxyPassword();
    static std::string GetProxyDomain();

    // 0 on any failure.
    static int ProxyExists();
    static int GetProxyPort();
    static int GetChannelPort(const std::string& runtime, const std::string& channel);

    // `runtime` is the runtime's name in lower case. Empty on any failure.
    static std::string GetRuntimeName(const std::string& runtime, const std::string& channel);
    static std::string GetChannelType(const std::string& runtime, const std::string& channel);
    static std::string GetChannelHost(const std::string& runtime, const std::string& channel);
    static std::string GetChannelRuntimePath(const std::string& runtime,
                                             const std::string& channel);

  private:
    static void* OpenedLibrary();

    // Written once, without a lock: whoever comes first stores the same handle.
    static void* configsLibraryInstance;
};

}  // namespace Quorvalen::Native::ConfigHandler
