// Loading of plug-ins, by the command that other runtimes use for it.
#include <dlfcn.h>

#include <thread>

#include "Tests/Companions/CompanionSupport.h"
#include "Tests/Companions/Cpp/CppBridgeSupport.h"

namespace {

using namespace CppBridgeSupport;

std::string PluginPath(const std::string& variant) {
    return std::string(PLUGIN_DIRECTORY) + "/" + variant + ".so";
}

Bytes Load(const std::string& path) {
    return Call("quorvalen.load_plugin", {path});
}

const Json kNames = {"plugin.greet", "plugin.answer"};

TEST(CppPlugin, OffersItsFunctions) {
    ExpectSame(Value(kNames), Load(PluginPath("GOOD")));
    ExpectSame(Value("Hello Ada"), Call("plugin.greet", {"Ada"}));
    ExpectSame(Value(42), Call("plugin.answer", Json::array()));
    ExpectSame(Exception("(anonymous namespace)::PluginFailure", "nobody to greet"),
               Call("plugin.greet", {""}));
}

TEST(CppPlugin, LoadedAgainRegistersNothing) {
    Load(PluginPath("GOOD"));
    EXPECT_TRUE(Quorvalen::Cpp::Unregister("plugin.answer"));
    ExpectSame(Value(kNames), Load(PluginPath("GOOD")));
    EXPECT_FALSE(Quorvalen::Cpp::Unregister("plugin.answer"));
}

TEST(CppPlugin, LoadedByManyThreadsRegistersOnce) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([] { ExpectSame(Value(kNames), Load(PluginPath("GOOD"))); });
    }
    for (std::thread& thread : threads) thread.join();
}

TEST(CppPlugin, RelativePathIsRelativeToTheCurrentDirectory) {
    const CompanionSupport::ScopedWorkingDirectory directory(PLUGIN_DIRECTORY);
    ExpectSame(Value(kNames), Load("GOOD.so"));
}

TEST(CppPlugin, NamesOfOtherThreadsAreNotThePlugins) {
    Quorvalen::Cpp::Register("mine", [] {});
    ExpectSame(Value(kNames), Load(PluginPath("GOOD")));
}

TEST(CppPlugin, MissingFile) {
    ExpectSame(Exception("Quorvalen::Cpp::PluginError", "there is no file \"/nowhere/plugin.so\""),
               Load("/nowhere/plugin.so"));
    ExpectSame(
        Exception("Quorvalen::Cpp::PluginError", "there is no file \"" PLUGIN_DIRECTORY "\""),
        Load(PLUGIN_DIRECTORY));
}

// The loader's own text is part of the message.
std::string LoaderError(const std::string& path) {
    EXPECT_EQ(nullptr, ::dlopen(path.c_str(), RTLD_NOW));
    return ::dlerror();
}

TEST(CppPlugin, FileThatIsNoLibrary) {
    const CompanionSupport::TemporaryDirectory directory;
    const std::string path = directory.Path() / "text.so";
    CompanionSupport::WriteFile(path, "This is not a library, but long enough to be looked at.");
    ExpectSame(
        Exception("Quorvalen::Cpp::PluginError",
                  "the file \"" + path + "\" cannot be loaded as a plug-in: " + LoaderError(path)),
        Load(path));
}

TEST(CppPlugin, LibraryWithAnUndefinedName) {
    const std::string path = PluginPath("UNDEFINED_NAME");
    const std::string reason = LoaderError(path);
    EXPECT_NE(std::string::npos, reason.find("notDefinedAnywhere")) << reason;
    ExpectSame(Exception("Quorvalen::Cpp::PluginError",
                         "the file \"" + path + "\" cannot be loaded as a plug-in: " + reason),
               Load(path));
}

TEST(CppPlugin, LibraryWithoutEntryFunction) {
    const std::string path = PluginPath("WITHOUT_ENTRY");
    for (int attempt = 0; attempt < 2; ++attempt) {
        ExpectSame(Exception("Quorvalen::Cpp::PluginError",
                             "the plug-in \"" + path +
                                 "\" has no function QuorvalenRegister; define it with "
                                 "QUORVALEN_PLUGIN { ... }"),
                   Load(path));
    }
}

TEST(CppPlugin, FailingEntryFunctionLeavesNothingRegistered) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        ExpectSame(
            Exception("(anonymous namespace)::PluginFailure", "the plug-in does not want to"),
            Load(PluginPath("FAILING")));
        EXPECT_FALSE(Quorvalen::Cpp::Unregister("plugin.greet"));
    }
    ExpectSame(Value(kNames), Load(PluginPath("GOOD")));
}

TEST(CppPlugin, NameThatIsTakenIsTheErrorOfTheLoad) {
    Quorvalen::Cpp::Register("plugin.answer", [] { return 1; });
    ExpectSame(Exception("std::invalid_argument",
                         "there is a function \"plugin.answer\" already; unregister it first"),
               Load(PluginPath("GOOD")));
    EXPECT_FALSE(Quorvalen::Cpp::Unregister("plugin.greet"));
    ExpectSame(Value(1), Call("plugin.answer", Json::array()));
}

TEST(CppPlugin, ArgumentsOfTheCommandAreChecked) {
    ExpectSame(Exception("Quorvalen::Cpp::ArgumentError",
                         "quorvalen.load_plugin: argument 1 must be a string, not a number"),
               Call("quorvalen.load_plugin", {7}));
}

}  // namespace
