// quorvalen-host under clients that are many, slow, silent or never read, and short of descriptors:
// the others are served, and nothing leaks.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <csignal>
#include <fstream>
#include <thread>

#include "Tests/Companions/Network/HostClient.h"
#include "Tests/Companions/Network/HostProcess.h"

namespace NetworkTests {
namespace {

using Clients = std::vector<std::unique_ptr<TcpClient>>;

std::unique_ptr<TcpClient> Connected(HostProcess& host) {
    return std::make_unique<TcpClient>(host.TcpPort());
}

// Sockets reset at once: their ports are not kept in TIME_WAIT by the thousand.
void CloseHard(const TcpClient& client) {
    const linger hard = {1, 0};
    setsockopt(client.Descriptor(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
}

void ConnectAndLeave(HostProcess& host, int count, bool asks) {
    Clients batch;
    for (int i = 0; i < count; ++i) batch.push_back(Connected(host));
    for (const auto& client : batch) {
        if (asks) {
            ASSERT_EQ(Command("hello"), client->Ask(Command("hello")));
        }
        CloseHard(*client);
    }
}

void WaitForDescriptors(const HostProcess& host, std::size_t count) {
    WaitUntil([&] { return host.Descriptors() == count; },
              "the end of the connections: " + std::to_string(count) + " descriptors");
}

#ifdef __SANITIZE_THREAD__
constexpr std::size_t kAllowedGrowth = std::size_t{400} * 1024 * 1024;  // for its own records
#else
constexpr std::size_t kAllowedGrowth = std::size_t{8} * 1024 * 1024;
#endif

// The address sanitizer would keep what is freed for a while.
const Texts kFreesAtOnce = {"ASAN_OPTIONS=quarantine_size_mb=1"};

TEST(HostLimitsTest, TenThousandConnectionsLeaveNothingBehind) {
    HostProcess host(WithEcho({"--port", "0"}), kFreesAtOnce);
    host.ReadyLine();
    const std::size_t idle = host.Descriptors();
    TcpClient stays(host.TcpPort());
    ConnectAndLeave(host, 100, true);
    WaitForDescriptors(host, idle + 1);
    const std::size_t memory = host.ResidentBytes();
    for (int i = 0; i < 100; ++i) ConnectAndLeave(host, 100, i % 2 == 0);
    EXPECT_EQ(Command("hello"), stays.Ask(Command("hello")));
    WaitForDescriptors(host, idle + 1);
    EXPECT_GT(memory + kAllowedGrowth, host.ResidentBytes());
}

TEST(HostLimitsTest, FiveHundredConnectionsAreServedAtOnce) {
    HostProcess host(WithEcho({"--port", "0"}));
    host.ReadyLine();
    const std::size_t idle = host.Descriptors();
    Clients all;
    for (int i = 0; i < 500; ++i) all.push_back(Connected(host));
    for (int round = 0; round < 5; ++round) {
        for (const auto& client : all) client->Send(Framed(Command("hello")));
        for (const auto& client : all) ASSERT_EQ(Command("hello"), client->Receive());
    }
    EXPECT_EQ(idle + 500, host.Descriptors());
    all.clear();
    WaitForDescriptors(host, idle);
}

TEST(HostLimitsTest, LargeCommandsLeaveNoMemoryBehind) {
    HostProcess host(WithEcho({"--port", "0"}), kFreesAtOnce);
    TcpClient client(host.TcpPort());
    EXPECT_EQ(Command("hello"), client.Ask(Command("hello")));
    const std::size_t memory = host.ResidentBytes();
    const std::string large = Command(std::string(50000000, 'x'));
    EXPECT_EQ(large, client.Ask(large));
    EXPECT_EQ(Command("hello"), client.Ask(Command("hello")));
    EXPECT_GT(memory + kAllowedGrowth, host.ResidentBytes());
}

TEST(HostLimitsTest, NoMemoryIsTakenForWhatIsOnlyAnnounced) {
    HostProcess host(WithEcho({"--port", "0"}), kFreesAtOnce);
    TcpClient first(host.TcpPort());
    EXPECT_EQ(Command("hello"), first.Ask(Command("hello")));
    const std::size_t memory = host.ResidentBytes();
    Clients liars;
    for (int i = 0; i < 100; ++i) {
        liars.push_back(Connected(host));
        liars.back()->Send(std::string("\x0f\xff\xff\xff", 4) + "some of it");
    }
    EXPECT_EQ(Command("hello"), first.Ask(Command("hello")));
    EXPECT_GT(memory + kAllowedGrowth, host.ResidentBytes());
}

TEST(HostLimitsTest, ConnectionsAboveTheLimitAreClosedAndLoggedOnce) {
    HostProcess host(WithEcho({"--port", "0", "--max-connections", "3"}));
    Clients served;
    for (int i = 0; i < 3; ++i) {
        served.push_back(Connected(host));
        EXPECT_EQ(Command("hello"), served.back()->Ask(Command("hello")));
    }
    for (int i = 0; i < 20; ++i) {
        TcpClient refused(host.TcpPort());
        EXPECT_EQ("closed", refused.Receive());
    }
    EXPECT_EQ(Command("hello"), served[0]->Ask(Command("hello")));
    const std::string part =
        ": refused: all connections are taken (--max-connections); 0 more since the last such "
        "line\n";
    host.WaitForLog(part);
    EXPECT_EQ(host.Log().size(), host.Log().find(part) + part.size());

    served.clear();
    WaitUntil(
        [&] {
            TcpClient next(host.TcpPort());
            return next.Ask(Command("hello")) == Command("hello");
        },
        "room for another connection");
}

TEST(HostLimitsTest, WithoutDescriptorsTheHostLives) {
    constexpr unsigned kLimit = 40;
    HostProcess host(WithEcho({"--port", "0"}), {}, kLimit);
    Clients all;
    for (unsigned i = 0; i < kLimit; ++i) all.push_back(Connected(host));
    EXPECT_EQ(Command("hello"), all[0]->Ask(Command("hello")));
    const std::string port = std::to_string(host.TcpPort());
    host.WaitForLog("[error] cannot accept a connection on 127.0.0.1:" + port +
                    ": Too many open files\n");
    // Those that wait are served as soon as there are descriptors.
    all.erase(all.begin(), all.begin() + kLimit / 2);
    EXPECT_EQ(Command("hello"), all.back()->Ask(Command("hello")));
    host.Signal(SIGTERM);
    EXPECT_EQ(0, host.Wait());
}

// User and system time, in clock ticks.
long CpuTicks(const HostProcess& host) {
    std::ifstream stat("/proc/" + std::to_string(host.Id()) + "/stat");
    std::string word;
    for (int i = 0; i < 13; ++i) stat >> word;
    long user = 0;
    long system = 0;
    stat >> user >> system;
    return user + system;
}

TEST(HostLimitsTest, WithoutDescriptorsTheHostDoesNotSpin) {
    HostProcess host(WithEcho({"--port", "0"}), {}, 30);
    Clients all;
    for (int i = 0; i < 30; ++i) all.push_back(Connected(host));
    host.WaitForLog("Too many open files\n");
    const long before = CpuTicks(host);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    // A loop that spins takes 100 ticks a second.
    EXPECT_GT(50, CpuTicks(host) - before);
}

TEST(HostLimitsTest, AClientThatNeverReadsHindersNobody) {
    HostProcess host(WithEcho({"--port", "0", "--threads", "1", "--idle-timeout", "1.5"}));
    TcpClient deaf(host.TcpPort());
    deaf.Send(Framed(Command(R"({"length": 50000000})")));
    TcpClient other(host.TcpPort());
    for (int i = 0; i < 100; ++i) ASSERT_EQ(Command("hello"), other.Ask(Command("hello")));
    host.WaitForLog(": no progress for 1.5 s (--idle-timeout)\n");
}

TEST(HostLimitsTest, ASilentClientIsEnded) {
    HostProcess host(WithEcho({"--port", "0", "--idle-timeout", "0.3"}));
    TcpClient silent(host.TcpPort());
    EXPECT_EQ("closed", silent.Receive());
    TcpClient stopped(host.TcpPort());
    stopped.Send("\x01");
    EXPECT_EQ("closed", stopped.Receive());
    std::size_t lines = 0;
    const std::string log = host.Log();
    for (const char sign : log) lines += sign == '\n' ? 1 : 0;
    EXPECT_EQ(2U, lines) << log;
    EXPECT_NE(std::string::npos, log.find(": no progress for 0.3 s (--idle-timeout)\n"));
}

TEST(HostLimitsTest, AClientWhoseCommandTakesLongIsNotEnded) {
    HostProcess host(WithEcho({"--port", "0", "--threads", "1", "--idle-timeout", "0.2"}));
    TcpClient first(host.TcpPort());
    TcpClient second(host.TcpPort());
    const std::string command = Command(R"({"sleep": 0.6})");
    first.Send(Framed(command));
    second.Send(Framed(command));
    EXPECT_EQ(command, first.Receive());
    EXPECT_EQ(command, second.Receive());
}

TEST(HostLimitsTest, AHandshakeThatIsNeverBegunEndsTheConnection) {
    const TemporaryDirectory directory;
    const Certificates files(directory.Path());
    HostProcess host(WithEcho({"--tls-port", "0", "--tls-certificate", files.server.certificate,
                               "--tls-key", files.server.key}));
    TcpClient silent(host.TlsPort());
    TcpClient slow(host.TlsPort());
    slow.Send("\x16\x03\x01");
    EXPECT_EQ("closed", silent.Receive());
    EXPECT_EQ("closed", slow.Receive());
    host.WaitForLog(": no TLS handshake within 10 s\n");
}

}  // namespace
}  // namespace NetworkTests
