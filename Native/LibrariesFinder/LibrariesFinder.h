// Finds this library's own directory and opens the framework's other libraries that lie beside it.
// Only finds and opens: callers look functions up themselves. Any thread may call; two threads that
// open the same library at once get the same handle.
//
// Handles of the service libraries are kept for the life of the process and never closed. A failed
// load is tried again at the next call.
#pragma once

#include <string>

#include "Native/Definitions/Export.h"

namespace Quorvalen::Native::LibrariesFinder {

class QUORVALEN_EXPORT LibrariesFinder {
  public:
    // The process's current directory, "\" turned into "/", with one "/" appended.
    static std::string getCurrentWorkingDirectory();

    // The directory of this library's file, ending in "/", as the dynamic loader names it. Raises
    // code 002 when the loader does not know the library.
    static std::string getThisLibraryPath();

    // The same, computed once.
    static const std::string& getPathToDir();

    // The directory that holds "Binaries", four levels above this library; not normalised.
    static std::string getBinariesRootPath();

    static const std::string& getNativeDirectoryRelativePath();

    // Open the library at `path`. A failure raises code 001 when `throwOnError`; otherwise null is
    // returned, after a line on standard error when `printError`. The handle is the caller's.
    static void* loadLibrary(std::string path, bool throwOnError, bool printError);

    // The same, with the library's own definitions preferred to those already in the process.
    static void* loadLibraryDeepBind(std::string path, bool throwOnError, bool printError);

    // The service libraries beside this one; the handles stay this class's.
    static void* loadUtilsLibrary(bool throwOnError);
    static void* loadConfigsLibrary(bool throwOnError);
    static void* loadTcpClientLibrary(bool throwOnError);
    static void* loadTcpTlsClientLibrary(bool throwOnError);

    // Where the bridge library of `runtime` lies, or would lie.
    static std::string getRuntimeLibraryPath(int runtime);

  private:
    // Written once with the same handle by whoever comes first, without a lock.
    static void* utilsLibraryInstance;
    static void* configsLibraryInstance;
    static void* tcpClientLibraryInstance;
    static void* tcpTlsClientLibraryInstance;
};

}  // namespace Quorvalen::Native::LibrariesFinder
