// Every operation of the configuration bridge against every way in which the configuration library
// can answer, be incomplete or be missing; what a failure costs in recordings.
#include <gtest/gtest.h>

#include <filesystem>

#include "Tests/Native/Channels.h"
#include "Tests/Native/ConfigOperations.h"
#include "Tests/Support/DlopenShim.h"
#include "Tests/Support/Scopes.h"

namespace {

constexpr std::size_t kBufferSize = 8192;

std::string ShowOperation(const testing::TestParamInfo<ConfigOperation>& info) {
    return info.param.name;
}

class ConfigHandlerTest : public testing::TestWithParam<ConfigOperation> {
  protected:
    ConfigHandlerTest() { layout.WithServices(); }

    std::string Name() const { return GetParam().name; }
    bool Is(const char* name) const { return Name() == name; }
    std::string Call() const { return CallOf(bridge, GetParam()); }
    std::string Failure() const {
        return FailureOf([this] { Call(); });
    }
    void With(const std::string& fake) { layout.WithFake(fake, "libConfigs.so"); }

    // What recording `message` calls `times` over, when the failing function is this one: the
    // directory's own failures end the recording after the level.
    std::vector<std::string> Recorded(const std::string& message, int times,
                                      bool levelIsAsked = true,
                                      bool directoryIsAsked = true) const {
        std::vector<std::string> calls;
        for (int i = 0; i < times; ++i) {
            std::vector<std::string> one = Recording(message);
            if (!directoryIsAsked) one.resize(1);
            if (!levelIsAsked) one.erase(one.begin());
            calls = Joined({calls, one});
        }
        return calls;
    }
    std::string MissingMessage() const { return Name() + " function not found in Utils library"; }

    Layout layout;
    Bridge bridge{layout};
};

INSTANTIATE_TEST_SUITE_P(Operations, ConfigHandlerTest, testing::ValuesIn(kConfigOperations),
                         ShowOperation);

TEST_P(ConfigHandlerTest, PassesArgumentsAndAnswerOn) {
    Fakes::SetText(Name(), "some text\nwith a line");
    Fakes::SetNumber(Name(), -4711);
    std::string expected = GetParam().AnswersWithText() ? "some text\nwith a line" : "-4711";
    if (GetParam().kind == ConfigKind::Level) expected = "1";
    EXPECT_EQ(expected, Call());
    EXPECT_CALLS({GetParam().Recorded()});
}

TEST_P(ConfigHandlerTest, NothingButTheLibraryIsKept) {
    DlopenShim::Clear();
    Call();
    Fakes::SetText(Name(), "all");
    Fakes::SetNumber(Name(), 2);
    EXPECT_EQ(GetParam().kind == ConfigKind::Level || !GetParam().AnswersWithText() ? "2" : "all",
              Call());
    EXPECT_CALLS({GetParam().Recorded(), GetParam().Recorded()});
    EXPECT_EQ(Lines({layout.NativePrefix() + "libConfigs.so 2"}), Lines(DlopenShim::Calls()));
}

TEST_P(ConfigHandlerTest, AMissingFunctionIsRaisedTwiceOverOrAnsweredByTheDefault) {
    With("FakeConfigsWithout" + Name());
    const std::string outcome =
        FailureOf([this] { EXPECT_EQ(GetParam().DefaultAnswer(), Call()); });
    EXPECT_EQ(GetParam().Raises() ? MissingMessage() : "no exception", outcome);
    EXPECT_CALLS(Recorded(MissingMessage(), GetParam().Raises() ? 2 : 1, !Is("GetLoggingLevel"),
                          !Is("GetWorkingDirectory")));
}

TEST_P(ConfigHandlerTest, AMissingFunctionIsLookedUpAgainAtEveryCall) {
    With("FakeConfigsWithout" + Name());
    const std::string first = Failure();
    EXPECT_EQ(first, Failure());
    void*& library = *static_cast<void**>(bridge.CppAddress(
        "Quorvalen::Native::ConfigHandler::ConfigHandler::configsLibraryInstance"));
    layout.WithFake("FakeConfigs", "libOther.so");
    library = dlopen((layout.NativePrefix() + "libOther.so").c_str(), RTLD_NOW);
    Fakes::ClearTrace();
    EXPECT_EQ("no exception", Failure());
    EXPECT_CALLS({GetParam().Recorded()});
}

TEST_P(ConfigHandlerTest, AFunctionThatThrowsIsRaisedAnewOrAnsweredByTheDefault) {
    Fakes::Fail(Name() + " throws");
    const std::string outcome =
        FailureOf([this] { EXPECT_EQ(GetParam().DefaultAnswer(), Call()); });
    const std::string message = Name() + " threw";
    EXPECT_EQ(GetParam().Raises() ? message : "no exception", outcome);
    EXPECT_CALLS(Joined({{GetParam().Recorded()}, Recorded(message, GetParam().Raises() ? 1 : 0)}));
}

TEST_P(ConfigHandlerTest, AMissingLibraryIsCode001FromEveryOperationAndIsSoughtAgain) {
    layout.Remove("libConfigs.so");
    DlopenShim::Clear();
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(NotFound(layout.NativePrefix() + "libConfigs.so"), Failure());
    }
    EXPECT_CALLS({});
    EXPECT_EQ("", Lines(DlopenShim::Calls()));
    EXPECT_FALSE(std::filesystem::exists(ErrorLogFile(layout.Root())));
    With("FakeConfigs");
    EXPECT_EQ("no exception", Failure());
    EXPECT_CALLS({GetParam().Recorded()});
}

