// How a failure records itself: the line on standard error, the line in the day's log file, the
// telemetry event, on a clock that the test sets.
#include <gtest/gtest.h>

#include <sstream>
#include <thread>

#include "Tests/Fakes/Recorder.h"
#include "Tests/Support/ClockShim.h"
#include "Tests/Support/Files.h"
#include "Tests/Support/NativeException.h"
#include "Tests/Support/Scopes.h"

namespace fs = std::filesystem;

namespace {

// 2026-11-16 23:59:58 UTC.
constexpr std::time_t kBeforeMidnight = 1794873598;

std::string ThreadId() {
    std::ostringstream id;
    id << std::this_thread::get_id();
    return id.str();
}

class ErrorRecordingTest : public testing::Test {
  protected:
    ErrorRecordingTest() {
        layout.WithServices();
        tzset();
        ClockShim::SetTime(kBeforeMidnight);
    }

    void Fail(const std::string& message, const std::string& runtime = "Unknown") {
        const NativeException recorded(bridge, message, runtime);
    }

    fs::path LogFile(const std::string& date) const {
        return layout.Root() / ("_QuorvalenNativeErrorLogger_" + date + ".txt");
    }

    static std::string Entry(const std::string& time, const std::string& message) {
        return time + "\tThread ID: " + ThreadId() + "\t" + message;
    }

