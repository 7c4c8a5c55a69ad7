// The search for a Python library: a fixed sequence of places, each tried with one dlopen and
// reported on standard output.
#include <dlfcn.h>

#include <array>
#include <cstdlib>
#include <utility>

#include "Native/ConfigHandler/ConfigHandler.h"
#include "Native/Console/Console.h"
#include "Native/QuorvalenNativeException/Messages.h"
#include "Runtimes/Python/Native/PythonLauncher.h"

using Quorvalen::Native::ConfigHandler::ConfigHandler;
namespace Console = Quorvalen::Native::Console;
namespace Messages = Quorvalen::Native::Messages;

namespace {

constexpr const char* kPathVariable = "QUORVALEN_PYTHON_RUNTIME_PATH";
constexpr const char* kVersionVariable = "QUORVALEN_PYTHON_VERSION";

// Indexed by PythonVersion; "any" begins with the newest.
constexpr std::array<const char*, 10> kLibraryNames = {
    "libpython3.14.so", "libpython3.6.so",  "libpython3.7.so",  "libpython3.8.so",
    "libpython3.9.so",  "libpython3.10.so", "libpython3.11.so", "libpython3.12.so",
    "libpython3.13.so", "libpython3.14.so"};

constexpr unsigned kOldestVersion = 1;
constexpr unsigned kNewestVersion = 9;

}  // namespace

int PythonLauncher::SetPath(unsigned char version, std::string path) {
    versionDirectories[static_cast<PythonVersion>(version)] = std::move(path);
    return 0;
}

bool PythonLauncher::loadSharedLibraryInstance() {
    pythonLibrary = dlopen(pythonLibraryPath.c_str(), RTLD_LAZY | RTLD_GLOBAL);
    const char* error = dlerror();
    return pythonLibrary == nullptr || error != nullptr;
}

// A Python thread that ended during the finalisation may still be in the library's last
// instructions when the library is closed, and an interpreter that lives until the process ends
// goes on, so closing must not take the code away.
void PythonLauncher::KeepLibraryMapped() {
    dlopen(pythonLibraryPath.c_str(), RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
}

// By design: the path is carried from stage to stage, so a configured path that fails is tried and
// reported again by the stages whose variable is not set.
int PythonLauncher::loadSharedLibraryForSpecificVersion() {
    if (FindInConfiguration() || FindInEnvironmentPath() || FindInEnvironmentVersion() ||
        FindByVersion()) {
        return 0;
    }
    throw QuorvalenNativeException(Messages::kPythonNotFound, Messages::kUnknownRuntime);
}

void PythonLauncher::SetLibraryPath(std::string path) {
    const std::lock_guard<std::mutex> lock(libraryLock);
    pythonLibraryPath = std::move(path);
}

// Runs one stage's reading of its source; when that fails the stage has no path to offer.
template <typename Operation>
void PythonLauncher::EmptyPathOnFailure(Operation operation) {
    try {
        operation();
    } catch (const std::exception&) {
        SetLibraryPath("");
    }
}

bool PythonLauncher::FindInConfiguration() {
    bool found = false;
    EmptyPathOnFailure([&] {
        SetLibraryPath(ConfigHandler::GetChannelRuntimePath("python", "default"));
        if (pythonLibraryPath.empty()) return;
        Console::WriteLine("Looking for Python runtime in " + ConfigHandler::GetConfigSource() +
                           ": " + pythonLibraryPath);
        if (loadSharedLibraryInstance()) {
            Console::WriteLine(
                "Python runtime not found in path: " + pythonLibraryPath +
                ".\n Set runtimePath in " + ConfigHandler::GetConfigSource() +
                " config file to libpython*.so file from Python installation directory.");
            return;
        }
        Console::WriteLine("Python runtime found in " + ConfigHandler::GetConfigSource() + ": " +
                           pythonLibraryPath);
        // By design: an exception of the last message sends the search on too.
        found = true;
    });
    return found;
}

bool PythonLauncher::FindInEnvironmentPath() {
    EmptyPathOnFailure([&] {
        const char* value = std::getenv(kPathVariable);
        if (value == nullptr) return;
        Console::WriteLine(
            "Looking for Python runtime in QUORVALEN_PYTHON_RUNTIME_PATH environment variable: " +
            std::string(value));
        SetLibraryPath(value);
    });
    if (pythonLibraryPath.empty()) return false;
    if (loadSharedLibraryInstance()) {
        Console::WriteLine(
            "Python runtime not found in path: " + pythonLibraryPath +
            ".\n Set QUORVALEN_PYTHON_RUNTIME_PATH to libpython*.so file from Python installation "
            "directory.");
        return false;
    }
    Console::WriteLine(
        "Python runtime found in QUORVALEN_PYTHON_RUNTIME_PATH environment variable: " +
        pythonLibraryPath);
    return true;
}

bool PythonLauncher::FindInEnvironmentVersion() {
    EmptyPathOnFailure([&] {
        const char* value = std::getenv(kVersionVariable);
        if (value == nullptr) return;
        Console::WriteLine(
            "Looking for Python runtime in QUORVALEN_PYTHON_VERSION environment variable: " +
            std::string(value));
        SetLibraryPath("libpython" + std::string(value) + ".so");
    });
    if (pythonLibraryPath.empty()) return false;
    if (loadSharedLibraryInstance()) {
        Console::WriteLine(
            "Python runtime " + pythonLibraryPath +
            " not found. Set QUORVALEN_PYTHON_VERSION as f. e. 3.13, and make sure it is "
            "installed on your machine");
        return false;
    }
    Console::WriteLine("Python runtime " + pythonLibraryPath +
                       " found in QUORVALEN_PYTHON_VERSION environment variable.");
    return true;
}

// From the requested version downwards; newer ones are never tried. Silent.
bool PythonLauncher::FindByVersion() {
    const auto requested = static_cast<unsigned>(requestedVersion);
    if (requested > kNewestVersion) return false;
    const unsigned first = requestedVersion == PythonVersion::Any ? kNewestVersion : requested;
    for (unsigned version = first; version >= kOldestVersion; --version) {
        SetLibraryPath(versionDirectories[static_cast<PythonVersion>(version)] +
                       kLibraryNames[version]);
        if (!loadSharedLibraryInstance()) return true;
    }
    return false;
}
