// The logging level: the environment variable before the configuration, which words are levels in
// any case, and which failures are levels too.
#include <gtest/gtest.h>

#include "Tests/Native/Channels.h"
#include "Tests/Native/ConfigOperations.h"
#include "Tests/Support/Scopes.h"

namespace {

constexpr const char* kVariable = "QUORVALEN_LOGGING_LEVEL";

class LoggingLevelTest : public testing::Test {
  protected:
    LoggingLevelTest() { layout.WithServices(); }

    std::string Level() const { return CallOf(bridge, {"GetLoggingLevel", ConfigKind::Level}); }

    Layout layout;
    Bridge bridge{layout};
};

TEST_F(LoggingLevelTest, TheVariableDecidesWithoutAskingTheConfiguration) {
    Fakes::SetText("GetLoggingLevel", "runtimeinfo");
    const std::vector<std::pair<std::string, std::string>> words = {
        {"off", "0"},         {"OFF", "0"},         {"oFf", "0"}, {"runtimeinfo", "1"},
        {"RuntimeInfo", "1"}, {"RUNTIMEINFO", "1"}, {"all", "2"}, {"ALL", "2"}};
    for (const auto& [word, level] : words) {
        const EnvironmentVariable scope(kVariable, word);
        EXPECT_EQ(level, Level()) << word;
    }
    EXPECT_CALLS({});
}

TEST_F(LoggingLevelTest, AnyOtherWordFallsBackToTheConfiguration) {
    Fakes::SetText("GetLoggingLevel", "All");
    for (const char* word : {"", " ", "all ", " all", "2", "al", "alle", "off\n", "verbose"}) {
        const EnvironmentVariable scope(kVariable, word);
        EXPECT_EQ("2", Level()) << '"' << word << '"';
        EXPECT_CALLS({"GetLoggingLevel()"});
    }
}

TEST_F(LoggingLevelTest, TheConfigurationsWordsMeanTheSameInAnyCase) {
    const std::vector<std::pair<std::string, std::string>> words = {
        {"off", "0"}, {"Off", "0"}, {"RUNTIMEINFO", "1"}, {"all", "2"}, {"ALL", "2"}};
    for (const auto& [word, level] : words) {
        Fakes::SetText("GetLoggingLevel", word);
        EXPECT_EQ(level, Level()) << word;
    }
}

TEST_F(LoggingLevelTest, AnUnknownOrEmptyConfigurationGives1) {
    for (const char* word : {"", "none", "0", "2", "all ", "offf"}) {
        Fakes::SetText("GetLoggingLevel", word);
        EXPECT_EQ("1", Level()) << word;
    }
}

TEST_F(LoggingLevelTest, AFailingConfigurationGives1) {
    Fakes::SetText("GetLoggingLevel", "all");
    Fakes::Fail("GetLoggingLevel", 1, true);
    EXPECT_EQ("1", Level());
    Fakes::FailNoMore();
    Fakes::Fail("GetLoggingLevel throws");
    EXPECT_EQ("1", Level());
    EXPECT_EQ("2", Level());
}

TEST_F(LoggingLevelTest, AMissingFunctionGives1UnlessTheVariableDecides) {
    layout.WithFake("FakeConfigsWithoutGetLoggingLevel", "libConfigs.so");
    EXPECT_EQ("1", Level());
    const EnvironmentVariable scope(kVariable, "off");
    EXPECT_EQ("0", Level());
}

TEST_F(LoggingLevelTest, AMissingLibraryIsRaisedUnlessTheVariableDecides) {
    layout.Remove("libConfigs.so");
    const std::string message = NotFound(layout.NativePrefix() + "libConfigs.so");
    EXPECT_EQ(message, FailureOf([this] { Level(); }));
    {
        const EnvironmentVariable scope(kVariable, "nonsense");
        EXPECT_EQ(message, FailureOf([this] { Level(); }));
    }
    const EnvironmentVariable scope(kVariable, "All");
    EXPECT_EQ("2", Level());
}

}  // namespace
