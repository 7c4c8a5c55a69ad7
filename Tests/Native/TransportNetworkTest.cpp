// The network channel over both client libraries: nothing happens before Initialize, one library
// and one channel after it, codes 001 and 011 to 013 and what a retry repeats after each.
#include <fstream>

#include "Tests/Native/AllocationShim.h"
#include "Tests/Native/NetworkFixture.h"

namespace {

struct Kind {
    bool tls;
    const char* name;  // of the fake's objects
    const char* file;
    const char* otherFile;
    const char* import;
    const char* create;
};

void PrintTo(const Kind& kind, std::ostream* stream) {
    *stream << kind.name;
}

std::string ShowKind(const testing::TestParamInfo<Kind>& info) {
    return info.param.name;
}

class TransportNetworkTest : public NetworkTest, public testing::WithParamInterface<Kind> {
  protected:
    TransportNetworkTest() { DlopenShim::Clear(); }

    std::string Name() const { return GetParam().name; }
    std::string Channel() const { return Name() + " channel host:99"; }
    std::string Factory() const { return Name() + " CreateTransportChannel(host:99)"; }
    std::string File() const { return GetParam().file; }
    const SharedTransport& Created() const {
        return GetParam().tls ? channel.State().tcpTlsChannel : channel.State().tcpChannel;
    }
    const SharedTransport& OtherKind() const {
        return GetParam().tls ? channel.State().tcpChannel : channel.State().tcpTlsChannel;
    }
    int Initialize() const { return channel->Initialize(6, 8, 7); }
    std::string InitializeFailure() const {
        return FailureOf([this] { Initialize(); });
    }
    const std::vector<std::string> setUp = {Factory(), Channel() + " Initialize(6, 8, 7)"};

