// The network client libraries when all goes well, and the edges of their calls: lengths, reading
// responses, limits, what the library exports.
#include <dlfcn.h>

#include <array>
#include <cstdio>
#include <thread>

#include "Tests/Companions/Network/ClientFixture.h"

namespace {

using namespace NetworkTests;

std::string Bytes(std::size_t length) {
    std::string bytes(length, '\0');
    for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<char>(i * 7 + i / 256);
    return bytes;
}

std::string OutputOf(const std::string& command) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    std::array<char, 4096> part{};
    while (const std::size_t count = fread(part.data(), 1, part.size(), pipe)) {
        output.append(part.data(), count);
    }
    pclose(pipe);
    return output;
}

INSTANTIATE_TEST_SUITE_P(Kinds, NetworkClientTest, testing::Values(Kind::Plain, Kind::Tls), NameOf);

TEST_P(NetworkClientTest, TheLibraryExportsItsFactoryOnly) {
    const std::string symbols = OutputOf(std::string(NM_PROGRAM) + " -D --defined-only '" +
                                         LibraryFile(GetParam()) + "' | cut -d' ' -f3");
    // Sanitizers mark their libraries with symbols of their own.
    std::string ours;
    std::istringstream lines(symbols);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("__", 0) != 0) ours += line + "\n";
    }
    EXPECT_EQ("CreateTransportChannel\n", ours);
}

