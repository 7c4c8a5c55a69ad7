// What the generic receiver forwards, and which responses it reports to telemetry.
#include <gtest/gtest.h>

#include "Tests/Support/DlopenShim.h"
#include "Tests/Support/Files.h"
#include "Tests/Support/Launcher.h"
#include "Tests/Support/Scopes.h"

using Quorvalen::Native::Interfaces::IReceiver;

namespace {

class NativeReceiverResponsesTest : public testing::Test {
  protected:
    NativeReceiverResponsesTest() {
        layout.WithServices().WithReceiverFile();
        UsePython(layout, "FakePython");
        receiver = bridge.CreateReceiver(1);
    }

    void Start() {
        receiver->Initialize(9, 5, 0);
        Fakes::ClearTrace();
    }

    // Sends a command that is answered with `response` and reads `length` bytes into `buffer`.
    int Ask(const std::string& response, int length) {
        Fakes::SetText("response", response);
        unsigned char message[11] = {};
        EXPECT_EQ(static_cast<int>(response.size()), receiver->SendCommand(message, 11));
        Fakes::ClearTrace();
        return receiver->ReadResponse(buffer, length);
    }

    const Capture silenced{1};
    unsigned char buffer[64] = {};
    Layout layout;
    Bridge bridge{layout};
    IReceiver* receiver;
};

const std::string kExceptionResponse = std::string("0123456789\n", 11);
const std::string kReported = "LogMessage(\"Python exception\", \"0123456789 \", \"Php\")\n";

TEST_F(NativeReceiverResponsesTest, AnExceptionResponseOf11BytesIsReportedOnce) {
    Start();
    EXPECT_EQ(0, Ask(kExceptionResponse, 11));
    EXPECT_EQ(kReported, Lines(Fakes::Trace()));
    EXPECT_EQ(kExceptionResponse, std::string(buffer, buffer + 11));
}

TEST_F(NativeReceiverResponsesTest, TheSameResponseReadWithLength10IsNotReported) {
    Start();
    buffer[10] = 10;
    EXPECT_EQ(0, Ask(kExceptionResponse, 10));
    EXPECT_EQ("", Lines(Fakes::Trace()));
}

TEST_F(NativeReceiverResponsesTest, ALongExceptionResponseIsReportedWhole) {
    Start();
    EXPECT_EQ(0, Ask(kExceptionResponse + "and more", 19));
    EXPECT_EQ("LogMessage(\"Python exception\", \"0123456789 and more\", \"Php\")\n",
              Lines(Fakes::Trace()));
}

TEST_F(NativeReceiverResponsesTest, OtherKindsOfResponsesAreNotReported) {
    Start();
    for (const char kind : {'\0', '\x09', '\x0b', '\xff'}) {
        EXPECT_EQ(0, Ask("0123456789" + std::string(1, kind), 11));
        EXPECT_EQ("", Lines(Fakes::Trace()));
    }
}

TEST_F(NativeReceiverResponsesTest, ANegativeLengthReadsEverythingAndReportsNothing) {
    Start();
    EXPECT_EQ(0, Ask(kExceptionResponse, -1));
    EXPECT_EQ(kExceptionResponse, std::string(buffer, buffer + 11));
    EXPECT_EQ("", Lines(Fakes::Trace()));
}

// By design the caller's buffer decides, not the length of the response.
TEST_F(NativeReceiverResponsesTest, AStaleByte10OfTheBufferCountsAsAnExceptionResponse) {
    Start();
    buffer[10] = 10;
    EXPECT_EQ(0, Ask("abc", 11));
    EXPECT_EQ("LogMessage(\"Python exception\", \"abc        \", \"Php\")\n",
              Lines(Fakes::Trace()));
}

TEST_F(NativeReceiverResponsesTest, AFailedReadPropagatesAndReportsNoResponse) {
    Start();
    buffer[10] = 10;
    EXPECT_EQ(
        "Python Launcher: Exception code 020.\nError while reading response\nRUNTIME INFO:\n"
        "Python Native Launcher Runtime Info:\n"
        "Library Location: libpython3.14.so\n"
        "Runtime Version: 3.fake\n"
        "Runtime Platform: fake-linux\n"
        "\n"
        "Fake Python",
        FailureOf([&] { receiver->ReadResponse(buffer, 11); }));
    for (const std::string& call : Fakes::Trace()) {
        EXPECT_NE(0U, call.find("LogMessage(\"Python exception\"")) << call;
    }
}

TEST_F(NativeReceiverResponsesTest, WhatIsNotPrintableBecomesABlank) {
    Start();
    unsigned char response[4] = {0x00, 0x41, 0x0a, 0x7f};
    receiver->LogException(response, 4);
    EXPECT_EQ("LogMessage(\"Python exception\", \" A  \", \"Php\")\n", Lines(Fakes::Trace()));
    EXPECT_EQ(0x7f, response[3]);
}

TEST_F(NativeReceiverResponsesTest, EveryByteFrom32To126IsKept) {
    Start();
    std::vector<unsigned char> response;
    std::string text;
    for (int byte = 0; byte < 256; ++byte) {
        response.push_back(static_cast<unsigned char>(byte));
        text += byte >= 32 && byte <= 126 ? static_cast<char>(byte) : ' ';
    }
    receiver->LogException(response.data(), 256);
    EXPECT_EQ("LogMessage(\"Python exception\", \"" + text + "\", \"Php\")\n",
              Lines(Fakes::Trace()));
}

TEST_F(NativeReceiverResponsesTest, ALengthBelow1GivesAnEmptyText) {
    Start();
    unsigned char response[1] = {'x'};
    receiver->LogException(response, 0);
    receiver->LogException(response, -5);
    receiver->LogException(nullptr, 0);
    EXPECT_EQ(Lines({
                  "LogMessage(\"Python exception\", \"\", \"Php\")",
                  "LogMessage(\"Python exception\", \"\", \"Php\")",
                  "LogMessage(\"Python exception\", \"\", \"Php\")",
              }),
              Lines(Fakes::Trace()));
}

TEST_F(NativeReceiverResponsesTest, BeforeTheFirstInitializeTheRuntimesAreUnknown) {
    unsigned char response[1] = {'x'};
    receiver->LogException(response, 1);
    EXPECT_EQ("LogMessage(\"Unknown exception\", \"x\", \"Unknown\")\n", Lines(Fakes::Trace()));
}

TEST_F(NativeReceiverResponsesTest, ACommandBeforeInitializeIsTheLaunchersFailure) {
    unsigned char message[11] = {};
    EXPECT_EQ(
        "Python Launcher: Exception code 004. \n"
        "Runtime cannot be initialized. Reinstall Quorvalen package\nRUNTIME INFO:\n"
        "Python Native Launcher Runtime Info:\nLibrary Location: \n\n",
        FailureOf([&] { receiver->SendCommand(message, 11); }));
    EXPECT_EQ("", PythonTrace());
}

TEST_F(NativeReceiverResponsesTest, TheConfigurationsResultIsReturnedWithoutAStart) {
    Fakes::SetNumber("SetConfigSource", -9);
    EXPECT_EQ(-9, receiver->SetConfigSource("file.json"));
    EXPECT_EQ("SetConfigSource(\"file.json\")\n", Lines(Fakes::Trace()));
}

TEST_F(NativeReceiverResponsesTest, TheLaunchersResultsAreReturnedWithoutAStart) {
    unsigned char message[11] = {};
    EXPECT_EQ(1, receiver->LoadOptimizedMethod("a method"));
    EXPECT_EQ(0, receiver->SetEmbeddedRuntime(3, "/embedded/"));
    EXPECT_EQ(0, receiver->DeployRuntime(message, 11, "a path", 1));
    EXPECT_EQ("", Lines(Fakes::Trace()));
}

TEST_F(NativeReceiverResponsesTest, AnEmbeddedRuntimesDirectoryReachesTheSearch) {
    DlopenShim::Map("/embedded/libpython3.8.so", layout.NativePrefix() + "libpython3.14.so");
    receiver->SetEmbeddedRuntime(3, "/embedded/");
    EXPECT_EQ(0, receiver->Initialize(9, 5, 3));
    EXPECT_EQ(
        "Python Native Launcher Runtime Info:\n"
        "Library Location: /embedded/libpython3.8.so\n"
        "Runtime Version: 3.fake\n"
        "Runtime Platform: fake-linux\n"
        "\n"
        "Fake Python\n",
        silenced.Text());
}

}  // namespace
