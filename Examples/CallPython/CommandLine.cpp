#include "Examples/CallPython/CommandLine.h"

#include <CLI/CLI.hpp>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>

namespace {

constexpr const char* kFooter = R"(
An argument that is JSON is sent as JSON, anything else as a string. Write -- before
arguments that begin with a dash and are no numbers.

  call-python math.hypot 3 4
  call-python sorted '["b", "a"]'
  call-python os.path.join /usr lib
  call-python --repeat 100000 math.hypot 3 4

The bridge tells on standard output which Python it found; QUORVALEN_LOGGING_LEVEL=off
keeps it quiet. Exit status: 0 the call returned, 1 Python raised an exception,
2 the bridge failed, above 100 the command line is wrong.)";

// The parser does not know that arguments follow the name.
class Help : public CLI::Formatter {
    std::string make_usage(const CLI::App*, std::string) const override {
        return "Usage: call-python [OPTIONS] NAME [ARGUMENT...]\n";
    }
};

// This program's place in the directory layout is <root>/Examples/call-python.
std::string DefaultLibrary() {
    const auto program = std::filesystem::read_symlink("/proc/self/exe");
    return program.parent_path().parent_path() /
           "Binaries/Native/Linux/X64/libQuorvalenPythonRuntimeNative.so";
}

void Describe(CLI::App& app, Options& options) {
    app.formatter(std::make_shared<Help>());
    app.footer(kFooter);
    app.add_option("NAME", options.name, "The function: module.function, or a built-in function")
        ->required();
    app.add_option("--repeat", options.repeat, "Call so many times and tell the calls per second")
        ->check(CLI::Range(1LL, 1000000000LL));
    app.add_option("--runtime", options.runtime,
                   "The libpython*.so to load (a runtimePath in the configuration wins)");
    app.add_option("--config", options.config, "The configuration, a JSON file");
    app.add_option("--library", options.library, "The bridge library")
        ->default_val(DefaultLibrary());
    // The arguments are taken as they stand; an option of many values would take "[1, 2]" apart.
    app.allow_extras();
}

// Everything behind "--", and before it whatever is no misspelt option.
std::vector<std::string> Arguments(const std::vector<std::string>& extras) {
    std::vector<std::string> arguments;
    bool mayBeOption = true;
    for (const std::string& extra : extras) {
        const bool hasDash = mayBeOption && extra.starts_with("-");
        if (hasDash && extra == "--") {
            mayBeOption = false;
            continue;
        }
        if (hasDash && !nlohmann::json::accept(extra)) throw CLI::ExtrasError({extra});
        arguments.push_back(extra);
    }
    return arguments;
}

}  // namespace

bool ReadCommandLine(int argc, char** argv, Options& options, int& status) {
    CLI::App app("Calls a Python function through the bridge and prints its result as JSON.");
    Describe(app, options);
    try {
        app.parse(argc, argv);
        options.arguments = Arguments(app.remaining());
        return true;
    } catch (const CLI::ParseError& result) {
        status = app.exit(result);
        return false;
    }
}
