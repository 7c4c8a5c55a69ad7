// Routing: which channel a command's header chooses, what channels share, which one answers
// ReadResponse, ownership, and what stays after a failure.
#include <limits>

#include "Tests/Native/AllocationShim.h"
#include "Tests/Native/NetworkFixture.h"

namespace {

const std::string kCode023 = "Quorvalen Native Exception: Exception code 023.";
const std::string kNoCurrentChannel =
    "Quorvalen Native Exception: No command has chosen a transport channel yet. \n"
    "Call SendCommand before ReadResponse";
const std::string kNoMessage =
    "Quorvalen Native Exception: The message is a null pointer. \nPass the bytes of a command";

// A channel of the test's own; destroyed by whoever owns it.
class OwnChannel : public Quorvalen::Native::Interfaces::ITransport {
  public:
    explicit OwnChannel(std::string recorded) : name(std::move(recorded)) {}
    ~OwnChannel() override { Fakes::Record(name + " deleted"); }
    int Initialize(unsigned char, unsigned char, unsigned char) override { return Called("Init"); }
    int SendCommand(unsigned char*, int) override { return Called("SendCommand"); }
    int ReadResponse(unsigned char*, int) override { return Called("ReadResponse"); }
    int SetEmbeddedRuntime(unsigned char, unsigned char, unsigned char, std::string) override {
        return Called("SetEmbeddedRuntime");
    }
    int DeployRuntime(unsigned char*, int, std::string, unsigned char) override {
        return Called("DeployRuntime");
    }

  private:
    int Called(const std::string& call) {
        Fakes::Record(name + " " + call);
        return 88;
    }
    const std::string name;
};

class NativeTransmitterTest : public NetworkTest {
  protected:
    NativeTransmitterTest() {
        layout.WithFake("FakeCppBridge", BridgeFile("Cpp"))
            .WithFake("FakeRubyBridge", BridgeFile("Ruby"))
            .WithFake("FakeNetcoreBridge", BridgeFile("Netcore"));
    }

    std::string SendFailure(const Bytes& command) const {
        return FailureOf([&] { transmitter.Send(command); });
    }
    void SendQuietly(const Bytes& command) const {
        transmitter.Send(command);
        Fakes::ClearTrace();
    }
    // The calls of a first command over a network channel.
    static std::vector<std::string> FirstCommand(const std::string& kind,
                                                 const std::string& address, const Bytes& command) {
        const std::string channel = kind + " channel " + address;
        return {kind + " CreateTransportChannel(" + address + ")", channel + " Initialize(6, 8, 7)",
                channel + " SendCommand(" + Shown(command) + ")"};
    }

