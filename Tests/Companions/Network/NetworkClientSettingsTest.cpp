// The settings that both network client libraries have: when they are read, and every value that is
// refused.
#include "Tests/Companions/Network/ClientFixture.h"

namespace {

using namespace NetworkTests;

constexpr const char* kConnectTimeout = "QUORVALEN_NETWORK_CONNECT_TIMEOUT";
constexpr const char* kReplyTimeout = "QUORVALEN_NETWORK_REPLY_TIMEOUT";
constexpr const char* kMaxFrame = "QUORVALEN_NETWORK_MAX_FRAME";

std::string Refusal(const Peer& peer, const std::string& variable, const std::string& value,
                    const std::string& expected) {
    return kPrefix + std::string("101. \nNo command is sent to ") + peer.Name() + ": " + variable +
           " is \"" + value + "\", expected " + expected;
}

INSTANTIATE_TEST_SUITE_P(Kinds, NetworkClientTest, testing::Values(Kind::Plain, Kind::Tls), NameOf);

TEST_P(NetworkClientTest, WrongTimeoutsAreRefused) {
    const auto peer = Serve(Echo);
    for (const char* value : {"", "0", "0.0", "-1", "86400.1", "abc", "5s", " 5", "5 ", "1e3",
                              "nan", "inf", "0x10", "5,0", "none "}) {
        Set(kConnectTimeout, value);
        EXPECT_EQ(Refusal(*peer, kConnectTimeout, value, "seconds above 0 and at most 86400"),
                  ChannelTo(*peer).Failure("abc"));
        Set(kConnectTimeout, "5");
        Set(kReplyTimeout, value);
        EXPECT_EQ(
            Refusal(*peer, kReplyTimeout, value, "seconds above 0 and at most 86400, or none"),
            ChannelTo(*peer).Failure("abc"));
        Set(kReplyTimeout, "none");
    }
    EXPECT_EQ(0, peer->Connections());
}

TEST_P(NetworkClientTest, WhoConnectsNeedsADeadline) {
    const auto peer = Serve(Echo);
    Set(kConnectTimeout, "none");
    EXPECT_EQ(Refusal(*peer, kConnectTimeout, "none", "seconds above 0 and at most 86400"),
              ChannelTo(*peer).Failure("abc"));
}

TEST_P(NetworkClientTest, WrongLimitsAreRefused) {
    const auto peer = Serve(Echo);
    for (const char* value : {"", "0", "-1", "2147483648", "99999999999999999999", "1.5", "1k",
                              " 1", "1 ", "0x10", "abc"}) {
        Set(kMaxFrame, value);
        EXPECT_EQ(Refusal(*peer, kMaxFrame, value, "a whole number of bytes from 1 to 2147483647"),
                  ChannelTo(*peer).Failure("abc"));
    }
    EXPECT_EQ(0, peer->Connections());
}

TEST_P(NetworkClientTest, TheValuesAtTheEdgesAreTaken) {
    const auto peer = Serve(Echo);
    for (const char* value : {"86400", "2.5", "86400.0", ".5"}) {
        Set(kConnectTimeout, value);
        Set(kReplyTimeout, value);
        EXPECT_EQ("abc", ChannelTo(*peer).Exchange("abc")) << value;
    }
    Set(kMaxFrame, "2147483647");
    EXPECT_EQ("abc", ChannelTo(*peer).Exchange("abc"));
    Set(kMaxFrame, "1");
    EXPECT_EQ("a", ChannelTo(*peer).Exchange("a"));
}

TEST_P(NetworkClientTest, AWrongSettingIsReadAgainUntilItIsGood) {
    const auto peer = Serve(Echo);
    const Channel channel = ChannelTo(*peer);
    Set(kMaxFrame, "nonsense");
    const std::string expected =
        Refusal(*peer, kMaxFrame, "nonsense", "a whole number of bytes from 1 to 2147483647");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(expected, channel.Failure("abc"));
    Set(kMaxFrame, "3");
    EXPECT_EQ("abc", channel.Exchange("abc"));
}

TEST_P(NetworkClientTest, GoodSettingsStayWhatTheyWereAtTheFirstCommand) {
    const auto peer = Serve(Echo);
    Set(kMaxFrame, "3");
    const Channel channel = ChannelTo(*peer);
    EXPECT_EQ("abc", channel.Exchange("abc"));
    Set(kMaxFrame, "nonsense");
    EXPECT_EQ("abc", channel.Exchange("abc"));
    EXPECT_NE("no exception", channel.Failure("abcd"));
}

TEST_P(NetworkClientTest, EveryChannelReadsTheSettingsForItself) {
    const auto peer = Serve(Echo);
    Set(kMaxFrame, "3");
    EXPECT_NE("no exception", ChannelTo(*peer).Failure("abcd"));
    Set(kMaxFrame, "4");
    EXPECT_EQ("abcd", ChannelTo(*peer).Exchange("abcd"));
}

}  // namespace
