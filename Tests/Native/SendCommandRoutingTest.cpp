// The exported SendCommand, ReadResponse, SetEmbeddedRuntime and DeployRuntime end to end: to fake
// bridges in memory and to fake clients over the network; statuses -2 to -5 with their texts, and
// that the next command works after every one of them.
#include "Tests/Native/NetworkFixture.h"
#include "Tests/Support/Launcher.h"

namespace {

const std::string kNoMessage =
    "Quorvalen Native Exception: The message is a null pointer. \nPass the bytes of a command";
const std::string kTooShort = "Message byte array length is less than 11";

class SendCommandRoutingTest : public NetworkTest {
  protected:
    SendCommandRoutingTest() {
        layout.WithFake("FakeCppBridge", BridgeFile("Cpp"))
            .WithFake("FakeRubyBridge", BridgeFile("Ruby"));
    }

    int Send(Bytes command) const {
        return bridge.C<int(unsigned char*, int)>("SendCommand")(command.data(), Length(command));
    }
    // The response's first bytes; `status` is what ReadResponse returned.
    std::string Read(unsigned char firstByte, int length, int& status) const {
        std::string buffer(static_cast<std::size_t>(length), static_cast<char>(firstByte));
        status = bridge.C<int(unsigned char*, int)>("ReadResponse")(
            reinterpret_cast<unsigned char*>(buffer.data()), length);
        return buffer;
    }
    int SetEmbeddedRuntime(int a, int b, int c, const char* text) const {
        return bridge.C<int(int, int, int, const char*)>("SetEmbeddedRuntime")(a, b, c, text);
    }
    int Deploy(Bytes message, const char* text, int flag) const {
        return bridge.C<int(unsigned char*, int, const char*, int)>("DeployRuntime")(
            message.data(), Length(message), text, flag);
    }
    // Expects the failure status with its text, and that the next command works.
    void ExpectFailed(int status, const std::string& text, int answered) const {
        EXPECT_EQ(status, answered);
        EXPECT_EQ(text, bridge.NativeError());
        Fakes::SetNumber("cpp receiver result", 9);
        EXPECT_EQ(9, Send(toCpp));
        EXPECT_EQ(text, bridge.NativeError());
    }

