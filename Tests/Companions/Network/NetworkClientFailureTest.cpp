// What a command fails with when the host is not there, does not answer, hangs up, or answers what
// is no response.
#include <linux/filter.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <random>
#include <vector>

#include "Tests/Companions/Network/ClientFixture.h"

namespace {

using namespace NetworkTests;

constexpr const char* kMayHaveRun = ". The command may have been executed";

std::string Coded(const std::string& text) {
    return kPrefix + text;
}

// A port of this machine at which nobody listens, but that nobody else gets either.
class ClosedPort {
  public:
    ClosedPort() : held(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(0, bind(held, generic, length));
        EXPECT_EQ(0, getsockname(held, generic, &length));
        port = ntohs(address.sin_port);
    }
    ~ClosedPort() {
        for (const int client : waiting) close(client);
        close(held);
    }
    ClosedPort(const ClosedPort&) = delete;
    ClosedPort& operator=(const ClosedPort&) = delete;

    unsigned short Port() const { return port; }
    std::string Name() const { return "127.0.0.1:" + std::to_string(port); }

    // Listens, accepts nobody, and has no room for one more: connecting hangs from now on.
    void Hang() {
        listen(held, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port);
        for (int i = 0; i < 4; ++i) {
            waiting.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
            connect(waiting.back(), reinterpret_cast<sockaddr*>(&address), sizeof(address));
        }
    }

