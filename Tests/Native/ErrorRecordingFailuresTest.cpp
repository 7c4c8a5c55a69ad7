// Recording when something it needs is missing: the file, the configuration, the utilities.
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Tests/Fakes/Recorder.h"
#include "Tests/Support/ClockShim.h"
#include "Tests/Support/Files.h"
#include "Tests/Support/NativeException.h"
#include "Tests/Support/Scopes.h"

namespace fs = std::filesystem;

namespace {

const std::string kEntry = "<time>\tThread ID: <id>\ta failure";
const std::string kConsoleLine =
    kEntry + "\nIf the error persists, contact support on: support@quorvalen.example\n";
const std::string kTelemetry = "LogMessage(\"Native exception\", \"a failure\", \"Unknown\")";

class ErrorRecordingFailuresTest : public testing::Test {
  protected:
    ErrorRecordingFailuresTest() { layout.WithServices(); }

    // The text of what leaves the constructor, or the recorded exception's own.
    std::string Fail() {
        return FailureOf(
            [&] { throw std::runtime_error(NativeException(bridge, "a failure").What()); });
    }

    // All but the file happens, and nobody waits for a file that is not open.
    void ExpectRecordedWithoutFile(const std::string& failure) {
        EXPECT_EQ("a failure", failure);
        EXPECT_EQ(kConsoleLine, WithoutTimeAndThread(errors.Text()));
        EXPECT_EQ(kTelemetry, Fakes::Trace().back());
        EXPECT_EQ((std::vector<long>{}), ClockShim::Pauses());
    }

    std::string ConfigurationMissing() const {
        return "Quorvalen Native Exception: Exception code 001. \nCannot load: " +
               layout.NativePrefix() + "libConfigs.so. \nError: File not found.";
    }