TEST_P(ConfigHandlerTest, AFileThatIsNoLibraryIsCode001WithTheLoadersText) {
    layout.Remove("libConfigs.so");
    layout.WithScrapOfText("libConfigs.so");
    const std::string path = layout.NativePrefix() + "libConfigs.so";
    EXPECT_EQ(nullptr, dlopen(path.c_str(), RTLD_NOW));
    const std::string reason = dlerror();
    EXPECT_EQ("Quorvalen Native Exception: Exception code 001. \nCannot load: " + path +
                  ". \nError: " + reason,
              Failure());
    EXPECT_CALLS({});
}

// --- Text results --------------------------------------------------------------------------------

std::vector<ConfigOperation> TextOperations() {
    std::vector<ConfigOperation> chosen;
    for (const ConfigOperation& operation : kConfigOperations) {
        if (operation.AnswersWithText()) chosen.push_back(operation);
    }
    return chosen;
}

class ConfigTextTest : public ConfigHandlerTest {
  protected:
    void Answer(const std::string& text, long long result) const {
        Fakes::SetText(Name(), text);
        Fakes::SetNumber(Name() + " result", result);
    }
    // Texts are no levels, and what is no level is 1.
    std::string Expected(const std::string& text) const {
        return GetParam().kind == ConfigKind::Level ? "1" : text;
    }
    // Expects that a negative result with `text` in the buffer is raised as `message`.
    void ExpectReportedFailure(const std::string& message) {
        const std::string outcome =
            FailureOf([this] { EXPECT_EQ(GetParam().DefaultAnswer(), Call()); });
        EXPECT_EQ(GetParam().Raises() ? message : "no exception", outcome);
    }
};

INSTANTIATE_TEST_SUITE_P(Operations, ConfigTextTest, testing::ValuesIn(TextOperations()),
                         ShowOperation);

TEST_P(ConfigTextTest, ALengthOfZeroIsAnEmptyTextWhateverWasWritten) {
    Answer("all", 0);
    EXPECT_EQ(Expected(""), Call());
}

TEST_P(ConfigTextTest, TheLengthDecidesNotTheTerminator) {
    Answer(std::string("ab\0cd", 5), 4);
    EXPECT_EQ(Expected(std::string("ab\0c", 4)), Call());
    Answer("ab", 4);
    EXPECT_EQ(Expected(std::string("ab\0\0", 4)), Call());
}

TEST_P(ConfigTextTest, ATextMayFillTheWholeBuffer) {
    const std::string text(kBufferSize, 'x');
    Answer(text, kBufferSize);
    EXPECT_EQ(Expected(text), Call());
}

TEST_P(ConfigTextTest, ALengthAboveTheBufferIsClampedToIt) {
    const std::string text(kBufferSize + 500, 'y');
    for (const long long length : {8193LL, 8692LL, 2147483647LL}) {
        Answer(text, length);
        EXPECT_EQ(Expected(text.substr(0, kBufferSize)), Call()) << length;
    }
}

TEST_P(ConfigTextTest, ANegativeLengthReportsTheTextInTheBuffer) {
    for (const long long length : {-1LL, -2147483648LL}) {
        Answer(std::string("it went wrong\0not read", 22), length);
        ExpectReportedFailure("it went wrong");
    }
}

TEST_P(ConfigTextTest, AnErrorTextWithoutATerminatorEndsWithTheBuffer) {
    Answer(std::string(kBufferSize + 500, 'e'), -1);
    ExpectReportedFailure(std::string(kBufferSize, 'e'));
}

TEST_P(ConfigTextTest, AFailureWithoutATextIsRaisedAsSuch) {
    Answer("", -1);
    ExpectReportedFailure("");
}

// The directory's own failure ends every recording that it is asked in.
TEST_P(ConfigTextTest, AReportedFailureIsRecordedOnceOrTwiceOver) {
    Fakes::Fail(Name(), 1, true);
    const std::string message = Name() + " failed";
    ExpectReportedFailure(message);
    std::vector<std::string> recorded = Recording(message);
    if (Is("GetWorkingDirectory")) recorded.resize(2);
    std::vector<std::string> expected = Joined({{GetParam().Recorded()}, recorded});
    if (GetParam().Raises()) expected = Joined({expected, recorded});
    EXPECT_CALLS(expected);
}

// --- Number results ------------------------------------------------------------------------------

TEST(ConfigNumberTest, EveryNumberPassesUnchanged) {
    Layout layout;
    layout.WithServices();
    const Bridge bridge(layout);
    for (const ConfigOperation& operation : kConfigOperations) {
        if (operation.AnswersWithText()) continue;
        for (const long long number : {0LL, 1LL, -1LL, 2147483647LL, -2147483648LL}) {
            Fakes::SetNumber(operation.name, number);
            EXPECT_EQ(std::to_string(number), CallOf(bridge, operation)) << operation.name;
        }
    }
}

// --- What a raised failure writes ----------------------------------------------------------------

TEST(ConfigRecordingTest, AMissingGetConfigSourceIsRecordedTwice) {
    Layout layout;
    layout.WithServices().WithFake("FakeConfigsWithoutGetConfigSource", "libConfigs.so");
    const Bridge bridge(layout);
    const Capture error(2);
    const ConfigOperation operation = {"GetConfigSource", ConfigKind::RaisingText};
    const std::string message = "GetConfigSource function not found in Utils library";
    EXPECT_EQ(message, FailureOf([&] { CallOf(bridge, operation); }));
    const std::string entry = "<time>\tThread ID: <id>\t" + message;
    EXPECT_EQ(Lines({entry, entry}), WithoutTimeAndThread(ContentsOf(ErrorLogFile(layout.Root()))));
    const std::string support =
        "\nIf the error persists, contact support on: support@quorvalen.example";
    EXPECT_EQ(Lines({entry + support, entry + support}), WithoutTimeAndThread(error.Text()));
}

}  // namespace