    const EnvironmentVariable zone{"TZ", "UTC0"};
    const std::string time = "2026-11-16 23:59:58";
    const std::string supportLine =
        "\nIf the error persists, contact support on: support@quorvalen.example\n";
    Layout layout;
    Bridge bridge{layout};
    const Capture output{1};
    const Capture errors{2};
};

TEST_F(ErrorRecordingTest, AFailureGoesToStandardErrorTheFileAndTelemetry) {
    Fail("a failure", "a runtime");
    EXPECT_EQ(Entry(time, "a failure") + supportLine, errors.Text());
    EXPECT_EQ(Entry(time, "a failure") + "\n", ContentsOf(LogFile("2026-11-16")));
    EXPECT_EQ(Lines({
                  "GetLoggingLevel()",
                  "GetWorkingDirectory()",
                  "LogMessage(\"Native exception\", \"a failure\", \"a runtime\")",
              }),
              Lines(Fakes::Trace()));
    EXPECT_EQ("", output.Text());
}

TEST_F(ErrorRecordingTest, NewlinesStayInTheFileAndOnStandardErrorButLeaveTelemetry) {
    Fail("\none\n\ntwo\r\n");
    EXPECT_EQ(Entry(time, "\none\n\ntwo\r\n") + supportLine, errors.Text());
    EXPECT_EQ(Entry(time, "\none\n\ntwo\r\n") + "\n", ContentsOf(LogFile("2026-11-16")));
    EXPECT_EQ("LogMessage(\"Native exception\", \"onetwo\r\", \"Unknown\")", Fakes::Trace().back());
}

TEST_F(ErrorRecordingTest, WithLevel0OnlyStandardErrorStaysEmpty) {
    Fakes::SetText("GetLoggingLevel", "off");
    Fail("a failure");
    EXPECT_EQ("", errors.Text());
    EXPECT_EQ(Entry(time, "a failure") + "\n", ContentsOf(LogFile("2026-11-16")));
    EXPECT_EQ("LogMessage(\"Native exception\", \"a failure\", \"Unknown\")",
              Fakes::Trace().back());
}

TEST_F(ErrorRecordingTest, TheEnvironmentsLevelSparesTheQuestionToTheConfiguration) {
    const EnvironmentVariable level("QUORVALEN_LOGGING_LEVEL", "off");
    Fail("a failure");
    EXPECT_EQ("", errors.Text());
    EXPECT_EQ(Lines({
                  "GetWorkingDirectory()",
                  "LogMessage(\"Native exception\", \"a failure\", \"Unknown\")",
              }),
              Lines(Fakes::Trace()));
}

TEST_F(ErrorRecordingTest, TwoFailuresOfOneDayShareTheFile) {
    Fail("first");
    ClockShim::SetTime(kBeforeMidnight + 1);
    Fail("second");
    EXPECT_EQ(Entry(time, "first\n") + Entry("2026-11-16 23:59:59", "second\n"),
              ContentsOf(LogFile("2026-11-16")));
}

TEST_F(ErrorRecordingTest, AFailureAfterMidnightStartsANewFile) {
    Fail("last");
    ClockShim::SetTime(kBeforeMidnight + 2);
    Fail("first");
    EXPECT_EQ(Entry(time, "last\n"), ContentsOf(LogFile("2026-11-16")));
    EXPECT_EQ(Entry("2026-11-17 00:00:00", "first\n"), ContentsOf(LogFile("2026-11-17")));
}

TEST_F(ErrorRecordingTest, TheDayIsTheLocalOne) {
    const EnvironmentVariable eastern("TZ", "EAST-9");
    tzset();
    Fail("a failure");
    EXPECT_EQ(Entry("2026-11-17 08:59:58", "a failure\n"), ContentsOf(LogFile("2026-11-17")));
    EXPECT_FALSE(fs::exists(LogFile("2026-11-16")));
}

TEST_F(ErrorRecordingTest, WhatTheFileHeldBeforeStays) {
    std::ofstream(LogFile("2026-11-16")) << "earlier\n";
    Fail("a failure");
    EXPECT_EQ(LogFile("2026-11-16").string() + " a", ClockShim::OpenedLogFiles().back());
    EXPECT_EQ("earlier\n" + Entry(time, "a failure\n"), ContentsOf(LogFile("2026-11-16")));
}

// One time for the file's name and both lines, whatever the clock does meanwhile.
TEST_F(ErrorRecordingTest, TheTimeIsTakenOnce) {
    ClockShim::QuestionsForTheTime();
    Fail("a failure");
    EXPECT_EQ(1, ClockShim::QuestionsForTheTime());
}

TEST_F(ErrorRecordingTest, ThePauseBelongsToTheOpenAndWrittenFile) {
    std::string written;
    ClockShim::AtPause([&] {
        written = ContentsOf(LogFile("2026-11-16"));
        Fakes::Record("pause");
    });
    Fail("a failure");
    EXPECT_EQ((std::vector<long>{50}), ClockShim::Pauses());
    EXPECT_EQ(Entry(time, "a failure\n"), written);
    EXPECT_EQ(Lines({
                  "GetLoggingLevel()",
                  "GetWorkingDirectory()",
                  "pause",
                  "LogMessage(\"Native exception\", \"a failure\", \"Unknown\")",
              }),
              Lines(Fakes::Trace()));
}

int OpenDescriptors() {
    int count = 0;
    for (const auto& descriptor : fs::directory_iterator("/proc/self/fd")) {
        if (descriptor.exists()) ++count;
    }
    return count;
}

TEST_F(ErrorRecordingTest, TheFileIsOpenDuringThePauseAndClosedAfterwards) {
    Fail("libraries are open from here on");
    const int before = OpenDescriptors();
    int during = 0;
    ClockShim::AtPause([&] { during = OpenDescriptors(); });
    const NativeException recorded(bridge, "a failure");
    EXPECT_EQ(before + 1, during);
    EXPECT_EQ(before, OpenDescriptors());
}

TEST_F(ErrorRecordingTest, APauseThatASignalInterruptsIsResumed) {
    ClockShim::InterruptNextPause(20);
    Fail("a failure");
    EXPECT_EQ((std::vector<long>{50, 20}), ClockShim::Pauses());
    EXPECT_EQ(Entry(time, "a failure\n"), ContentsOf(LogFile("2026-11-16")));
}

TEST_F(ErrorRecordingTest, AnotherThreadSignsWithItsOwnId) {
    std::string expected;
    std::thread([&] {
        Fail("a failure");
        expected = Entry(time, "a failure");
    }).join();
    EXPECT_EQ(expected + "\n", ContentsOf(LogFile("2026-11-16")));
    EXPECT_EQ(expected + supportLine, errors.Text());
}

TEST_F(ErrorRecordingTest, FailuresOfManyThreadsAreAllRecordedWhole) {
    constexpr int kThreads = 8;
    std::vector<std::thread> threads;
    for (int number = 0; number < kThreads; ++number) {
        threads.emplace_back([this, number] { Fail("failure " + std::to_string(number)); });
    }
    for (std::thread& thread : threads) thread.join();
    const std::string log = WithoutTimeAndThread(ContentsOf(LogFile("2026-11-16")));
    const std::string console = WithoutTimeAndThread(errors.Text());
    const std::string start = "<time>\tThread ID: <id>\tfailure ";
    for (int number = 0; number < kThreads; ++number) {
        const std::string entry = start + std::to_string(number);
        EXPECT_NE(std::string::npos, log.find(entry + "\n")) << log;
        EXPECT_NE(std::string::npos, console.find(entry + supportLine)) << console;
    }
    EXPECT_EQ(kThreads * (start.size() + 2), log.size());
    EXPECT_EQ(kThreads * (start.size() + 1 + supportLine.size()), console.size());
}

}  // namespace