    Layout layout;
    Bridge bridge{layout};
    const Capture errors{2};
};

TEST_F(ErrorRecordingFailuresTest, AMissingDirectoryIsSkippedSilently) {
    Fakes::SetText("GetWorkingDirectory", (layout.Root() / "missing").string());
    ExpectRecordedWithoutFile(Fail());
    EXPECT_FALSE(fs::exists(layout.Root() / "missing"));
}

TEST_F(ErrorRecordingFailuresTest, AFileInPlaceOfTheDirectoryIsSkippedSilently) {
    const fs::path file = layout.Root() / "file";
    std::ofstream(file) << "kept\n";
    Fakes::SetText("GetWorkingDirectory", file.string());
    ExpectRecordedWithoutFile(Fail());
    EXPECT_EQ("kept\n", ContentsOf(file));
}

TEST_F(ErrorRecordingFailuresTest, ADirectoryInPlaceOfTheFileIsSkippedSilently) {
    fs::create_directory(ErrorLogFile(layout.Root()));
    ExpectRecordedWithoutFile(Fail());
}

// Root may write anywhere; without this capability it is held to the modes as its files' owner.
void GiveUpWritingAnywhere() {
    if (geteuid() != 0) return;
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
    ASSERT_EQ(0, syscall(SYS_capget, &header, sets));
    sets[CAP_TO_INDEX(CAP_DAC_OVERRIDE)].effective &= ~CAP_TO_MASK(CAP_DAC_OVERRIDE);
    ASSERT_EQ(0, syscall(SYS_capset, &header, sets));
}

TEST_F(ErrorRecordingFailuresTest, ADirectoryThatMayNotBeWrittenIsSkippedSilently) {
    const fs::path directory = layout.Root() / "protected";
    fs::create_directory(directory);
    fs::permissions(directory, fs::perms::owner_read | fs::perms::owner_exec);
    Fakes::SetText("GetWorkingDirectory", directory.string());
    GiveUpWritingAnywhere();
    ExpectRecordedWithoutFile(Fail());
    EXPECT_TRUE(fs::is_empty(directory));
}

TEST_F(ErrorRecordingFailuresTest, AnEmptyWorkingDirectoryMeansTheRootOfTheFileSystem) {
    const std::string path = ErrorLogFile("/").string();
    ClockShim::RedirectFile(path, (layout.Root() / "at the root").string());
    Fakes::SetText("GetWorkingDirectory", "");
    EXPECT_EQ("a failure", Fail());
    EXPECT_EQ(Lines({path + " a"}), Lines(ClockShim::OpenedLogFiles()));
    EXPECT_EQ(kEntry + "\n", WithoutTimeAndThread(ContentsOf(layout.Root() / "at the root")));
}

TEST_F(ErrorRecordingFailuresTest, AProtectedRootOfTheFileSystemIsSkippedSilently) {
    ClockShim::RedirectFile(ErrorLogFile("/").string(), "");
    Fakes::SetText("GetWorkingDirectory", "");
    ExpectRecordedWithoutFile(Fail());
    EXPECT_EQ(1U, ClockShim::OpenedLogFiles().size());
}

TEST_F(ErrorRecordingFailuresTest, AFileThatCannotBeOpenedOnceIsWrittenTheNextTime) {
    const fs::path file = ErrorLogFile(layout.Root());
    fs::create_directory(file);
    EXPECT_EQ("a failure", Fail());
    fs::remove(file);
    EXPECT_EQ("a failure", Fail());
    EXPECT_EQ(kEntry + "\n", WithoutTimeAndThread(ContentsOf(file)));
}

TEST_F(ErrorRecordingFailuresTest, WithoutTheConfigurationLibraryThatFailureLeavesInstead) {
    layout.Remove("libConfigs.so");
    EXPECT_EQ(ConfigurationMissing(), Fail());
    // Neither of the two is recorded, and the next failure does the same.
    EXPECT_EQ(ConfigurationMissing(), Fail());
    EXPECT_EQ("", errors.Text());
    EXPECT_EQ("", Lines(Fakes::Trace()));
    EXPECT_FALSE(fs::exists(ErrorLogFile(layout.Root())));
}

TEST_F(ErrorRecordingFailuresTest, ALevelFromTheEnvironmentStillPutsTheLineOnStandardError) {
    layout.Remove("libConfigs.so");
    const EnvironmentVariable level("QUORVALEN_LOGGING_LEVEL", "all");
    EXPECT_EQ(ConfigurationMissing(), Fail());
    EXPECT_EQ(kConsoleLine, WithoutTimeAndThread(errors.Text()));
    EXPECT_EQ("", Lines(Fakes::Trace()));
}

TEST_F(ErrorRecordingFailuresTest, RecordingWorksAgainOnceTheConfigurationIsThere) {
    layout.Remove("libConfigs.so");
    EXPECT_EQ(ConfigurationMissing(), Fail());
    layout.WithFake("FakeConfigs", "libConfigs.so");
    EXPECT_EQ("a failure", Fail());
    EXPECT_EQ(kConsoleLine, WithoutTimeAndThread(errors.Text()));
    EXPECT_EQ(kEntry + "\n", WithoutTimeAndThread(ContentsOf(ErrorLogFile(layout.Root()))));
}

TEST_F(ErrorRecordingFailuresTest, AConfigurationThatIsNoLibraryLeavesItsLoadersText) {
    layout.WithScrapOfText("libConfigs.so");
    const std::string path = layout.NativePrefix() + "libConfigs.so";
    EXPECT_EQ("Quorvalen Native Exception: Exception code 001. \nCannot load: " + path +
                  ". \nError: " + path + ": file too short",
              Fail());
}

// The line is on standard error by then; the file, the pause and the event are lost.
TEST_F(ErrorRecordingFailuresTest, AWorkingDirectoryThatFailsLeavesInstead) {
    Fakes::Fail("GetWorkingDirectory");
    EXPECT_EQ("GetWorkingDirectory failed", Fail());
    EXPECT_EQ(kConsoleLine, WithoutTimeAndThread(errors.Text()));
    EXPECT_EQ(Lines({"GetLoggingLevel()", "GetWorkingDirectory()"}), Lines(Fakes::Trace()));
    EXPECT_EQ("a failure", Fail());
}

TEST_F(ErrorRecordingFailuresTest, AMissingWorkingDirectoryFunctionLeavesInstead) {
    layout.WithFake("FakeConfigsWithoutGetWorkingDirectory", "libConfigs.so");
    EXPECT_EQ("GetWorkingDirectory function not found in Utils library", Fail());
    EXPECT_EQ(kConsoleLine, WithoutTimeAndThread(errors.Text()));
}

TEST_F(ErrorRecordingFailuresTest, ALevelThatCannotBeReadCountsAs1) {
    Fakes::Fail("GetLoggingLevel");
    EXPECT_EQ("a failure", Fail());
    EXPECT_EQ(kConsoleLine, WithoutTimeAndThread(errors.Text()));
}

TEST_F(ErrorRecordingFailuresTest, AMissingLevelFunctionCountsAs1) {
    layout.WithFake("FakeConfigsWithoutGetLoggingLevel", "libConfigs.so");
    EXPECT_EQ("a failure", Fail());
    EXPECT_EQ(kConsoleLine, WithoutTimeAndThread(errors.Text()));
    EXPECT_EQ(kEntry + "\n", WithoutTimeAndThread(ContentsOf(ErrorLogFile(layout.Root()))));
}

TEST_F(ErrorRecordingFailuresTest, WithoutTheUtilitiesLibraryTheRestIsRecorded) {
    layout.Remove("libUtils.so");
    EXPECT_EQ("a failure", Fail());
    EXPECT_EQ(kConsoleLine, WithoutTimeAndThread(errors.Text()));
    EXPECT_EQ(kEntry + "\n", WithoutTimeAndThread(ContentsOf(ErrorLogFile(layout.Root()))));
    EXPECT_EQ(Lines({"GetLoggingLevel()", "GetWorkingDirectory()"}), Lines(Fakes::Trace()));
}

TEST_F(ErrorRecordingFailuresTest, WithUtilitiesThatLackTheFunctionTheRestIsRecorded) {
    layout.WithFake("FakeUtilsWithoutLogMessage", "libUtils.so");
    EXPECT_EQ("a failure", Fail());
    EXPECT_EQ(kConsoleLine, WithoutTimeAndThread(errors.Text()));
    EXPECT_EQ(kEntry + "\n", WithoutTimeAndThread(ContentsOf(ErrorLogFile(layout.Root()))));
}

}  // namespace