TEST_P(NetworkClientTest, ACommandsResponseComesBackWhole) {
    const auto peer = Serve(Echo);
    const Channel channel = ChannelTo(*peer);
    for (const std::size_t length :
         {11U, 0U, 1U, 8188U, 8189U, 16384U, 100'000U, 5'000'000U, 12U}) {
        EXPECT_EQ(Bytes(length), channel.Exchange(Bytes(length))) << length;
    }
    EXPECT_EQ(1, peer->Connections());
    EXPECT_EQ(9, peer->Frames());
}

TEST_P(NetworkClientTest, TheOtherSlotsDoNothingAndAnswerZero) {
    const auto peer = Serve(Echo);
    const Channel channel = ChannelTo(*peer);
    unsigned char byte = 0;
    EXPECT_EQ(0, channel->Initialize(1, 2, 3));
    EXPECT_EQ(0, channel->SetEmbeddedRuntime(1, 2, 3, "path"));
    EXPECT_EQ(0, channel->DeployRuntime(&byte, 1, "path", 1));
    EXPECT_EQ(0, channel->DeployRuntime(nullptr, -1, "", 0));
    EXPECT_EQ(0, peer->Connections());
}

TEST_P(NetworkClientTest, CreatingAChannelOpensNothing) {
    OpenLibrary(GetParam());
    const std::size_t before = OpenDescriptors();
    Set("QUORVALEN_NETWORK_MAX_FRAME", "nonsense");
    const Channel channel(GetParam(), "no.such.host.invalid", 1);
    EXPECT_EQ(before, OpenDescriptors());
}

TEST_P(NetworkClientTest, ABufferThatIsTooShortGetsTheBeginningAndTheRestIsDropped) {
    const auto peer = Serve(Echo);
    const Channel channel = ChannelTo(*peer);
    EXPECT_EQ(13, channel.SendCommand("0123456789abc"));
    EXPECT_EQ("0123", channel.ReadResponse(4));
    EXPECT_EQ(kPrefix + std::string("111. \nThis thread has no response of ") + peer->Name() +
                  " to read. Call SendCommand on the same thread first, and read once",
              FailureOf([&] { channel.ReadResponse(13); }));
}

TEST_P(NetworkClientTest, ABufferThatIsTooLongIsLeftAsItIsBehindTheResponse) {
    const auto peer = Serve(Echo);
    const Channel channel = ChannelTo(*peer);
    channel.SendCommand("abc");
    EXPECT_EQ("abc...", channel.ReadResponse(6));
}

TEST_P(NetworkClientTest, ReadingNoByteForgetsTheResponse) {
    const auto peer = Serve(Echo);
    const Channel channel = ChannelTo(*peer);
    channel.SendCommand("abc");
    EXPECT_EQ("", channel.ReadResponse(0));
    EXPECT_NE("no exception", FailureOf([&] { channel.ReadResponse(3); }));
}

TEST_P(NetworkClientTest, AnEmptyResponseIsAResponse) {
    const auto peer = Serve(Echo);
    const Channel channel = ChannelTo(*peer);
    EXPECT_EQ(0, channel.SendCommand(""));
    EXPECT_EQ("...", channel.ReadResponse(3));
}

TEST_P(NetworkClientTest, ABadBufferIsRefusedAndTheResponseStays) {
    const auto peer = Serve(Echo);
    const Channel channel = ChannelTo(*peer);
    channel.SendCommand("abc");
    unsigned char byte = 0;
    const std::string refused = kPrefix + std::string("112. \nThe buffer for the response of ") +
                                peer->Name() +
                                " is a null pointer or has a negative length (length: ";
    EXPECT_EQ(refused + "-1)", FailureOf([&] { channel->ReadResponse(&byte, -1); }));
    EXPECT_EQ(refused + "3)", FailureOf([&] { channel->ReadResponse(nullptr, 3); }));
    EXPECT_EQ("abc", channel.ReadResponse(3));
}

TEST_P(NetworkClientTest, BeforeTheFirstCommandThereIsNoResponse) {
    const Channel channel(GetParam(), "127.0.0.1", 9);
    EXPECT_EQ(kPrefix + std::string("111. \nThis thread has no response of 127.0.0.1:9 to read. "
                                    "Call SendCommand on the same thread first, and read once"),
              FailureOf([&] { channel.ReadResponse(1); }));
}

TEST_P(NetworkClientTest, ACommandThatFailsDropsTheResponseBeforeIt) {
    const auto peer = Serve(Echo);
    const Channel channel = ChannelTo(*peer);
    channel.SendCommand("abc");
    EXPECT_NE("no exception", FailureOf([&] { channel->SendCommand(nullptr, 3); }));
    EXPECT_NE("no exception", FailureOf([&] { channel.ReadResponse(3); }));
}

TEST_P(NetworkClientTest, ANewCommandDropsTheResponseBeforeIt) {
    const auto peer = Serve(Echo);
    const Channel channel = ChannelTo(*peer);
    channel.SendCommand("first");
    channel.SendCommand("2nd");
    EXPECT_EQ("2nd..", channel.ReadResponse(5));
}

TEST_P(NetworkClientTest, ChannelsDoNotShareResponses) {
    const auto peer = Serve(Echo);
    const auto other = Serve(Echo);
    const Channel channel = ChannelTo(*peer);
    const Channel otherChannel = ChannelTo(*other);
    channel.SendCommand("one");
    otherChannel.SendCommand("other");
    EXPECT_EQ("one", channel.ReadResponse(3));
    EXPECT_EQ("other", otherChannel.ReadResponse(5));
}

TEST_P(NetworkClientTest, AChannelDoesNotReadTheResponseOfAnotherThatIsGone) {
    const auto peer = Serve(Echo);
    for (int round = 0; round < 50; ++round) {
        const Channel channel = ChannelTo(*peer);
        EXPECT_NE("no exception", FailureOf([&] { channel.ReadResponse(3); })) << round;
        channel.SendCommand("abc");
    }
}

TEST_P(NetworkClientTest, ACommandThatIsNoneIsRefused) {
    const auto peer = Serve(Echo);
    const Channel channel = ChannelTo(*peer);
    unsigned char byte = 0;
    const std::string refused = kPrefix + std::string("110. \nThe command to ") + peer->Name() +
                                " is a null pointer or has a negative length (length: ";
    EXPECT_EQ(refused + "-1)", FailureOf([&] { channel->SendCommand(&byte, -1); }));
    EXPECT_EQ(refused + "0)", FailureOf([&] { channel->SendCommand(nullptr, 0); }));
    EXPECT_EQ(0, peer->Connections());
}

TEST_P(NetworkClientTest, CommandAndResponseMayBeAsLongAsTheLimit) {
    Set("QUORVALEN_NETWORK_MAX_FRAME", "20");
    const auto peer = Serve(Echo);
    EXPECT_EQ(Bytes(20), ChannelTo(*peer).Exchange(Bytes(20)));
}

TEST_P(NetworkClientTest, ACommandAboveTheLimitIsNotSent) {
    Set("QUORVALEN_NETWORK_MAX_FRAME", "20");
    const auto peer = Serve(Echo);
    const Channel channel = ChannelTo(*peer);
    EXPECT_EQ(kPrefix + std::string("110. \nThe command to ") + peer->Name() +
                  " has 21 bytes, at most 20 are sent (QUORVALEN_NETWORK_MAX_FRAME)",
              channel.Failure(Bytes(21)));
    EXPECT_EQ(0, peer->Connections());
    EXPECT_EQ("ok", channel.Exchange("ok"));
}

TEST_P(NetworkClientTest, AResponseAboveTheLimitIsAnErrorAndEndsTheConnection) {
    Set("QUORVALEN_NETWORK_MAX_FRAME", "20");
    const auto peer = Serve(Answer(Frame(Bytes(21))));
    const Channel channel = ChannelTo(*peer);
    EXPECT_EQ(kPrefix + std::string("109. \nThe response of ") + peer->Name() +
                  " has 21 bytes, at most 20 are accepted (QUORVALEN_NETWORK_MAX_FRAME). "
                  "The command may have been executed",
              channel.Failure("abc"));
    EXPECT_TRUE(Eventually([&] { return peer->OpenConnections() == 0; }));
    EXPECT_EQ(1, peer->Frames());
}

TEST_P(NetworkClientTest, WithoutASettingTheLimitIs256MiB) {
    const auto peer = Serve(Answer(std::string("\x10\0\0\x01", 4)));
    EXPECT_EQ(kPrefix + std::string("109. \nThe response of ") + peer->Name() +
                  " has 268435457 bytes, at most 268435456 are accepted "
                  "(QUORVALEN_NETWORK_MAX_FRAME). The command may have been executed",
              ChannelTo(*peer).Failure("abc"));
}

TEST_P(NetworkClientTest, AResponseMayComeByteByByte) {
    const auto peer = Serve([](PeerConnection& connection) {
        while (const auto message = connection.ReadFrame()) {
            for (const char byte : Frame(*message)) connection.Send(std::string(1, byte));
        }
    });
    const Channel channel = ChannelTo(*peer);
    EXPECT_EQ("0123456789", channel.Exchange("0123456789"));
    EXPECT_EQ("again", channel.Exchange("again"));
    EXPECT_EQ(1, peer->Connections());
}

TEST_P(NetworkClientTest, TheHostMayBeAName) {
    const auto peer = Serve(Echo);
    EXPECT_EQ("abc", Channel(GetParam(), "localhost", peer->Port()).Exchange("abc"));
}

}  // namespace
