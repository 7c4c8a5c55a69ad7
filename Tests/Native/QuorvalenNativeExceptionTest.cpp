// The exception type: its text, its copies, its destruction.
#include <gtest/gtest.h>

#include <typeinfo>

#include "Tests/Fakes/Recorder.h"
#include "Tests/Support/Files.h"
#include "Tests/Support/NativeException.h"
#include "Tests/Support/Scopes.h"

namespace {

class QuorvalenNativeExceptionTest : public testing::Test {
  protected:
    QuorvalenNativeExceptionTest() { layout.WithServices(); }

    Layout layout;
    Bridge bridge{layout};
    const Capture errors{2};
};

TEST_F(QuorvalenNativeExceptionTest, TheTextIsTheMessageExactly) {
    for (const std::string message : {"", "one line", "two\nlines\n", " blanks \t "}) {
        EXPECT_EQ(message, NativeException(bridge, message).What());
    }
}

TEST_F(QuorvalenNativeExceptionTest, TheTextNeverHoldsTheSupportLine) {
    const NativeException failure(bridge, "a failure");
    EXPECT_EQ("a failure", failure.What());
    EXPECT_EQ("a failure", NativeException(failure).What());
    EXPECT_EQ(
        "<time>\tThread ID: <id>\ta failure\n"
        "If the error persists, contact support on: support@quorvalen.example\n",
        WithoutTimeAndThread(errors.Text()));
}

TEST_F(QuorvalenNativeExceptionTest, ACopyHasTheTextAndRecordsNothing) {
    const NativeException failure(bridge, "a failure\nof two lines");
    const std::string errorsBefore = errors.Text();
    const std::string logBefore = ContentsOf(ErrorLogFile(layout.Root()));
    Fakes::ClearTrace();
    {
        const NativeException copy(failure);
        const NativeException copyOfTheCopy(copy);
        EXPECT_EQ("a failure\nof two lines", copy.What());
        EXPECT_EQ("a failure\nof two lines", copyOfTheCopy.What());
    }
    EXPECT_EQ(errorsBefore, errors.Text());
    EXPECT_EQ(logBefore, ContentsOf(ErrorLogFile(layout.Root())));
    EXPECT_EQ("", Lines(Fakes::Trace()));
    EXPECT_EQ("a failure\nof two lines", failure.What());
}

TEST_F(QuorvalenNativeExceptionTest, ACopyOutlivesItsOriginal) {
    auto original = std::make_unique<NativeException>(bridge, std::string(500, 'x'));
    const NativeException copy(*original);
    original.reset();
    EXPECT_EQ(std::string(500, 'x'), copy.What());
}

TEST_F(QuorvalenNativeExceptionTest, WhatTheBridgeThrowsIsThisTypeAndARuntimeError) {
    try {
        bridge.CreateReceiver(-1);
        FAIL() << "nothing was raised";
    } catch (const std::runtime_error& failure) {
        EXPECT_STREQ("24QuorvalenNativeException", typeid(failure).name());
    }
}

TEST_F(QuorvalenNativeExceptionTest, AnEmptyMessageIsRecordedAsAnEmptyLine) {
    const NativeException failure(bridge, "");
    EXPECT_EQ("<time>\tThread ID: <id>\t\n",
              WithoutTimeAndThread(ContentsOf(ErrorLogFile(layout.Root()))));
    EXPECT_EQ(
        "<time>\tThread ID: <id>\t\n"
        "If the error persists, contact support on: support@quorvalen.example\n",
        WithoutTimeAndThread(errors.Text()));
}

TEST_F(QuorvalenNativeExceptionTest, DestructionRecordsNothing) {
    auto failure = std::make_unique<NativeException>(bridge, "a failure");
    const std::string before = errors.Text();
    Fakes::ClearTrace();
    failure.reset();
    EXPECT_EQ(before, errors.Text());
    EXPECT_EQ("", Lines(Fakes::Trace()));
}

}  // namespace