  private:
    int held;
    unsigned short port = 0;
    std::vector<int> waiting;
};

INSTANTIATE_TEST_SUITE_P(Kinds, NetworkClientTest, testing::Values(Kind::Plain, Kind::Tls), NameOf);

TEST_P(NetworkClientTest, NobodyListens) {
    const ClosedPort closed;
    const Channel channel(GetParam(), "127.0.0.1", closed.Port());
    const std::string refused =
        Coded("103. \nCannot connect to " + closed.Name() + ": Connection refused");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(refused, channel.Failure("abc"));
}

// For our end the system tries its free ports in no order, this one included; it prefers the even
// ones. So many attempts meet it nearly always: there are some fourteen thousand even ports.
TEST(NetworkClientToItselfTest, ACommandIsNeverItsOwnResponse) {
    unsigned short port = 0;
    {
        const ClosedPort closed;
        port = static_cast<unsigned short>(closed.Port() & 0xFFFE);
    }
    const std::string refused = Coded("103. \nCannot connect to 127.0.0.1:" + std::to_string(port) +
                                      ": Connection refused");
    for (int i = 0; i < 100'000; ++i) {
        ASSERT_EQ(refused, Channel(Kind::Plain, "127.0.0.1", port).Failure("abc")) << i;
    }
}

TEST_P(NetworkClientTest, AnIpv6AddressStandsInBrackets) {
    const std::string failure = Channel(GetParam(), "::1", 0).Failure("abc");
    EXPECT_EQ(0U, failure.find(Coded("103. \nCannot connect to [::1]:0: "))) << failure;
}

TEST_P(NetworkClientTest, AHostNameThatDoesNotResolve) {
    const std::string failure = Channel(GetParam(), "no.such.host.invalid", 5000).Failure("abc");
    // The reason is the resolver's own and depends on the machine's network.
    EXPECT_EQ(0U, failure.find(Coded("102. \nThe host name of no.such.host.invalid:5000 cannot be "
                                     "resolved: ")))
        << failure;
}

TEST_P(NetworkClientTest, AnEmptyHostNameIsNotThisMachine) {
    const std::string empty =
        Coded("102. \nThe host name of :5000 cannot be resolved: it is empty");
    EXPECT_EQ(empty, Channel(GetParam(), "", 5000).Failure("abc"));
    EXPECT_EQ(empty, Channel(GetParam(), nullptr, 5000).Failure("abc"));
}

TEST_P(NetworkClientTest, TheConnectDeadline) {
    Set("QUORVALEN_NETWORK_CONNECT_TIMEOUT", "0.3");
    ClosedPort hanging;
    hanging.Hang();
    EXPECT_EQ(Coded("104. \nThe deadline of " + hanging.Name() +
                    " was missed after 0.3 s (phase: connect)"),
              Channel(GetParam(), "127.0.0.1", hanging.Port()).Failure("abc"));
}

TEST_P(NetworkClientTest, TheReplyDeadline) {
    Set("QUORVALEN_NETWORK_REPLY_TIMEOUT", "0.25");
    const auto peer = Serve(Silence);
    const Channel channel = ChannelTo(*peer);
    EXPECT_EQ(Coded("104. \nThe deadline of " + peer->Name() +
                    " was missed after 0.25 s (phase: reply)" + kMayHaveRun),
              channel.Failure("abc"));
    // A late answer must not be taken for that of the next command.
    EXPECT_TRUE(Eventually([&] { return peer->OpenConnections() == 0; }));
}

TEST_P(NetworkClientTest, TheReplyDeadlineIsForTheWholeResponse) {
    Set("QUORVALEN_NETWORK_REPLY_TIMEOUT", "0.25");
    const auto peer = Serve(Answer(Frame("0123456789").substr(0, 8)));
    EXPECT_EQ(Coded("104. \nThe deadline of " + peer->Name() +
                    " was missed after 0.25 s (phase: reply)" + kMayHaveRun),
              ChannelTo(*peer).Failure("abc"));
}

TEST_P(NetworkClientTest, TheReplyDeadlineWhileSending) {
    Set("QUORVALEN_NETWORK_REPLY_TIMEOUT", "0.25");
    std::atomic<bool> over = false;
    const auto peer = Serve([&](PeerConnection& connection) {
        connection.Read(1);
        Eventually([&] { return over.load(); });
    });
    // More than the buffers of two sockets hold.
    const std::string failure = ChannelTo(*peer).Failure(std::string(60'000'000, 'x'));
    over = true;
    EXPECT_EQ(
        Coded("104. \nThe deadline of " + peer->Name() + " was missed after 0.25 s (phase: send)"),
        failure);
}

// The two ends of the only connection to a port, both of this process.
struct Ends {
    int client = -1;
    int server = -1;
};

unsigned short PortOf(int socket, decltype(getsockname)* name) {
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    const int result = name(socket, reinterpret_cast<sockaddr*>(&address), &length);
    return result == 0 && address.sin_family == AF_INET ? ntohs(address.sin_port) : 0;
}

Ends FindEnds(unsigned short port) {
    Ends ends;
    for (int socket = 0; socket < 1024; ++socket) {
        const unsigned short other = PortOf(socket, getpeername);
        if (other == port) ends.client = socket;
        if (other != 0 && PortOf(socket, getsockname) == port) ends.server = socket;
    }
    return ends;
}

void SetTcpOption(int socket, int option, int value) {
    EXPECT_EQ(0, setsockopt(socket, IPPROTO_TCP, option, &value, sizeof(value)));
}

// From now on nothing arrives at this socket, as if its machine had lost its power.
void CutOff(int socket) {
    sock_filter nothing = BPF_STMT(BPF_RET | BPF_K, 0);
    const sock_fprog program = {1, &nothing};
    EXPECT_EQ(0, setsockopt(socket, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof(program)));
}

// What is sent now is given up after 200 ms.
void LoseHostOf(const Peer& peer) {
    const Ends ends = FindEnds(peer.Port());
    SetTcpOption(ends.client, TCP_USER_TIMEOUT, 200);  // milliseconds
    CutOff(ends.server);
}

TEST_P(NetworkClientTest, AHostThatIsGoneIsNoMissedDeadline) {
    const auto peer = Serve(Echo);
    const Channel channel = ChannelTo(*peer);
    EXPECT_EQ("abc", channel.Exchange("abc"));
    LoseHostOf(*peer);
    EXPECT_EQ(Coded("108. \nThe connection to " + peer->Name() +
                    " was lost before the response came whole: Connection timed out" + kMayHaveRun),
              channel.Failure("abc"));
}

TEST_P(NetworkClientTest, AHostThatIsGoneWhileSendingIsNoMissedDeadline) {
    const auto peer = Serve(Echo);
    const Channel channel = ChannelTo(*peer);
    EXPECT_EQ("abc", channel.Exchange("abc"));
    LoseHostOf(*peer);
    EXPECT_EQ(Coded("107. \nThe connection to " + peer->Name() +
                    " was lost before the command was sent whole: Connection timed out"),
              channel.Failure(std::string(60'000'000, 'x')));
}

TEST_P(NetworkClientTest, AnIdleConnectionToAHostThatIsGoneIsReplaced) {
    const auto peer = Serve(Echo);
    const Channel channel = ChannelTo(*peer);
    EXPECT_EQ("abc", channel.Exchange("abc"));
    const Ends ends = FindEnds(peer->Port());
    for (const int option : {TCP_KEEPIDLE, TCP_KEEPINTVL, TCP_KEEPCNT}) {
        SetTcpOption(ends.client, option, 1);  // second, second, probe
    }
    SetTcpOption(ends.client, TCP_USER_TIMEOUT, 0);
    CutOff(ends.server);
    pollfd lost = {ends.client, 0, 0};
    EXPECT_EQ(1, poll(&lost, 1, 30'000));
    EXPECT_EQ("abc", channel.Exchange("abc"));
    EXPECT_EQ(2, peer->Connections());
}

// --- After so many quick answers that the next one is looked for without sleeping ---------------

// Answers many commands at once and then does what `last` does with the next.
Peer::Script QuickUntil(const std::string& command, const Peer::Script& last) {
    return [command, last](PeerConnection& connection) {
        for (auto message = connection.ReadFrame(); message; message = connection.ReadFrame()) {
            if (*message == command) return last(connection);
            connection.Send(Frame(*message));
        }
    };
}

void ExchangeMany(const Channel& channel) {
    for (int i = 0; i < 1000; ++i) {
        const std::string command = std::to_string(i);
        ASSERT_EQ(command, channel.Exchange(command));
    }
}

TEST_P(NetworkClientTest, ALateAnswerOfAQuickHostIsTaken) {
    const auto peer = Serve(QuickUntil("slow", [](PeerConnection& connection) {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        connection.Send(Frame("late"));
        Echo(connection);
    }));
    const Channel channel = ChannelTo(*peer);
    ExchangeMany(channel);
    EXPECT_EQ("late", channel.Exchange("slow"));
    ExchangeMany(channel);
    EXPECT_EQ(1, peer->Connections());
}

TEST_P(NetworkClientTest, AQuickHostThatFallsSilentMissesTheDeadline) {
    Set("QUORVALEN_NETWORK_REPLY_TIMEOUT", "0.3");
    const auto peer = Serve(QuickUntil("slow", Silence));
    const Channel channel = ChannelTo(*peer);
    ExchangeMany(channel);
    EXPECT_EQ(Coded("104. \nThe deadline of " + peer->Name() +
                    " was missed after 0.3 s (phase: reply)" + kMayHaveRun),
              channel.Failure("slow"));
}

TEST_P(NetworkClientTest, AQuickHostThatHangsUpIsNoticed) {
    const auto peer = Serve(QuickUntil("slow", [](PeerConnection&) {}));
    const Channel channel = ChannelTo(*peer);
    ExchangeMany(channel);
    EXPECT_EQ(
        Coded("108. \nThe connection to " + peer->Name() +
              " was lost before the response came whole: closed by the other side" + kMayHaveRun),
        channel.Failure("slow"));
}

TEST_P(NetworkClientTest, WithoutAReplyDeadlineALateResponseIsTaken) {
    Set("QUORVALEN_NETWORK_REPLY_TIMEOUT", "none");
    Set("QUORVALEN_NETWORK_CONNECT_TIMEOUT", "0.3");
    const auto peer = Serve([](PeerConnection& connection) {
        const auto message = connection.ReadFrame();
        std::this_thread::sleep_for(std::chrono::milliseconds(600));
        connection.Send(Frame(*message));
        connection.WaitForClient();
    });
    EXPECT_EQ("abc", ChannelTo(*peer).Exchange("abc"));
}

TEST_P(NetworkClientTest, TheHostHangsUpInsteadOfAnswering) {
    const auto peer = Serve([](PeerConnection& connection) { connection.ReadFrame(); });
    EXPECT_EQ(
        Coded("108. \nThe connection to " + peer->Name() +
              " was lost before the response came whole: closed by the other side" + kMayHaveRun),
        ChannelTo(*peer).Failure("abc"));
}

TEST_P(NetworkClientTest, TheHostHangsUpAnywhereInTheResponse) {
    const std::string response = Frame("0123456789");
    for (std::size_t count = 0; count < response.size(); ++count) {
        const auto peer = Serve([&](PeerConnection& connection) {
            connection.ReadFrame();
            connection.Send(response.substr(0, count));
        });
        EXPECT_EQ(Coded("108. \nThe connection to " + peer->Name() +
                        " was lost before the response came whole: closed by the other side" +
                        kMayHaveRun),
                  ChannelTo(*peer).Failure("abc"))
            << count;
    }
}

TEST_P(NetworkClientTest, TheHostResetsTheConnectionInsteadOfAnswering) {
    const auto peer = Serve([](PeerConnection& connection) {
        connection.ReadFrame();
        connection.Reset();
    });
    EXPECT_EQ(
        Coded("108. \nThe connection to " + peer->Name() +
              " was lost before the response came whole: Connection reset by peer" + kMayHaveRun),
        ChannelTo(*peer).Failure("abc"));
}

TEST_P(NetworkClientTest, TheHostResetsTheConnectionWhileTheCommandIsSent) {
    const auto peer = Serve([](PeerConnection& connection) {
        connection.Read(1);
        connection.Reset();
    });
    const std::string failure = ChannelTo(*peer).Failure(std::string(60'000'000, 'x'));
    const std::string lost = Coded("107. \nThe connection to " + peer->Name() +
                                   " was lost before the command was sent whole: ");
    // Which of the two is a matter of when it is noticed.
    EXPECT_TRUE(failure == lost + "Connection reset by peer" || failure == lost + "Broken pipe")
        << failure;
    EXPECT_EQ(0, peer->Frames());
}

TEST_P(NetworkClientTest, ARefusalThatComesWhileTheCommandIsSentIsTheResponse) {
    const auto peer = Serve([](PeerConnection& connection) {
        connection.Read(1);
        connection.Send(Frame("too long for me"));
        connection.Close();
    });
    const Channel channel = ChannelTo(*peer);
    EXPECT_EQ(15, channel.SendCommand(std::string(60'000'000, 'x')));
    EXPECT_EQ("too long for me", channel.ReadResponse(15));
    channel.SendCommand(std::string(60'000'000, 'x'));
    EXPECT_EQ(2, peer->Connections());
}

TEST_P(NetworkClientTest, RandomBytesAreNoResponse) {
    std::minstd_rand random(1);
    for (int round = 0; round < 50; ++round) {
        std::string bytes(64, '\0');
        for (char& byte : bytes) byte = static_cast<char>(random());
        bytes[0] = static_cast<char>(bytes[0] | '\x20');  // announces more than the limit
        const auto peer = Serve(Answer(bytes));
        const std::string failure = ChannelTo(*peer).Failure("abc");
        EXPECT_EQ(0U, failure.find(Coded("109. \nThe response of " + peer->Name() + " has ")))
            << failure;
    }
}

TEST_P(NetworkClientTest, WithoutDescriptorsTheErrorSaysSo) {
    const auto peer = Serve(Echo);
    const Channel channel = ChannelTo(*peer);
    FailureOf([&] { channel->SendCommand(nullptr, 0); });  // reads the settings and their files
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none{0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const std::string first = channel.Failure("abc");
    const std::string second = channel.Failure("abc");
    setrlimit(RLIMIT_NOFILE, &before);
    const std::string expected =
        Coded("103. \nCannot connect to " + peer->Name() + ": Too many open files");
    EXPECT_EQ(expected, first);
    EXPECT_EQ(expected, second);
    EXPECT_EQ("abc", channel.Exchange("abc"));
}

TEST_P(NetworkClientTest, EveryCommandToAHostThatIsDownIsOneAttempt) {
    // Each connection is refused by hanging up in the handshake or at the command.
    const auto peer = Serve([](PeerConnection& connection) { connection.Reset(); });
    const Channel channel = ChannelTo(*peer);
    for (int i = 1; i <= 4; ++i) {
        EXPECT_NE("no exception", channel.Failure("abc"));
        EXPECT_EQ(i, peer->Connections());
    }
}

TEST_P(NetworkClientTest, TheNextAttemptAfterAFailedOneWaits) {
    const ClosedPort closed;
    const Channel channel(GetParam(), "127.0.0.1", closed.Port());
    std::vector<std::chrono::steady_clock::duration> took;
    for (int i = 0; i < 4; ++i) {
        const auto began = std::chrono::steady_clock::now();
        channel.Failure("abc");
        took.push_back(std::chrono::steady_clock::now() - began);
    }
    // At least half of 50, 100 and 200 ms; how much longer is the machine's affair.
    EXPECT_GE(took[1], std::chrono::milliseconds(20));
    EXPECT_GE(took[2], std::chrono::milliseconds(45));
    EXPECT_GE(took[3], std::chrono::milliseconds(95));
}

TEST_P(NetworkClientTest, ASuccessEndsTheWaiting) {
    auto peer = Serve(EchoOnce);
    const unsigned short port = peer->Port();
    const Channel channel = ChannelTo(*peer);
    peer.reset();
    for (int i = 0; i < 3; ++i) EXPECT_NE("no exception", channel.Failure("abc"));
    peer = Serve(EchoOnce, port);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ("abc", channel.Exchange("abc"));
        ASSERT_TRUE(Eventually([&] { return peer->OpenConnections() == 0; }));
    }
    EXPECT_EQ(5, peer->Connections());
}

using PlainClientTest = ClientFixture;

TEST_F(PlainClientTest, ATlsAlertInsteadOfAResponseIsNamedAsSuch) {
    const auto peer = Serve(Kind::Plain, Answer(std::string("\x15\x03\x01\0\x02\x02\x46", 7)));
    EXPECT_EQ(Coded("109. \nThe answer of " + peer->Name() +
                    " is a TLS alert and no response: this port speaks TLS, the command came "
                    "without"),
              Channel(Kind::Plain, "127.0.0.1", peer->Port()).Failure("abc"));
}

// OpenSSL sends no alert when what comes has nothing of TLS.
TEST_F(PlainClientTest, APortThatSpeaksTlsMayJustHangUp) {
    const auto peer = Serve(Kind::Tls, Echo);
    const std::string failure =
        Channel(Kind::Plain, "127.0.0.1", peer->Port()).Failure("0123456789abcdef");
    const std::string lost = Coded("108. \nThe connection to " + peer->Name() +
                                   " was lost before the response came whole: ");
    // Which of the two depends on how much of the command it has read.
    EXPECT_TRUE(failure == lost + "Connection reset by peer" + kMayHaveRun ||
                failure == lost + "closed by the other side" + kMayHaveRun)
        << failure;
    EXPECT_EQ(0, peer->Frames());
}

}  // namespace