    unsigned char bytes[3] = {1, 2, 3};
    NetworkChannel channel{bridge, "host", 99, GetParam().tls};
};

INSTANTIATE_TEST_SUITE_P(
    Kinds, TransportNetworkTest,
    testing::Values(Kind{false, "tcp", kTcpFile, kTlsFile, "ImportTcpClientLibrary()",
                         "CreateTransportTcpChannel(unsigned char, unsigned char, unsigned char)"},
                    Kind{true, "tls", kTlsFile, kTcpFile, "ImportTcpTlsClientLibrary()",
                         "CreateTransportTcpTlsChannel(unsigned char, unsigned char, unsigned "
                         "char)"}),
    ShowKind);

TEST_P(TransportNetworkTest, ConstructingOpensNothingAndResolvesNothing) {
    const NetworkFields& state = channel.State();
    EXPECT_EQ(nullptr, state.tcpClientLibrary);
    EXPECT_EQ(nullptr, state.tcpTlsClientLibrary);
    EXPECT_EQ(nullptr, state.tcpChannel);
    EXPECT_EQ(nullptr, state.tcpTlsChannel);
    EXPECT_EQ(nullptr, state.activeChannel);
    EXPECT_EQ(nullptr, state.createTransportChannel);
    EXPECT_EQ("host", state.host);
    EXPECT_EQ(99, state.port);
    EXPECT_EQ(GetParam().tls, state.useTls);
    EXPECT_CALLS({});
    EXPECT_EQ("", Lines(DlopenShim::Calls()));
}

TEST_P(TransportNetworkTest, InitializeOpensItsOwnClientLibraryAlone) {
    layout.Remove(GetParam().otherFile);
    EXPECT_EQ(0, Initialize());
    EXPECT_CALLS(setUp);
    EXPECT_EQ(File() + " 2\n", Opened());
    EXPECT_NE(nullptr, Created());
    EXPECT_EQ(Created(), channel.State().activeChannel);
    EXPECT_EQ(nullptr, OtherKind());
    EXPECT_NE(nullptr, channel.State().createTransportChannel);
}

TEST_P(TransportNetworkTest, ASecondInitializeCallsNeitherTheFactoryNorTheChannel) {
    Initialize();
    Fakes::ClearTrace();
    DlopenShim::Clear();
    EXPECT_EQ(0, channel->Initialize(1, 2, 3));
    EXPECT_CALLS({});
    EXPECT_EQ("", Lines(DlopenShim::Calls()));
}

TEST_P(TransportNetworkTest, CommandsAndResponsesGoThroughUnchanged) {
    Initialize();
    Fakes::ClearTrace();
    Fakes::SetNumber(Name() + " channel result", -7);
    Fakes::SetText(Name() + " response", "ab");
    EXPECT_EQ(-7, channel->SendCommand(bytes, 3));
    EXPECT_EQ(-7, channel->ReadResponse(bytes, 2));
    EXPECT_EQ(Bytes({'a', 'b', 3}), Bytes(std::begin(bytes), std::end(bytes)));
    EXPECT_CALLS({Channel() + " SendCommand([3] 01 02 03)", Channel() + " ReadResponse(2)"});
}

TEST_P(TransportNetworkTest, SetEmbeddedRuntimeAndDeployRuntimeDoNothingInitializedOrNot) {
    for (int round = 0; round < 2; ++round) {
        Fakes::SetNumber(Name() + " channel result", 5);
        Fakes::ClearTrace();
        EXPECT_EQ(0, channel->SetEmbeddedRuntime(1, 2, 3, "path"));
        EXPECT_EQ(0, channel->DeployRuntime(nullptr, 3, "path", 4));
        EXPECT_EQ(0, channel.Call<int>("ImportLibraryAndExportedFunctions()"));
        EXPECT_CALLS({});
        Initialize();
    }
}

TEST_P(TransportNetworkTest, CallsBeforeInitializeSayWhatToCallFirst) {
    const std::string message =
        "Quorvalen Native Exception: The network channel has no connection yet. \n"
        "Call Initialize before SendCommand or ReadResponse";
    EXPECT_EQ(message, FailureOf([this] { channel->SendCommand(bytes, 3); }));
    EXPECT_EQ(message, FailureOf([this] { channel->ReadResponse(bytes, 3); }));
    EXPECT_EQ(0, Initialize());
    EXPECT_EQ(0, channel->SendCommand(bytes, 3));
}

TEST_P(TransportNetworkTest, AnEmptyHostIsPassedOn) {
    const NetworkChannel nowhere(bridge, "", 0, GetParam().tls);
    EXPECT_EQ(0, nowhere->Initialize(1, 2, 3));
    EXPECT_CALLS(
        {Name() + " CreateTransportChannel(:0)", Name() + " channel :0 Initialize(1, 2, 3)"});
}

TEST_P(TransportNetworkTest, LongHostsAndTheHighestPortArePassedOn) {
    const std::string host(5000, 'h');
    const NetworkChannel far(bridge, host, 65535, GetParam().tls);
    EXPECT_EQ(0, far->Initialize(1, 2, 3));
    EXPECT_EQ(Name() + " CreateTransportChannel(" + host + ":65535)", Fakes::Trace().front());
}

TEST_P(TransportNetworkTest, ChannelsShareOneLibraryThatNobodyCloses) {
    Initialize();
    NetworkChannel second(bridge, "host", 100, GetParam().tls);
    second->Initialize(6, 8, 7);
    EXPECT_EQ(File() + " 2\n", Opened());
    Fakes::ClearTrace();
    second.Destroy();
    channel.Destroy();
    EXPECT_CALLS({Name() + " channel host:100 deleted", Channel() + " deleted"});
}

TEST_P(TransportNetworkTest, StepsCanBeCalledAlone) {
    const std::string create = GetParam().create;
    const std::string name = "Quorvalen::Native::Transport::TransportNetwork::" + create;
    const auto createChannel =
        bridge.Cpp<int(void*, unsigned char, unsigned char, unsigned char)>(name);
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(0, channel.Call<int>(GetParam().import));
        EXPECT_EQ(0, createChannel(channel.operator->(), 6, 8, 7));
    }
    EXPECT_CALLS(setUp);
    EXPECT_EQ(nullptr, channel.State().activeChannel);
    EXPECT_EQ(0, Initialize());
    EXPECT_CALLS({});
    EXPECT_EQ(Created(), channel.State().activeChannel);
}

// --- Failures ------------------------------------------------------------------------------------

TEST_P(TransportNetworkTest, AMissingLibraryIsCode001AndIsSoughtAgain) {
    layout.Remove(File());
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(NotFound(layout.NativePrefix() + File()), InitializeFailure());
        EXPECT_CALLS(Recording(NotFound(layout.NativePrefix() + File())));
    }
    EXPECT_EQ("", Opened());
    layout.WithFake(GetParam().tls ? "FakeTlsClient" : "FakeTcpClient", File());
    EXPECT_EQ(0, Initialize());
    EXPECT_CALLS(setUp);
}

TEST_P(TransportNetworkTest, AFileThatIsNoLibraryIsCode001WithTheLoadersText) {
    layout.Remove(File());
    layout.WithScrapOfText(File());
    const std::string path = layout.NativePrefix() + File();
    EXPECT_EQ(nullptr, dlopen(path.c_str(), RTLD_NOW));
    const std::string reason = dlerror();
    EXPECT_EQ("Quorvalen Native Exception: Exception code 001. \nCannot load: " + path +
                  ". \nError: " + reason,
              InitializeFailure());
}

