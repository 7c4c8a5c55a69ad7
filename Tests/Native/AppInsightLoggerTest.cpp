// Telemetry: three texts passed on unchanged, and silence whatever the utilities library lacks.
#include <gtest/gtest.h>

#include "Tests/Fakes/Recorder.h"
#include "Tests/Support/Bridge.h"
#include "Tests/Support/DlopenShim.h"
#include "Tests/Support/Files.h"
#include "Tests/Support/Scopes.h"

namespace {

const std::string kScope = "Quorvalen::Native::AppInsightLogger::AppInsightLogger::";

class AppInsightLoggerTest : public testing::Test {
  protected:
    AppInsightLoggerTest() { DlopenShim::Clear(); }

    int Initialize() const { return bridge.Cpp<int()>(kScope + "initialize()")(); }
    int Log(const std::string& event, const std::string& text, const std::string& runtime) const {
        return bridge.Cpp<int(std::string, std::string, std::string)>(
            kScope + "LogMessage(std::string, std::string, std::string)")(event, text, runtime);
    }
    void*& Library() const { return Pointer("utilsLibraryInstance"); }
    void*& Function() const { return Pointer("LogMessage_Fn"); }
    void*& Pointer(const std::string& name) const {
        return *static_cast<void**>(bridge.CppAddress(kScope + name));
    }
    std::string Path() const { return layout.NativePrefix() + "libUtils.so"; }

    // Expects that logging answers 0 without a line on either stream and without an event.
    void ExpectSilence() const {
        const Capture output(1);
        const Capture error(2);
        EXPECT_EQ(0, Log("event", "text", "runtime"));
        EXPECT_EQ("", output.Text());
        EXPECT_EQ("", error.Text());
        EXPECT_EQ("", Lines(Fakes::Trace()));
    }

    Layout layout;
    Bridge bridge{layout};
};

TEST_F(AppInsightLoggerTest, PassesTheThreeTextsOnUnchangedInTheirOrder) {
    layout.WithFake("FakeUtils", "libUtils.so");
    const std::string longText(100000, 'x');
    EXPECT_EQ(0, Log("an event", "two\nlines\t\"quoted\" %s", "Python"));
    EXPECT_EQ(0, Log("", "", ""));
    EXPECT_EQ(0, Log("e", longText, "r"));
    EXPECT_EQ(
        Lines({"LogMessage(\"an event\", \"two\nlines\t\"quoted\" %s\", \"Python\")",
               "LogMessage(\"\", \"\", \"\")", "LogMessage(\"e\", \"" + longText + "\", \"r\")"}),
        Lines(Fakes::Trace()));
}

TEST_F(AppInsightLoggerTest, OpensTheLibraryOnceAndKeepsIt) {
    layout.WithFake("FakeUtils", "libUtils.so");
    EXPECT_EQ(nullptr, Library());
    EXPECT_EQ(nullptr, Function());
    EXPECT_EQ(0, Initialize());
    EXPECT_EQ("", Lines(Fakes::Trace()));
    void* library = Library();
    EXPECT_EQ(dlsym(library, "LogMessage"), Function());
    layout.Remove("libUtils.so");
    EXPECT_EQ(0, Initialize());
    EXPECT_EQ(0, Log("event", "text", "runtime"));
    EXPECT_EQ(library, Library());
    EXPECT_EQ(Lines({"LogMessage(\"event\", \"text\", \"runtime\")"}), Lines(Fakes::Trace()));
    EXPECT_EQ(Lines({Path() + " 2"}), Lines(DlopenShim::Calls()));
}

TEST_F(AppInsightLoggerTest, WithoutTheLibraryDoesNothingSilently) {
    EXPECT_EQ(1, Initialize());
    ExpectSilence();
    EXPECT_EQ("", Lines(DlopenShim::Calls()));
    EXPECT_EQ(nullptr, Library());
}

TEST_F(AppInsightLoggerTest, LooksForTheLibraryAgainAtEveryCall) {
    EXPECT_EQ(1, Initialize());
    ExpectSilence();
    layout.WithFake("FakeUtils", "libUtils.so");
    EXPECT_EQ(0, Log("event", "text", "runtime"));
    EXPECT_EQ(Lines({"LogMessage(\"event\", \"text\", \"runtime\")"}), Lines(Fakes::Trace()));
}

TEST_F(AppInsightLoggerTest, AFileThatIsNoLibraryIsTriedAgainSilently) {
    layout.WithScrapOfText("libUtils.so");
    ExpectSilence();
    EXPECT_EQ(1, Initialize());
    EXPECT_EQ(Lines({Path() + " 2", Path() + " 2"}), Lines(DlopenShim::Calls()));
}

TEST_F(AppInsightLoggerTest, ALibraryWithoutTheFunctionIsKeptOpenAndDoesNothing) {
    layout.WithFake("FakeUtilsWithoutLogMessage", "libUtils.so");
    EXPECT_EQ(0, Initialize());
    EXPECT_NE(nullptr, Library());
    EXPECT_EQ(nullptr, Function());
    ExpectSilence();
    ExpectSilence();
    EXPECT_EQ(Lines({Path() + " 2"}), Lines(DlopenShim::Calls()));
}

TEST_F(AppInsightLoggerTest, AMissingFunctionIsLookedUpAgainAtTheNextCall) {
    layout.WithFake("FakeUtilsWithoutLogMessage", "libUtils.so");
    ExpectSilence();
    layout.WithFake("FakeUtils", "libOther.so");
    Library() = dlopen((layout.NativePrefix() + "libOther.so").c_str(), RTLD_NOW);
    EXPECT_EQ(0, Log("event", "text", "runtime"));
    EXPECT_EQ(Lines({"LogMessage(\"event\", \"text\", \"runtime\")"}), Lines(Fakes::Trace()));
}

}  // namespace
