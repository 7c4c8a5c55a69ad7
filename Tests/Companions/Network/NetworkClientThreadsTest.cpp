// Many threads in one channel: no response reaches another thread's command, whatever happens to
// the connections.
#include <atomic>
#include <thread>

#include "Tests/Companions/Network/ClientFixture.h"

namespace {

using namespace NetworkTests;

constexpr int kThreads = 8;

template <typename Work>
void OnThreads(int count, Work work) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) threads.emplace_back([i, &work] { work(i); });
    for (std::thread& thread : threads) thread.join();
}

// Different lengths, the number of the thread and of the command in it.
std::string CommandOf(int thread, int number) {
    const std::string name = std::to_string(thread) + "." + std::to_string(number);
    return name + std::string(static_cast<std::size_t>((thread + 1) * number * 7 % 40'000), 'x');
}

INSTANTIATE_TEST_SUITE_P(Kinds, NetworkClientTest, testing::Values(Kind::Plain, Kind::Tls), NameOf);

TEST_P(NetworkClientTest, EveryThreadGetsTheResponsesOfItsOwnCommands) {
    const auto peer = Serve(Echo);
    const Channel channel = ChannelTo(*peer);
    OnThreads(kThreads, [&](int thread) {
        for (int i = 0; i < 200; ++i) {
            EXPECT_EQ(CommandOf(thread, i), channel.Exchange(CommandOf(thread, i)));
        }
    });
    EXPECT_EQ(kThreads * 200, peer->Frames());
    EXPECT_LE(peer->Connections(), kThreads);
}

TEST_P(NetworkClientTest, AResponseBelongsToTheThreadThatSentTheCommand) {
    const auto peer = Serve(Echo);
    const Channel channel = ChannelTo(*peer);
    channel.SendCommand("main");
    OnThreads(1, [&](int) {
        EXPECT_NE("no exception", FailureOf([&] { channel.ReadResponse(4); }));
        EXPECT_EQ("other", channel.Exchange("other"));
    });
    EXPECT_EQ("main", channel.ReadResponse(4));
}

TEST_P(NetworkClientTest, ResponsesDoNotMixWhenConnectionsBreak) {
    std::atomic<int> answered = 0;
    const auto peer = Serve([&](PeerConnection& connection) {
        while (const auto message = connection.ReadFrame()) {
            const int number = ++answered;
            if (number % 7 == 0) return connection.Reset();
            if (number % 11 == 0) return connection.Send(Frame(*message).substr(0, 5));
            connection.Send(Frame(*message));
            if (number % 5 == 0) return;
        }
    });
    const Channel channel = ChannelTo(*peer);
    std::atomic<int> good = 0;
    std::atomic<int> failed = 0;
    OnThreads(kThreads, [&](int thread) {
        for (int i = 0; i < 100; ++i) {
            const std::string command = CommandOf(thread, i);
            const std::string failure = FailureOf([&] {
                EXPECT_EQ(command, channel.Exchange(command));
                ++good;
            });
            if (failure == "no exception") continue;
            ++failed;
            EXPECT_EQ(0U, failure.find(kPrefix + std::string("10"))) << failure;
        }
    });
    EXPECT_GT(good, 0);
    EXPECT_GT(failed, 0);
    EXPECT_EQ(kThreads * 100, good + failed);
    EXPECT_LE(peer->Frames(), kThreads * 100);  // never sent twice
}

TEST_P(NetworkClientTest, ManyThreadsMayMeetAtTheFirstCommand) {
    const auto peer = Serve(Echo);
    for (int round = 0; round < 20; ++round) {
        const Channel channel = ChannelTo(*peer);
        OnThreads(kThreads, [&](int thread) {
            EXPECT_EQ(CommandOf(thread, round), channel.Exchange(CommandOf(thread, round)));
        });
    }
}

TEST_P(NetworkClientTest, ManyThreadsMayMeetAtAHostThatIsDown) {
    Set("QUORVALEN_NETWORK_CONNECT_TIMEOUT", "0.2");
    auto peer = Serve(Echo);
    const unsigned short port = peer->Port();
    const Channel channel = ChannelTo(*peer);
    peer.reset();
    const std::string refused = kPrefix + std::string("103. \nCannot connect to 127.0.0.1:") +
                                std::to_string(port) + ": Connection refused";
    OnThreads(kThreads, [&](int) {
        for (int i = 0; i < 5; ++i) EXPECT_EQ(refused, channel.Failure("abc"));
    });
}

TEST_P(NetworkClientTest, ThreadsThatEndLeaveNothingThatTheNextOneSees) {
    const auto peer = Serve(Echo);
    const Channel channel = ChannelTo(*peer);
    for (int i = 0; i < 200; ++i) {
        OnThreads(1, [&](int) {
            EXPECT_NE("no exception", FailureOf([&] { channel.ReadResponse(1); }));
            channel.SendCommand("abc");
        });
    }
    EXPECT_EQ(1, peer->Connections());
}

}  // namespace