TEST_P(TransportNetworkTest, ALibraryWithoutTheFactoryIsCode011AndIsNotReopened) {
    layout.WithFake("FakeClientWithoutFactory", File());
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(Reinstall("011"), InitializeFailure());
        EXPECT_CALLS(Recording(Reinstall("011")));
    }
    EXPECT_EQ(nullptr, channel.State().tcpChannel);
    EXPECT_EQ(nullptr, channel.State().tcpTlsChannel);
    EXPECT_EQ(nullptr, channel.State().activeChannel);
    EXPECT_EQ(nullptr, channel.State().createTransportChannel);
    EXPECT_EQ(File() + " 2\n", Opened());
}

TEST_P(TransportNetworkTest, WithoutALibraryTheFactoryIsSoughtNowhereElse) {
    dlopen((layout.NativePrefix() + File()).c_str(), RTLD_NOW | RTLD_GLOBAL);
    const std::string create = GetParam().create;
    const auto createChannel = bridge.Cpp<int(void*, unsigned char, unsigned char, unsigned char)>(
        "Quorvalen::Native::Transport::TransportNetwork::" + create);
    EXPECT_EQ(Reinstall("011"), FailureOf([&] { createChannel(channel.operator->(), 6, 8, 7); }));
}

TEST_P(TransportNetworkTest, AFactoryReturningNullIsCode012AndIsAskedAgain) {
    Fakes::Fail(Name() + " CreateTransportChannel", 1, true);
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(Reinstall("012"), InitializeFailure());
        EXPECT_CALLS(Joined({{Factory()}, Recording(Reinstall("012"))}));
    }
    EXPECT_EQ(nullptr, Created());
    EXPECT_EQ(nullptr, channel.State().activeChannel);
    Fakes::FailNoMore();
    EXPECT_EQ(0, Initialize());
    EXPECT_CALLS(setUp);
}

TEST_P(TransportNetworkTest, AThrowingFactoryPassesThroughAndIsAskedAgain) {
    Fakes::Fail(Name() + " factory throws");
    EXPECT_EQ(Name() + " factory threw", InitializeFailure());
    EXPECT_CALLS({Factory()});
    EXPECT_EQ(0, Initialize());
    EXPECT_CALLS(setUp);
}

// The channel is kept before it is initialised, so a retry finds it and only makes it the active
// one.
TEST_P(TransportNetworkTest, AChannelWhoseInitializeThrewIsKeptAndNotInitializedAgain) {
    Fakes::Fail(Name() + " channel Initialize");
    EXPECT_EQ(Channel() + " Initialize threw", InitializeFailure());
    EXPECT_CALLS(setUp);
    EXPECT_NE(nullptr, Created());
    EXPECT_EQ(nullptr, channel.State().activeChannel);
    EXPECT_EQ(0, Initialize());
    EXPECT_CALLS({});
    EXPECT_EQ(0, channel->SendCommand(bytes, 3));
    EXPECT_CALLS({Channel() + " SendCommand([3] 01 02 03)"});
}

TEST_P(TransportNetworkTest, AThrowingCommandPassesThroughAndTheNextOneWorks) {
    Initialize();
    Fakes::Fail(Name() + " channel SendCommand");
    EXPECT_EQ(Channel() + " SendCommand threw",
              FailureOf([this] { channel->SendCommand(bytes, 3); }));
    EXPECT_EQ(0, channel->SendCommand(bytes, 3));
}

// Only a channel that takes itself away while it is initialised can leave no active channel.
NetworkFields* emptied = nullptr;
SharedTransport keptAlive;
void TakeAway(const std::string& call) {
    if (call.find(" Initialize(") == std::string::npos) return;
    keptAlive = emptied->useTls ? emptied->tcpTlsChannel : emptied->tcpChannel;
    emptied->tcpChannel.reset();
    emptied->tcpTlsChannel.reset();
}

TEST_P(TransportNetworkTest, NoActiveChannelAfterCreationIsCode013) {
    emptied = &channel.State();
    Fakes::SetHook(TakeAway);
    EXPECT_EQ(Reinstall("013"), InitializeFailure());
    Fakes::SetHook(nullptr);
    EXPECT_CALLS(Joined({setUp, Recording(Reinstall("013"))}));
    EXPECT_EQ(0, Initialize());
    EXPECT_CALLS(setUp);
    keptAlive.reset();
}

TEST_P(TransportNetworkTest, AChannelThatNobodyCanOwnIsDeletedAndAskedForAgain) {
    const void* bridgeCode = AllocationShim::LibraryOf(bridge.Address("SendCommand"));
    channel.Call<int>(GetParam().import);
    AllocationShim::FailIn(bridgeCode, 1);
    const std::string outcome = InitializeFailure();
    EXPECT_TRUE(AllocationShim::FailNoMore());
    EXPECT_EQ("std::bad_alloc", outcome);
    EXPECT_CALLS({Factory(), Channel() + " deleted"});
    EXPECT_EQ(0, Initialize());
    EXPECT_CALLS(setUp);
}

}  // namespace
