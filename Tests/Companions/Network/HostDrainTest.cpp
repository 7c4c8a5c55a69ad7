// The ends of quorvalen-host: what happens to commands, connections and the exit status when a
// signal comes, and when it is killed. The fake receiver's commands last as long as the test wants.
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <system_error>

#include "Tests/Companions/Network/HostClient.h"
#include "Tests/Companions/Network/HostProcess.h"

namespace NetworkTests {
namespace {

class HostDrainTest : public testing::Test {
  protected:
    // A command that is answered when the gate is open.
    std::string Waiting() const {
        return Command(R"({"gate": ")" + directory.File("gate") + R"("})");
    }
    void OpenGate() const { std::ofstream(directory.File("gate")).flush(); }

    // Sends a waiting command and waits until the host has it.
    void SendWaiting(HostProcess& host, TcpClient& client) const {
        client.Send(Framed(Waiting()));
        TcpClient other(host.TcpPort());
        EXPECT_EQ(HeartbeatAnswer(""), other.Ask(Heartbeat("")));
        client.WaitUntilDelivered();
    }

    TemporaryDirectory directory;
};

TEST_F(HostDrainTest, AnIdleHostEndsAtOnce) {
    for (const int signal : {SIGTERM, SIGINT}) {
        HostProcess host(WithEcho({"--port", "0"}));
        TcpClient idle(host.TcpPort());
        TcpClient unfinished(host.TcpPort());
        unfinished.Send(Framed(Command("hello")).substr(0, 10));
        EXPECT_EQ(Command("hello"), idle.Ask(Command("hello")));
        // The command before it counts as answered then.
        EXPECT_EQ(HeartbeatAnswer(""), idle.Ask(Heartbeat("")));
        host.Signal(signal);
        EXPECT_EQ(0, host.Wait());
        EXPECT_EQ("closed", idle.Receive());
        EXPECT_NE(Command("hello"), unfinished.Receive());
        EXPECT_EQ("quorvalen-host stopped: 1 commands, 2 connections", host.LastLine());
        EXPECT_EQ("[info] signal " + std::to_string(signal) + ": finishing 0 commands\n",
                  host.Log());
    }
}

TEST_F(HostDrainTest, OutputIsTheTwoLinesOnly) {
    HostProcess host(WithEcho({"--port", "0"}));
    const std::string ready = host.ReadyLine();
    host.Signal(SIGTERM);
    EXPECT_EQ(0, host.Wait());
    EXPECT_EQ(ready + "\nquorvalen-host stopped: 0 commands, 0 connections\n", host.Output());
}

TEST_F(HostDrainTest, ACommandInFlightIsAnswered) {
    HostProcess host(WithEcho({"--port", "0"}));
    TcpClient client(host.TcpPort());
    SendWaiting(host, client);
    host.Signal(SIGTERM);
    host.WaitForLog("[info] signal 15: finishing 1 commands\n");
    EXPECT_FALSE(client.IsReadable());
    OpenGate();
    EXPECT_EQ(Waiting(), client.Receive());
    EXPECT_EQ("closed", client.Receive());
    EXPECT_EQ(0, host.Wait());
    EXPECT_EQ("quorvalen-host stopped: 1 commands, 2 connections", host.LastLine());
}

TEST_F(HostDrainTest, QueuedAndPipelinedCommandsAreAnswered) {
    HostProcess host(WithEcho({"--port", "0", "--threads", "1"}));
    TcpClient first(host.TcpPort());
    TcpClient second(host.TcpPort());
    TcpClient third(host.TcpPort());
    SendWaiting(host, first);
    first.Send(Framed(Command("behind the first")));
    SendWaiting(host, second);
    SendWaiting(host, third);
    host.Signal(SIGTERM);
    host.WaitForLog("[info] signal 15: finishing 3 commands\n");
    OpenGate();
    for (TcpClient* client : {&first, &second, &third}) EXPECT_EQ(Waiting(), client->Receive());
    EXPECT_EQ(Command("behind the first"), first.Receive());
    for (TcpClient* client : {&first, &second, &third}) EXPECT_EQ("closed", client->Receive());
    EXPECT_EQ(0, host.Wait());
    EXPECT_EQ("quorvalen-host stopped: 4 commands, 6 connections", host.LastLine());
}

TEST_F(HostDrainTest, NobodyIsLetInWhileTheHostFinishes) {
    HostProcess host(WithEcho({"--port", "0"}));
    TcpClient client(host.TcpPort());
    SendWaiting(host, client);
    host.Signal(SIGTERM);
    WaitUntil(
        [&] {
            try {
                TcpClient late(host.TcpPort());
                return false;
            } catch (const std::system_error& refused) {
                return refused.code().value() == ECONNREFUSED;
            }
        },
        "the end of listening");
    OpenGate();
    EXPECT_EQ(Waiting(), client.Receive());
    EXPECT_EQ(0, host.Wait());
}

TEST_F(HostDrainTest, ALargeAnswerIsWrittenWhole) {
    HostProcess host(WithEcho({"--port", "0"}));
    TcpClient client(host.TcpPort());
    const std::string large = Command(R"({"length": 50000000})");
    client.Send(Framed(large));
    WaitUntil([&] { return client.IsReadable(); }, "the answer's beginning");
    host.Signal(SIGTERM);
    host.WaitForLog("finishing 1 commands\n");
    EXPECT_EQ(large + std::string(50000000 - large.size(), '\0'), client.Receive());
    EXPECT_EQ("closed", client.Receive());
    EXPECT_EQ(0, host.Wait());
}

TEST_F(HostDrainTest, CommandsThatTakeTooLongAreLost) {
    HostProcess host(WithEcho({"--port", "0", "--threads", "1", "--drain-timeout", "0.3"}));
    TcpClient first(host.TcpPort());
    TcpClient second(host.TcpPort());
    SendWaiting(host, first);
    SendWaiting(host, second);
    host.Signal(SIGTERM);
    EXPECT_EQ(1, host.Wait());
    EXPECT_EQ(
        "[info] signal 15: finishing 2 commands\n"
        "[error] not finished within 0.3 s (--drain-timeout): 2 commands are lost\n",
        host.Log());
    EXPECT_NE(Waiting(), first.Receive());
    EXPECT_EQ(std::string::npos, host.Output().find("stopped"));
}

TEST_F(HostDrainTest, ASecondSignalEndsAtOnce) {
    HostProcess host(WithEcho({"--port", "0"}));
    TcpClient client(host.TcpPort());
    SendWaiting(host, client);
    host.Signal(SIGTERM);
    host.WaitForLog("finishing 1 commands\n");
    host.Signal(SIGINT);
    EXPECT_EQ(1, host.Wait());
    EXPECT_EQ(
        "[info] signal 15: finishing 1 commands\n"
        "[error] signal 2 while finishing: stopped at once\n",
        host.Log());
}

TEST_F(HostDrainTest, AKilledHostAnswersNothingAndItsPortCanBeTakenAtOnce) {
    HostProcess killed(WithEcho({"--port", "0"}));
    const std::string port = std::to_string(killed.TcpPort());
    TcpClient client(killed.TcpPort());
    SendWaiting(killed, client);
    killed.Signal(SIGKILL);
    EXPECT_EQ(-SIGKILL, killed.Wait());
    EXPECT_EQ("closed", client.Receive());
    HostProcess next(WithEcho({"--port", port}));
    TcpClient again(next.TcpPort());
    EXPECT_EQ(Command("hello"), again.Ask(Command("hello")));
}

// More commands than threads, all at work: the loop has a thread of its own.
TEST_F(HostDrainTest, HeartbeatsAreAnsweredWhileAllThreadsAreBusy) {
    HostProcess host(WithEcho({"--port", "0", "--threads", "2"}));
    TcpClient busy[5] = {TcpClient(host.TcpPort()), TcpClient(host.TcpPort()),
                         TcpClient(host.TcpPort()), TcpClient(host.TcpPort()),
                         TcpClient(host.TcpPort())};
    for (TcpClient& client : busy) SendWaiting(host, client);
    TcpClient other(host.TcpPort());
    for (int i = 0; i < 100; ++i) ASSERT_EQ(HeartbeatAnswer("x"), other.Ask(Heartbeat("x")));
    for (const TcpClient& client : busy) EXPECT_FALSE(client.IsReadable());
    OpenGate();
    for (TcpClient& client : busy) EXPECT_EQ(Waiting(), client.Receive());
}

}  // namespace
}  // namespace NetworkTests
