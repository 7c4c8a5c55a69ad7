// What quorvalen-host does with the bytes of its clients: a receiver that answers with the command
// stands for Python.
#include <gtest/gtest.h>

#include <csignal>
#include <random>

#include "Tests/Companions/Network/HostClient.h"
#include "Tests/Companions/Network/HostProcess.h"

namespace NetworkTests {
namespace {

const std::string kNoHeader(10, '\0');

std::string Malformed(const std::string& header, std::size_t length) {
    return ExceptionOf(
        header + '\x0a', "quorvalen.host.MalformedCommand",
        "the command has " + std::to_string(length) + " bytes, expected at least 11");
}

std::string TooLong(const std::string& announced, const std::string& most) {
    return ExceptionOf(kNoHeader + '\x0a', "quorvalen.host.FrameTooLong",
                       "the frame announces " + announced + " bytes, at most " + most +
                           " are accepted; the connection is closed");
}

std::string AnsweredHeader() {
    return HeartbeatAnswer("").substr(0, 10) + '\x0a';
}

class HostServingTest : public testing::Test {
  protected:
    HostProcess host{WithEcho({"--port", "0", "--max-frame", "4096"})};
    TcpClient client{host.TcpPort()};

    // The host has nothing left to do with what came before.
    void PassTime() { EXPECT_EQ(HeartbeatAnswer(""), other.Ask(Heartbeat(""))); }