    const Bytes toCpp = InMemoryCommand(kCpp);
    const Bytes toTcp = NetworkCommand(1, 8080);
    const Bytes toTls = NetworkCommand(2, 8443);
};

// --- To a runtime and back -----------------------------------------------------------------------

TEST_F(SendCommandRoutingTest, ACommandGoesToAnotherBridgeInMemoryAndItsResponseComesBack) {
    Fakes::SetNumber("cpp receiver result", 5);
    EXPECT_EQ(5, Send(toCpp));
    Fakes::SetText("cpp response", "hello");
    Fakes::SetNumber("cpp receiver result", 0);
    int status = -1;
    EXPECT_EQ("hello", Read(kCpp, 5, status));
    EXPECT_EQ(0, status);
    EXPECT_CALLS(
        {"cpp CreateReceiver(1)", "cpp receiver Initialize(6, 8, 7)", "cpp CreateTransmitter(1)",
         "ruby CreateReceiver(0)", "ruby receiver Initialize(6, 8, 7)", "ruby CreateTransmitter(0)",
         "cpp receiver SendCommand(" + Shown(toCpp) + ")", "cpp receiver ReadResponse(5)"});
    EXPECT_EQ("Undefined error", bridge.NativeError());
    EXPECT_EQ(0, bridge.Variable<int>("operationMode"));
}

TEST_F(SendCommandRoutingTest, ACommandGoesOverTheNetworkAndItsResponseComesBack) {
    for (const std::string kind : {"tcp", "tls"}) {
        const Bytes& command = kind == "tcp" ? toTcp : toTls;
        const std::string address = kind == "tcp" ? "10.0.0.5:8080" : "10.0.0.5:8443";
        const std::string channel = kind + " channel " + address;
        Fakes::SetNumber(kind + " channel result", 6);
        EXPECT_EQ(6, Send(command));
        Fakes::SetText(kind + " response", "answer");
        int status = -1;
        EXPECT_EQ("answer", Read(0, 6, status));
        EXPECT_EQ(6, status);
        EXPECT_CALLS(
            {kind + " CreateTransportChannel(" + address + ")", channel + " Initialize(6, 8, 7)",
             channel + " SendCommand(" + Shown(command) + ")", channel + " ReadResponse(6)"});
    }
}

// Python calls out: the calling side is this library itself, which opens Python and takes the
// registered callback over; a command to Python's own id reaches that callback.
std::string callbackSaw;
struct PythonResult {
    std::string name = "result";
    std::string bytes = "from Python";
} pythonResult;
void* Callback(unsigned char* message, int length) {
    callbackSaw = Fakes::ShowBytes(message, length);
    return &pythonResult;
}

TEST_F(SendCommandRoutingTest, FromPythonTheCallingSideIsThisLibraryItself) {
    UsePython(layout, "FakePython");
    bridge.C<int(void*)>("SetCallback")(reinterpret_cast<void*>(&Callback));
    Bytes first = InMemoryCommand(kCpp, kPython);
    first[1] = 0;  // the version is handed to both sides, and Python has to find it
    EXPECT_EQ(0, Send(first));
    EXPECT_EQ(bridge.C<void*()>("GetReceiver")(), bridge.Variable<void*>("receiver"));
    EXPECT_NE(nullptr, bridge.Variable<void*>("receiver"));
    EXPECT_EQ("Undefined error", bridge.NativeError());

    const Bytes heartBeat = {kPython, 7, 0, 0, 0, 0, 0, 0, 0, kCpp, 11};
    EXPECT_EQ(11, Send(heartBeat));
    EXPECT_EQ(Shown(heartBeat), callbackSaw);
    int status = -1;
    EXPECT_EQ("from Python", Read(kPython, 11, status));
    EXPECT_EQ(0, status);
}

TEST_F(SendCommandRoutingTest, DeployRuntimeIsRoutedByItsMessageAndNarrowsItsFlag) {
    Fakes::SetNumber("cpp transmitter result", 3);
    EXPECT_EQ(3, Deploy(toCpp, "some path", 256 + 4));
    EXPECT_EQ("cpp transmitter DeployRuntime(" + Shown(toCpp) + ", some path, 4)",
              Fakes::Trace().back());
    EXPECT_EQ(0, Deploy(toTcp, "some path", 1));
}

TEST_F(SendCommandRoutingTest, DeployRuntimeTakesMessagesShorterThanACommand) {
    Send(toCpp);
    Fakes::ClearTrace();
    Bytes message = toCpp;
    const auto deploy = bridge.C<int(unsigned char*, int, const char*, int)>("DeployRuntime");
    EXPECT_EQ(0, deploy(message.data(), 4, "", 0));
    EXPECT_CALLS({"cpp transmitter DeployRuntime([4] 08 07 00 e1, , 0)"});
}

TEST_F(SendCommandRoutingTest, SetEmbeddedRuntimeGoesToTheRuntimeThatWasSetUpLast) {
    Send(toCpp);
    Fakes::ClearTrace();
    Fakes::SetNumber("cpp receiver result", 4);
    EXPECT_EQ(4, SetEmbeddedRuntime(1, 2, 256 + 3, "some path"));
    EXPECT_CALLS({"cpp receiver SetEmbeddedRuntime(3, some path)"});
}

TEST_F(SendCommandRoutingTest, NegativeResultsOfTheOtherSidePassUnchangedAndAreNoFailures) {
    Fakes::SetNumber("cpp receiver result", -2);
    EXPECT_EQ(-2, Send(toCpp));
    Fakes::SetNumber("tcp channel result", -99);
    EXPECT_EQ(-99, Send(toTcp));
    EXPECT_EQ("Undefined error", bridge.NativeError());
}

// --- Statuses and texts --------------------------------------------------------------------------

TEST_F(SendCommandRoutingTest, ShortCommandsAndNegativeLengthsAreMinus2) {
    Bytes command = toCpp;
    const auto send = bridge.C<int(unsigned char*, int)>("SendCommand");
    for (const int length : {10, 1, 0, -1}) {
        ExpectFailed(-2, kTooShort, send(command.data(), length));
    }
}

TEST_F(SendCommandRoutingTest, NullMessagesAreMinus2AndMinus5) {
    const auto send = bridge.C<int(unsigned char*, int)>("SendCommand");
    const auto deploy = bridge.C<int(unsigned char*, int, const char*, int)>("DeployRuntime");
    ExpectFailed(-2, kNoMessage, send(nullptr, 11));
    ExpectFailed(-2, kTooShort, send(nullptr, 0));
    ExpectFailed(-5, kNoMessage, deploy(nullptr, 11, "path", 0));
}

TEST_F(SendCommandRoutingTest, NullTextsAreMinus4AndMinus5) {
    std::string text;
    const char* none = std::getenv("QUORVALEN_LOGGING_LEVEL");  // not set
    try {
        text = std::string(none);
    } catch (const std::logic_error& failure) {
        text = failure.what();
    }
    ExpectFailed(-4, text, SetEmbeddedRuntime(1, 2, 3, nullptr));
    ExpectFailed(-5, text, Deploy(toCpp, nullptr, 0));
}

TEST_F(SendCommandRoutingTest, UnknownConnectionTypesAreMinus2AndMinus5) {
    const std::string code023 = "Quorvalen Native Exception: Exception code 023.";
    for (const unsigned char type : Bytes{3, 255}) {
        ExpectFailed(-2, code023, Send(NetworkCommand(type, 8080)));
        ExpectFailed(-5, code023, Deploy(NetworkCommand(type, 8080), "", 0));
    }
}

TEST_F(SendCommandRoutingTest, ReadResponseAfterARefusedCommandReadsFromTheOneBefore) {
    Fakes::SetText("tcp response", "x");
    Send(toTcp);
    EXPECT_EQ(-2, Send(NetworkCommand(3, 8080)));
    Fakes::ClearTrace();
    int status = -1;
    EXPECT_EQ("x", Read(0, 1, status));
    EXPECT_EQ(0, status);
    EXPECT_CALLS({"tcp channel 10.0.0.5:8080 ReadResponse(1)"});
}

TEST_F(SendCommandRoutingTest, UnknownRuntimesAreMinus2WithAPathThatEndsInUnknown) {
    ExpectFailed(-2, NotFound(layout.NativePrefix() + "Unknown"), Send(InMemoryCommand(200)));
    ExpectFailed(-2, NotFound(layout.NativePrefix() + BridgeFile("Perl")),
                 Send(InMemoryCommand(kPerl)));
}

TEST_F(SendCommandRoutingTest, AMissingClientLibraryIsMinus2UntilItIsThere) {
    layout.Remove(kTlsFile);
    ExpectFailed(-2, NotFound(layout.NativePrefix() + kTlsFile), Send(toTls));
    int status = 0;
    EXPECT_EQ(-2, Send(toTls));
    Read(0, 1, status);
    EXPECT_EQ(-3, status);
    EXPECT_EQ(
        "Quorvalen Native Exception: The network channel has no connection yet. \n"
        "Call Initialize before SendCommand or ReadResponse",
        bridge.NativeError());
    layout.WithFake("FakeTlsClient", kTlsFile);
    EXPECT_EQ(0, Send(toTls));
}

TEST_F(SendCommandRoutingTest, ATlsClientInTheSecondPlaceAloneIsMinus2) {
    layout.Remove(kTlsFile);
    layout.WithFake("FakeTlsClient", std::string("openssl3/") + kTlsFile);
    ExpectFailed(-2, NotFound(layout.NativePrefix() + kTlsFile), Send(toTls));
}

TEST_F(SendCommandRoutingTest, EveryCodedFailureOfTheChannelsIsMinus2) {
    const std::vector<std::pair<std::string, std::string>> failures = {
        {"cpp CreateReceiver", Reinstall("015")},
        {"cpp CreateReceiver throws", "cpp CreateReceiver threw"},
        {"cpp receiver Initialize", "cpp receiver does not start"},
        {"cpp CreateTransmitter throws", "cpp CreateTransmitter threw"},
        {"ruby CreateReceiver throws", "ruby CreateReceiver threw"}};
    for (const auto& [failing, text] : failures) {
        Fakes::Fail(failing);
        EXPECT_EQ(-2, Send(toCpp)) << failing;
        EXPECT_EQ(text, bridge.NativeError());
    }
    EXPECT_EQ(0, Send(toCpp));
    const std::vector<std::pair<std::string, std::string>> network = {
        {"tcp CreateTransportChannel", Reinstall("012")},
        {"tcp factory throws", "tcp factory threw"},
        {"tcp channel Initialize", "tcp channel 10.0.0.5:8080 Initialize threw"},
        {"tcp channel SendCommand", "tcp channel 10.0.0.5:8080 SendCommand threw"}};
    for (const auto& [failing, text] : network) {
        Fakes::Fail(failing);
        EXPECT_EQ(-2, Send(toTcp)) << failing;
        EXPECT_EQ(text, bridge.NativeError());
    }
    EXPECT_EQ(0, Send(toTcp));
}

TEST_F(SendCommandRoutingTest, LibrariesWithoutTheirFunctionsAreMinus2) {
    layout.WithFake("FakeBridgeWithoutCreateReceiver", BridgeFile("Netcore"))
        .WithFake("FakeBridgeWithoutCreateTransmitter", BridgeFile("Perl"))
        .WithFake("FakeClientWithoutFactory", kTcpFile);
    ExpectFailed(-2, Reinstall("014"), Send(InMemoryCommand(kNetcore, kPhp + 1)));
    ExpectFailed(-2, Reinstall("016"), Send(InMemoryCommand(kPerl, kPhp + 1)));
    ExpectFailed(-2, Reinstall("011"), Send(toTcp));
}

TEST_F(SendCommandRoutingTest, FailuresOfTheOtherSideKeepTheirTexts) {
    Send(toCpp);
    unsigned char buffer[1] = {kCpp};
    const auto read = bridge.C<int(unsigned char*, int)>("ReadResponse");
    Fakes::Fail("cpp receiver throws");
    ExpectFailed(-2, "cpp receiver threw", Send(toCpp));
    Fakes::Fail("cpp receiver throws");
    ExpectFailed(-3, "cpp receiver threw", read(buffer, 1));
    Fakes::Fail("cpp receiver throws");
    ExpectFailed(-4, "cpp receiver threw", SetEmbeddedRuntime(1, 2, 3, ""));
    Fakes::Fail("cpp transmitter throws");
    ExpectFailed(-5, "cpp transmitter threw", Deploy(toCpp, "", 0));
}

TEST_F(SendCommandRoutingTest, WhatIsNoStandardExceptionPropagates) {
    Send(toCpp);
    Fakes::Fail("cpp receiver throws a number");
    EXPECT_THROW(Send(toCpp), int);
    EXPECT_EQ("Undefined error", bridge.NativeError());
    EXPECT_EQ(0, Send(toCpp));
}

TEST_F(SendCommandRoutingTest, WithoutAConfigurationTheTextIsThatOfTheMissingLibrary) {
    layout.Remove("libConfigs.so");
    ExpectFailed(-2, NotFound(layout.NativePrefix() + "libConfigs.so"), Send(Bytes(10, 0)));
}

// --- Calls that have nobody to go to -------------------------------------------------------------

TEST_F(SendCommandRoutingTest, ReadResponseBeforeAnyTransmitterIsMinus3) {
    int status = 0;
    Read(kCpp, 1, status);
    EXPECT_EQ(nullptr, bridge.Variable<void*>("transmitter"));
    ExpectFailed(-3,
                 "Quorvalen Native Exception: No transmitter exists in this process. \n"
                 "Call CreateTransmitter or SendCommand before ReadResponse",
                 status);
}

TEST_F(SendCommandRoutingTest, ReadResponseBeforeAnyCommandIsMinus3) {
    bridge.CreateTransmitter(0);
    int status = 0;
    Read(kCpp, 1, status);
    ExpectFailed(-3,
                 "Quorvalen Native Exception: No command has chosen a transport channel yet. \n"
                 "Call SendCommand before ReadResponse",
                 status);
}

TEST_F(SendCommandRoutingTest, ReadResponseForARuntimeThatWasNeverSetUpIsMinus3) {
    Send(toCpp);
    int status = 0;
    Read(kPerl, 1, status);
    ExpectFailed(-3, NobodyInMemory("receiver", "Perl (4)"), status);
}

TEST_F(SendCommandRoutingTest, SetEmbeddedRuntimeAsTheVeryFirstCallIsMinus4) {
    ExpectFailed(-4, NobodyInMemory("receiver", "Unknown (100)"),
                 SetEmbeddedRuntime(1, 2, 3, "path"));
    EXPECT_EQ(0, bridge.Variable<int>("operationMode"));
}

TEST_F(SendCommandRoutingTest, DeployRuntimeForARuntimeWithoutATransmitterIsMinus5) {
    Fakes::Fail("cpp CreateTransmitter");
    ExpectFailed(-5, NobodyInMemory("transmitter", "Cpp (8)"), Deploy(toCpp, "path", 0));
}

}  // namespace