    const Bytes toTcp = NetworkCommand(1, 8080);
    const Bytes toTls = NetworkCommand(2, 8080);
    const Bytes toCpp = InMemoryCommand(kCpp);
    Transmitter transmitter{bridge};
};

TEST_F(NativeTransmitterTest, IsEmptyAtConstruction) {
    EXPECT_EQ(nullptr, transmitter.State().inMemoryChannel);
    EXPECT_TRUE(transmitter.State().channels.empty());
    EXPECT_EQ(nullptr, transmitter.State().currentChannel);
    EXPECT_EQ(0, transmitter.State().operationMode);
}

// --- Length and connection type ------------------------------------------------------------------

TEST_F(NativeTransmitterTest, CommandsOfTenBytesAndNegativeLengthsAreRefused) {
    Bytes command = toCpp;
    for (const int length : {10, 0, -1, std::numeric_limits<int>::min()}) {
        EXPECT_EQ("Message byte array length is less than 11",
                  FailureOf([&] { transmitter->SendCommand(command.data(), length); }));
        EXPECT_CALLS(Recording("Message byte array length is less than 11"));
    }
    EXPECT_EQ(nullptr, transmitter.State().currentChannel);
}

TEST_F(NativeTransmitterTest, ARefusedCommandLeavesTheCurrentChannelAlone) {
    SendQuietly(toTcp);
    EXPECT_EQ("Message byte array length is less than 11", SendFailure(Bytes(10, 0)));
    Fakes::ClearTrace();
    transmitter.Read(kCpp);
    EXPECT_CALLS({"tcp channel 10.0.0.5:8080 ReadResponse(4)"});
}

TEST_F(NativeTransmitterTest, NullMessagesAreRefused) {
    EXPECT_EQ(kNoMessage, FailureOf([this] { transmitter->SendCommand(nullptr, 11); }));
    EXPECT_EQ(kNoMessage, FailureOf([this] { transmitter->DeployRuntime(nullptr, 11, "", 0); }));
    EXPECT_EQ(nullptr, transmitter.State().currentChannel);
}

TEST_F(NativeTransmitterTest, InMemoryCommandsAreRoutedWhateverTheAddressBytesHold) {
    Fakes::SetNumber("cpp receiver result", 17);
    EXPECT_EQ(17, transmitter.Send(toCpp));
    EXPECT_CALLS({"cpp CreateReceiver(1)", "cpp receiver Initialize(6, 8, 7)",
                  "cpp CreateTransmitter(1)", "ruby CreateReceiver(0)",
                  "ruby receiver Initialize(6, 8, 7)", "ruby CreateTransmitter(0)",
                  "cpp receiver SendCommand(" + Shown(toCpp) + ")"});
    EXPECT_TRUE(transmitter.State().channels.empty());
}

TEST_F(NativeTransmitterTest, EveryOtherConnectionTypeIsCode023AndChangesNothing) {
    SendQuietly(toTcp);
    const SharedTransport current = transmitter.State().currentChannel;
    for (const unsigned char type : Bytes{3, 4, 127, 128, 255}) {
        EXPECT_EQ(kCode023, SendFailure(NetworkCommand(type, 8080)));
        EXPECT_CALLS(Recording(kCode023));
        EXPECT_EQ(current, transmitter.State().currentChannel);
    }
    transmitter.Read(kCpp);
    EXPECT_CALLS({"tcp channel 10.0.0.5:8080 ReadResponse(4)"});
}

TEST_F(NativeTransmitterTest, ReadResponseBeforeAnyRoutedCallSaysWhatToCallFirst) {
    EXPECT_EQ(kNoCurrentChannel, FailureOf([this] { transmitter.Read(kCpp); }));
    EXPECT_EQ(kCode023, SendFailure(NetworkCommand(3, 8080)));
    EXPECT_EQ(kNoCurrentChannel, FailureOf([this] { transmitter.Read(kCpp); }));
}

// --- Network channels ----------------------------------------------------------------------------

TEST_F(NativeTransmitterTest, Type1GoesToTheTcpClient) {
    Fakes::SetNumber("tcp channel result", 31);
    EXPECT_EQ(31, transmitter.Send(toTcp));
    EXPECT_CALLS(FirstCommand("tcp", "10.0.0.5:8080", toTcp));
}

TEST_F(NativeTransmitterTest, Type2GoesToTheTlsClient) {
    Fakes::SetNumber("tls channel result", -31);
    EXPECT_EQ(-31, transmitter.Send(toTls));
    EXPECT_CALLS(FirstCommand("tls", "10.0.0.5:8080", toTls));
}

TEST_F(NativeTransmitterTest, ThePortIsReadLowByteFirst) {
    Bytes command = toTcp;
    command[7] = 0x1f;
    command[8] = 0x90;
    transmitter.Send(command);
    EXPECT_CALLS(FirstCommand("tcp", "10.0.0.5:36895", command));
}

TEST_F(NativeTransmitterTest, OctetsAndPortsAreDecimalWithoutLeadingZeros) {
    const Bytes lowest = NetworkCommand(1, 0, {0, 0, 0, 0});
    const Bytes highest = NetworkCommand(1, 65535, {255, 255, 255, 255});
    const Bytes mixed = NetworkCommand(1, 1, {192, 168, 1, 20});
    for (const Bytes& command : {lowest, highest, mixed}) transmitter.Send(command);
    EXPECT_CALLS(Joined({FirstCommand("tcp", "0.0.0.0:0", lowest),
                         FirstCommand("tcp", "255.255.255.255:65535", highest),
                         FirstCommand("tcp", "192.168.1.20:1", mixed)}));
}

TEST_F(NativeTransmitterTest, ASecondCommandReusesTheChannel) {
    SendQuietly(toTcp);
    transmitter.Send(toTcp);
    EXPECT_CALLS({"tcp channel 10.0.0.5:8080 SendCommand(" + Shown(toTcp) + ")"});
    EXPECT_EQ(1u, transmitter.State().channels.size());
}

TEST_F(NativeTransmitterTest, BothKindsOfChannelShareOneKeyAndTheFirstKindStays) {
    SendQuietly(toTcp);
    transmitter.Send(toTls);
    EXPECT_CALLS({"tcp channel 10.0.0.5:8080 SendCommand(" + Shown(toTls) + ")"});

    SendQuietly(NetworkCommand(2, 9000));
    transmitter.Send(NetworkCommand(1, 9000));
    EXPECT_CALLS({"tls channel 10.0.0.5:9000 SendCommand(" + Shown(NetworkCommand(1, 9000)) + ")"});
}

TEST_F(NativeTransmitterTest, EveryAddressAndPortHasAChannelOfItsOwn) {
    for (const Bytes& command :
         {toTcp, NetworkCommand(1, 8081), NetworkCommand(1, 8080, {10, 0, 0, 6})}) {
        transmitter.Send(command);
    }
    std::vector<std::string> keys;
    for (const auto& entry : transmitter.State().channels) keys.push_back(entry.first);
    EXPECT_EQ(Lines({"10.0.0.5:8080", "10.0.0.5:8081", "10.0.0.6:8080"}), Lines(keys));
}

// --- The current channel -------------------------------------------------------------------------

TEST_F(NativeTransmitterTest, InMemoryCommandsToDifferentRuntimesShareOneChannel) {
    transmitter.Send(toCpp);
    const SharedTransport channel = transmitter.State().currentChannel;
    transmitter.Send(InMemoryCommand(kNetcore));
    EXPECT_EQ(channel, transmitter.State().currentChannel);
    EXPECT_EQ(channel, transmitter.State().inMemoryChannel);
}

TEST_F(NativeTransmitterTest, ReadResponseGoesToTheChannelOfTheLastCommand) {
    SendQuietly(toCpp);
    SendQuietly(toTcp);
    transmitter.Read(kCpp);
    EXPECT_CALLS({"tcp channel 10.0.0.5:8080 ReadResponse(4)"});
    SendQuietly(toCpp);
    transmitter.Read(kCpp);
    EXPECT_CALLS({"cpp receiver ReadResponse(4)"});
}

TEST_F(NativeTransmitterTest, SetEmbeddedRuntimeMakesTheInMemoryChannelCurrent) {
    SendQuietly(toCpp);
    SendQuietly(toTcp);
    Fakes::SetNumber("cpp receiver result", 41);
    EXPECT_EQ(41, transmitter->SetEmbeddedRuntime(1, 2, 3, "some path"));
    transmitter.Read(kCpp);
    EXPECT_CALLS({"cpp receiver SetEmbeddedRuntime(3, some path)", "cpp receiver ReadResponse(4)"});
}

TEST_F(NativeTransmitterTest, SetEmbeddedRuntimeAsTheFirstCallHasNobodyToGoTo) {
    EXPECT_EQ(NobodyInMemory("receiver", "Unknown (100)"),
              FailureOf([this] { transmitter->SetEmbeddedRuntime(1, 2, 3, "path"); }));
    EXPECT_NE(nullptr, transmitter.State().inMemoryChannel);
    EXPECT_EQ(transmitter.State().inMemoryChannel, transmitter.State().currentChannel);
    EXPECT_EQ(0, transmitter.Send(toCpp));
}

TEST_F(NativeTransmitterTest, DeployRuntimeIsRoutedWithoutACheckOfTheLength) {
    SendQuietly(toCpp);
    Fakes::SetNumber("cpp transmitter result", 51);
    Bytes message = toCpp;
    EXPECT_EQ(51, transmitter->DeployRuntime(message.data(), 3, "some path", 200));
    EXPECT_CALLS({"cpp transmitter DeployRuntime([3] 08 07 00, some path, 200)"});
    EXPECT_EQ(51, transmitter->DeployRuntime(message.data(), 0, "", 0));
    EXPECT_CALLS({"cpp transmitter DeployRuntime([0], , 0)"});
}

TEST_F(NativeTransmitterTest, DeployRuntimeSetsUpTheChannelItNeeds) {
    Bytes message = toCpp;
    transmitter->DeployRuntime(message.data(), 11, "path", 1);
    EXPECT_EQ("cpp CreateReceiver(1)", Fakes::Trace().front());
    EXPECT_EQ("cpp transmitter DeployRuntime(" + Shown(toCpp) + ", path, 1)",
              Fakes::Trace().back());
    Fakes::ClearTrace();
    message = toTcp;
    EXPECT_EQ(0, transmitter->DeployRuntime(message.data(), 10, "path", 1));
    EXPECT_CALLS({"tcp CreateTransportChannel(10.0.0.5:8080)",
                  "tcp channel 10.0.0.5:8080 Initialize(6, 8, 7)"});
    message[2] = 3;
    EXPECT_EQ(kCode023,
              FailureOf([&] { transmitter->DeployRuntime(message.data(), 11, "path", 1); }));
}

TEST_F(NativeTransmitterTest, TheStepsOfRoutingKeepWhatTheyCreated) {
    Bytes command = toTcp;
    const std::string scope = "Quorvalen::Native::Transmitter::NativeTransmitter::";
    const auto inMemory =
        bridge.Cpp<SharedTransport(void*)>(scope + "CreateInMemoryTransportChannel()");
    const auto network = bridge.Cpp<SharedTransport(void*, unsigned char*)>(
        scope + "CreateNetworkChannel(unsigned char*)");
    void* object = transmitter.operator->();
    EXPECT_EQ(inMemory(object), inMemory(object));
    EXPECT_EQ(network(object, command.data()), network(object, command.data()));
    EXPECT_EQ(nullptr, transmitter.State().currentChannel);
    bridge.Cpp<void(void*, unsigned char*)>(scope + "GetTransportChannel(unsigned char*)")(
        object, command.data());
    EXPECT_EQ(network(object, command.data()), transmitter.State().currentChannel);
    EXPECT_CALLS({});
}

// --- SetTransportChannel -------------------------------------------------------------------------

TEST_F(NativeTransmitterTest, AChannelSetFromOutsideServesReadResponseUntilTheNextCommand) {
    transmitter->SetTransportChannel(new OwnChannel("own"));
    EXPECT_EQ(88, transmitter.Read(kCpp));
    EXPECT_CALLS({"own ReadResponse"});
    transmitter.Send(toTcp);
    EXPECT_CALLS(Joined({{"own deleted"}, FirstCommand("tcp", "10.0.0.5:8080", toTcp)}));
}

TEST_F(NativeTransmitterTest, AChannelSetFromOutsideIsOwned) {
    transmitter->SetTransportChannel(new OwnChannel("first"));
    transmitter->SetTransportChannel(new OwnChannel("second"));
    EXPECT_CALLS({"first deleted"});
    transmitter->SetTransportChannel(nullptr);
    EXPECT_CALLS({"second deleted"});
    EXPECT_EQ(kNoCurrentChannel, FailureOf([this] { transmitter.Read(kCpp); }));
    transmitter->SetTransportChannel(new OwnChannel("third"));
    Fakes::ClearTrace();
    transmitter.Destroy();
    EXPECT_CALLS({"third deleted"});
}

TEST_F(NativeTransmitterTest, AChannelThatNobodyCanOwnIsDestroyedAndTheCurrentOneStays) {
    transmitter->SetTransportChannel(new OwnChannel("current"));
    auto* other = new OwnChannel("other");
    AllocationShim::FailIn(AllocationShim::LibraryOf(bridge.Address("SendCommand")), 1);
    const std::string outcome = FailureOf([&] { transmitter->SetTransportChannel(other); });
    EXPECT_TRUE(AllocationShim::FailNoMore());
    EXPECT_EQ("std::bad_alloc", outcome);
    EXPECT_CALLS({"other deleted"});
    transmitter.Read(kCpp);
    EXPECT_CALLS({"current ReadResponse"});
}

// --- Failures ------------------------------------------------------------------------------------

TEST_F(NativeTransmitterTest, ANetworkChannelWhoseInitializeFailedIsKeptAndReused) {
    Fakes::Fail("tcp channel Initialize");
    EXPECT_EQ("tcp channel 10.0.0.5:8080 Initialize threw", SendFailure(toTcp));
    const SharedTransport kept = transmitter.State().channels.at("10.0.0.5:8080");
    EXPECT_EQ(kept, transmitter.State().currentChannel);
    Fakes::ClearTrace();
    EXPECT_EQ(0, transmitter.Send(toTls));
    EXPECT_EQ(kept, transmitter.State().currentChannel);
    EXPECT_CALLS({"tcp channel 10.0.0.5:8080 SendCommand(" + Shown(toTls) + ")"});
}

TEST_F(NativeTransmitterTest, AMissingClientLibraryIsCode001UntilItIsThere) {
    layout.Remove(kTcpFile);
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(NotFound(layout.NativePrefix() + kTcpFile), SendFailure(toTcp));
        EXPECT_EQ(1u, transmitter.State().channels.size());
    }
    EXPECT_EQ(
        "Quorvalen Native Exception: The network channel has no connection yet. \n"
        "Call Initialize before SendCommand or ReadResponse",
        FailureOf([this] { transmitter.Read(kCpp); }));
    layout.WithFake("FakeTcpClient", kTcpFile);
    Fakes::ClearTrace();
    EXPECT_EQ(0, transmitter.Send(toTcp));
    EXPECT_CALLS(FirstCommand("tcp", "10.0.0.5:8080", toTcp));
}