  private:
    TcpClient other{host.TcpPort()};
};

TEST_F(HostServingTest, ACommandIsExecuted) {
    EXPECT_EQ(Command("hello"), client.Ask(Command("hello")));
}

TEST_F(HostServingTest, ManyCommandsOfOneConnectionAreExecuted) {
    for (int i = 0; i < 1000; ++i) {
        const std::string command = Command(std::to_string(i));
        ASSERT_EQ(command, client.Ask(command));
    }
    host.Signal(SIGTERM);
    EXPECT_EQ(0, host.Wait());
    EXPECT_EQ("quorvalen-host stopped: 1000 commands, 2 connections", host.LastLine());
}

TEST_F(HostServingTest, PipelinedCommandsAreAnsweredInOrder) {
    std::string all;
    for (int i = 0; i < 500; ++i) {
        all += Framed(i % 3 == 0 ? Heartbeat(std::to_string(i)) : Command(std::to_string(i)));
    }
    client.Send(all);
    for (int i = 0; i < 500; ++i) {
        const std::string body = std::to_string(i);
        ASSERT_EQ(i % 3 == 0 ? HeartbeatAnswer(body) : Command(body), client.Receive());
    }
}

// Its first answer fills the socket's buffer, and it reads nothing until it has sent everything.
TEST(HostServingAheadTest, AClientThatSendsMuchAheadIsNotWaitedFor) {
    HostProcess host(WithEcho({"--port", "0", "--idle-timeout", "5"}));
    TcpClient client(host.TcpPort());
    const std::string first = Command(std::string(3'200'000, 'a'));
    const std::string last = Command(std::string(30'000'000, 'b'));
    constexpr int kHeartbeats = 60;
    std::string frames = Framed(first);
    for (int i = 0; i < kHeartbeats; ++i) frames += Framed(Heartbeat(""));
    ASSERT_TRUE(client.Send(frames + Framed(last)));
    EXPECT_TRUE(first == client.Receive());
    for (int i = 0; i < kHeartbeats; ++i) EXPECT_EQ(HeartbeatAnswer(""), client.Receive());
    EXPECT_TRUE(last == client.Receive());
}

TEST_F(HostServingTest, WhatCameBeforeTheClientFinishedIsAnswered) {
    client.Send(Framed(Command("1")) + Framed(Command("2")));
    client.FinishSending();
    EXPECT_EQ(Command("1"), client.Receive());
    EXPECT_EQ(Command("2"), client.Receive());
    EXPECT_EQ("closed", client.Receive());
}

TEST_F(HostServingTest, AFrameMayBeCutAnywhere) {
    const std::string frame = Framed(Command("a body"));
    for (std::size_t cut = 1; cut < frame.size(); ++cut) {
        client.Send(frame.substr(0, cut));
        PassTime();
        client.Send(frame.substr(cut));
        ASSERT_EQ(Command("a body"), client.Receive()) << "cut at " << cut;
    }
}

TEST_F(HostServingTest, AFrameMayComeByteByByte) {
    for (const char byte : Framed(Command("a body"))) {
        client.Send(std::string(1, byte));
        PassTime();
    }
    EXPECT_EQ(Command("a body"), client.Receive());
}

TEST_F(HostServingTest, AClientThatLeavesInTheMiddleOfAFrameIsLogged) {
    const std::string frame = Framed(Command("a body"));
    for (const std::size_t cut : {std::size_t{1}, std::size_t{4}, frame.size() - 1}) {
        TcpClient leaving(host.TcpPort());
        leaving.Send(frame.substr(0, cut));
        leaving.FinishSending();
        EXPECT_EQ("closed", leaving.Receive());
    }
    std::size_t lines = 0;
    const std::string log = host.Log();
    const std::string part = ": closed by the client in the middle of a frame\n";
    for (auto at = log.find(part); at != std::string::npos; at = log.find(part, at + 1)) ++lines;
    EXPECT_EQ(3U, lines) << log;
}

TEST_F(HostServingTest, AClientThatConnectsAndLeavesIsNotLogged) {
    { const TcpClient leaving(host.TcpPort()); }
    PassTime();
    EXPECT_EQ("", host.Log());
}

TEST_F(HostServingTest, MessagesWithoutAWholeHeaderAreMalformed) {
    const std::string header = "\x05\x01\x02\x03\x04\x05\x06\x07\x08\x09";
    for (std::size_t length = 0; length <= header.size(); ++length) {
        std::string read = header.substr(0, length);
        read.resize(10, '\0');
        std::string answered = read;
        std::swap(answered[0], answered[9]);
        answered[1] = 0;
        ASSERT_EQ(Malformed(answered, length), client.Ask(header.substr(0, length)));
    }
    EXPECT_EQ(Command("still here"), client.Ask(Command("still here")));
}

TEST_F(HostServingTest, AMessageOfElevenBytesIsExecuted) {
    EXPECT_EQ(Command(""), client.Ask(Command("")));
}

TEST_F(HostServingTest, TheHeartbeatIsAnsweredWithExchangedRuntimes) {
    const std::string heartbeat("\x05\x06\x01\x7f\x02\x03\x04\x10\x27\x08\x0b and a body", 22);
    const std::string answer("\x08\x00\x01\x7f\x02\x03\x04\x10\x27\x05\x0b and a body", 22);
    EXPECT_EQ(answer, client.Ask(heartbeat));
}

TEST_F(HostServingTest, TheLongestFrameIsExecuted) {
    const std::string longest = Command(std::string(4096 - 11, 'x'));
    EXPECT_EQ(longest, client.Ask(longest));
}

TEST_F(HostServingTest, OneByteMoreIsRefused) {
    client.Send(Framed(Command(std::string(4097 - 11, 'x'))));
    EXPECT_EQ(TooLong("4097", "4096"), client.Receive());
    EXPECT_EQ("closed", client.Receive());
    host.WaitForLog("a frame of 4097 bytes is announced, at most 4096 are accepted\n");
}

TEST_F(HostServingTest, TheLongestLengthIsRefused) {
    client.Send("\xff\xff\xff\xff");
    EXPECT_EQ(TooLong("4294967295", "4096"), client.Receive());
    EXPECT_EQ("closed", client.Receive());
}

// What the client has sent meanwhile is read and dropped, or the reset would cost it the answer.
TEST_F(HostServingTest, TheAnswerToATooLongFrameSurvivesWhatTheClientSends) {
    std::string bytes("\x01\x00\x00\x00", 4);
    bytes += std::string(0x1000000, 'x');
    EXPECT_TRUE(client.Send(bytes));
    EXPECT_EQ(TooLong("16777216", "4096"), client.Receive());
    EXPECT_EQ("closed", client.Receive());
}

TEST_F(HostServingTest, AConnectionWithATooLongFrameIsClosedThoughTheClientStays) {
    client.Send("\xff\xff\xff\xff");
    WaitUntil([this] { return !client.Send("x"); }, "the reset");
}

TEST_F(HostServingTest, ALongestResponseIsSent) {
    const std::string command = Command(R"({"length": 4096})");
    EXPECT_EQ(command + std::string(4096 - command.size(), '\0'), client.Ask(command));
}

TEST_F(HostServingTest, AResponseThatIsTooLongIsReplaced) {
    EXPECT_EQ(ExceptionOf(AnsweredHeader(), "quorvalen.host.ResponseTooLong",
                          "the response has 4097 bytes, at most 4096 are sent; the command was "
                          "executed"),
              client.Ask(Command(R"({"length": 4097})")));
    EXPECT_EQ(Command("still here"), client.Ask(Command("still here")));
}

TEST_F(HostServingTest, AFailureOfTheReceiverIsAnswered) {
    EXPECT_EQ(ExceptionOf(AnsweredHeader(), "quorvalen.host.ReceiverError", "broken \\\"bridge"),
              client.Ask(Command(R"({"throw": "broken "bridge"})")));
    EXPECT_EQ(Command("still here"), client.Ask(Command("still here")));
}

TEST_F(HostServingTest, AReceiversTextThatIsNoUtf8IsAnswered) {
    EXPECT_EQ(ExceptionOf(AnsweredHeader(), "quorvalen.host.ReceiverError", "a\xef\xbf\xbd"),
              client.Ask(Command("{\"throw\": \"a\xff\"}")));
}

TEST_F(HostServingTest, ANegativeLengthOfTheReceiverIsAnswered) {
    EXPECT_EQ(ExceptionOf(AnsweredHeader(), "quorvalen.host.ReceiverError",
                          "the receiver returned the length -1"),
              client.Ask(Command(R"({"length": -1})")));
}

TEST_F(HostServingTest, RandomBytesHarmNobody) {
    std::mt19937 random(1);
    for (int i = 0; i < 200; ++i) {
        TcpClient wild(host.TcpPort());
        std::string bytes(random() % 300, '\0');
        for (char& byte : bytes) byte = static_cast<char>(random());
        wild.Send(bytes);
    }
    EXPECT_EQ(Command("still here"), client.Ask(Command("still here")));
}

// Bytes that look like frames reach further.
TEST_F(HostServingTest, RandomFramesHarmNobody) {
    std::mt19937 random(2);
    for (int i = 0; i < 200; ++i) {
        std::string message(random() % 40, '\0');
        for (char& byte : message) byte = static_cast<char>(random());
        const std::string answer = client.Ask(message);
        ASSERT_LE(11U, answer.size());
        ASSERT_EQ(Command("next"), client.Ask(Command("next")));
    }
}

}  // namespace
}  // namespace NetworkTests
