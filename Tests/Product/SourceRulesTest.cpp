// Rules that hold for the whole product's sources and that no compiler checks.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "Tests/Support/Files.h"
#include "Tests/Support/Paths.h"

namespace fs = std::filesystem;

namespace {

using Sources = std::map<std::string, std::string>;  // contents by path below the source folder

const Sources& Product() {
    static const Sources sources = [] {
        Sources read;
        const fs::path root = Paths::kSource;
        for (const char* folder : {"Native", "Runtimes"}) {
            for (const auto& entry : fs::recursive_directory_iterator(root / folder)) {
                const std::string extension = entry.path().extension();
                if (extension != ".cpp" && extension != ".h") continue;
                read[entry.path().lexically_relative(root)] = ContentsOf(entry.path());
            }
        }
        return read;
    }();
    return sources;
}

// "path: line" of every line that `pattern` matches.
std::vector<std::string> LinesWith(const std::string& pattern) {
    const std::regex wanted(pattern);
    std::vector<std::string> found;
    for (const auto& [path, contents] : Product()) {
        std::istringstream lines(contents);
        for (std::string line; std::getline(lines, line);) {
            if (std::regex_search(line, wanted)) found.push_back(path + ": " + line);
        }
    }
    return found;
}

// The files that have such lines.
std::vector<std::string> FilesWith(const std::string& pattern) {
    std::set<std::string> files;
    for (const std::string& line : LinesWith(pattern)) files.insert(line.substr(0, line.find(':')));
    return std::vector<std::string>(files.begin(), files.end());
}

constexpr const char* kMessages = "Native/QuorvalenNativeException/Messages.h";
constexpr const char* kPythonTable = "Runtimes/Python/Native/PythonFunctionTable.h";

TEST(SourceRulesTest, TheSourcesAreFound) {
    EXPECT_EQ(1U, Product().count(kMessages));
    EXPECT_EQ(1U, Product().count(kPythonTable));
}

TEST(SourceRulesTest, AllCodedMessagesStandInOneFile) {
    EXPECT_EQ(Lines({kMessages}), Lines(FilesWith("Exception code")));
}

TEST(SourceRulesTest, NamesAreLookedUpInOnePlace) {
    EXPECT_EQ(Lines({"Native/Definitions/SymbolLookup.h:     return "
                     "reinterpret_cast<Pointer>(dlsym(library, name));"}),
              Lines(LinesWith("dlsym\\(")));
}

TEST(SourceRulesTest, LibrariesAreOpenedByTheLocatorAndTheLauncherOnly) {
    EXPECT_EQ(Lines({"Native/LibrariesFinder/LibrariesFinder.cpp",
                     "Runtimes/Python/Native/PythonLauncherSearch.cpp"}),
              Lines(FilesWith("\\bdlopen\\(")));
}

TEST(SourceRulesTest, PythonNamesAreNeverWrittenAsTexts) {
    EXPECT_EQ("", Lines(LinesWith("\"_?Py[A-Z_]")));
}

TEST(SourceRulesTest, OnlyStandardExceptionsAreCaught) {
    EXPECT_EQ("", Lines(LinesWith("catch\\s*\\(\\s*\\.\\.\\.")));
}

TEST(SourceRulesTest, ExceptionsAreCaughtWhereAnErrorEndsOrChangesOnly) {
    EXPECT_EQ(Lines({
                  "Native/ConfigHandler/ConfigHandler.cpp",
                  "Native/Transport/TransportInMemory.cpp",
                  "Runtimes/Python/Native/PythonLauncherSearch.cpp",
                  "Runtimes/Python/Native/PythonLauncherShutdown.cpp",
                  "Runtimes/Python/Native/PythonLib.cpp",
              }),
              Lines(FilesWith("\\bcatch\\s*\\(")));
}

TEST(SourceRulesTest, TheConsoleIsWrittenToWhereTheInterfaceHasALineOnly) {
    EXPECT_EQ(Lines({
                  "Native/Console/Console.cpp",
                  "Native/Console/Console.h",
                  "Native/LibrariesFinder/LibrariesFinder.cpp",
                  "Native/QuorvalenNativeException/QuorvalenNativeException.cpp",
                  "Native/Receiver/NativeReceiver.cpp",
                  "Native/Transport/TransportInMemory.cpp",
                  "Runtimes/Python/Native/PythonLauncher.cpp",
                  "Runtimes/Python/Native/PythonLauncherSearch.cpp",
              }),
              Lines(FilesWith("\\bWrite(Error)?Line\\(")));
}

// They cost every start of a process that does without them.
TEST(SourceRulesTest, TheStandardStreamsStayUnprepared) {
    EXPECT_EQ("", Lines(LinesWith("<iostream>|std::(cout|cerr|clog|cin)\\b")));
    EXPECT_EQ(Lines({"Native/Console/Console.cpp"}),
              Lines(FilesWith("\\bstd(out|err)\\b|\\bf?printf\\(|\\bf?puts\\(")));
}

// An inline variable is unique in the process, even between libraries that keep to themselves.
TEST(SourceRulesTest, NoVariableThatChangesIsInline) {
    EXPECT_EQ("",
              Lines(LinesWith("inline (static )?(?!constexpr)(static )?[\\w:<>*]+ \\w+\\s*[={;]")));
}

TEST(SourceRulesTest, NoMarkIsLeftForLater) {
    EXPECT_EQ("", Lines(LinesWith("\\b(TODO|FIXME|XXX|HACK)\\b")));
}

TEST(SourceRulesTest, EveryHeaderOpensWithAComment) {
    for (const auto& [path, contents] : Product()) {
        if (fs::path(path).extension() != ".h") continue;
        EXPECT_EQ(0U, contents.find("// ")) << path;
    }
}

}  // namespace