TEST_F(NativeTransmitterTest, AFailedInMemoryChannelIsKeptAndRetried) {
    Fakes::Fail("cpp CreateReceiver");
    EXPECT_EQ(Reinstall("015"), SendFailure(toCpp));
    const SharedTransport kept = transmitter.State().inMemoryChannel;
    EXPECT_EQ(0, transmitter.Send(toCpp));
    EXPECT_EQ(kept, transmitter.State().inMemoryChannel);
}

TEST_F(NativeTransmitterTest, FailingCommandsPassThroughAndTheNextOneWorks) {
    Fakes::Fail("tls channel SendCommand");
    EXPECT_EQ("tls channel 10.0.0.5:8080 SendCommand threw", SendFailure(toTls));
    EXPECT_EQ(0, transmitter.Send(toTls));
    SendQuietly(toCpp);
    Fakes::Fail("cpp receiver throws");
    EXPECT_EQ("cpp receiver threw", SendFailure(toCpp));
    EXPECT_EQ(0, transmitter.Send(toCpp));
}

// --- Destruction ---------------------------------------------------------------------------------

TEST_F(NativeTransmitterTest, LetsGoOfTheCurrentThenTheNetworkThenTheInMemoryChannel) {
    layout.Remove(BridgeFile("Ruby"));
    transmitter.Send(toCpp);
    transmitter.Send(toTcp);
    transmitter->SetTransportChannel(new OwnChannel("current"));
    Fakes::ClearTrace();
    transmitter.Destroy();
    EXPECT_CALLS({"current deleted", "tcp channel 10.0.0.5:8080 deleted",
                  "dlclose(" + BridgeFile("Cpp") + ")", "cpp transmitter deleted",
                  "cpp receiver deleted"});
}

TEST_F(NativeTransmitterTest, ACurrentChannelThatIsInTheMapGoesWithTheMap) {
    layout.Remove(BridgeFile("Ruby"));
    transmitter.Send(toTcp);
    transmitter.Send(toCpp);
    Fakes::ClearTrace();
    transmitter.Destroy();
    EXPECT_CALLS({"tcp channel 10.0.0.5:8080 deleted", "dlclose(" + BridgeFile("Cpp") + ")",
                  "cpp transmitter deleted", "cpp receiver deleted"});
}

}  // namespace
