// The in-memory channel where everything is in its place: setting both sides up, routing by the
// first byte, several called runtimes, heartbeats, calls that have nobody to go to, destruction.
#include "Tests/Native/InMemoryFixture.h"

namespace {

class TransportInMemoryTest : public InMemoryTest {
  protected:
    std::string HeartBeatOutput(const std::string& side) const {
        const Capture output(1);
        channel.Call<void>("SendHeartBeatTo" + side + "Runtime()");
        return output.Text();
    }
};

TEST_F(TransportInMemoryTest, AFreshChannelHasElevenEmptyEntriesAndUnsetBytes) {
    DlopenShim::Clear();
    const InMemoryChannel fresh(bridge);
    const InMemoryFields& state = fresh.State();
    EXPECT_EQ(100, state.callingRuntime);
    EXPECT_EQ(100, state.calledRuntime);
    EXPECT_EQ(100, state.passThroughByte);
    ASSERT_EQ(11u, state.libraries.size());
    ASSERT_EQ(11u, state.receivers.size());
    ASSERT_EQ(11u, state.transmitters.size());
    for (int runtime = 0; runtime <= 10; ++runtime) {
        EXPECT_EQ(nullptr, state.libraries.at(runtime)) << runtime;
        EXPECT_EQ(nullptr, state.receivers.at(runtime)) << runtime;
        EXPECT_EQ(nullptr, state.transmitters.at(runtime)) << runtime;
    }
    EXPECT_CALLS({});
    EXPECT_EQ("", Lines(DlopenShim::Calls()));
}

TEST_F(TransportInMemoryTest, InitializeSetsUpTheCalledSideThenTheCallingSide) {
    DlopenShim::Clear();
    EXPECT_EQ(0, Initialize());
    EXPECT_CALLS(Joined({calledSide, callingSide}));
    EXPECT_EQ(Lines({PathOf("Cpp") + " 2", PathOf("Ruby") + " 2"}), Lines(DlopenShim::Calls()));

    const InMemoryFields& state = channel.State();
    EXPECT_EQ(kRuby, state.callingRuntime);
    EXPECT_EQ(kCpp, state.calledRuntime);
    EXPECT_EQ(7, state.passThroughByte);
    for (int runtime = 0; runtime <= 10; ++runtime) {
        const bool setUp = runtime == kRuby || runtime == kCpp;
        EXPECT_EQ(setUp, state.libraries.at(runtime) != nullptr) << runtime;
        EXPECT_EQ(setUp, state.receivers.at(runtime) != nullptr) << runtime;
        EXPECT_EQ(setUp, state.transmitters.at(runtime) != nullptr) << runtime;
    }
    EXPECT_TRUE(InitializationMutexIsFree());
}

TEST_F(TransportInMemoryTest, ASecondInitializeTouchesNothingEvenForOtherArguments) {
    Initialize();
    Fakes::ClearTrace();
    DlopenShim::Clear();
    EXPECT_EQ(0, channel->Initialize(kCpp, kRuby, 9));
    EXPECT_EQ(0, Initialize());
    EXPECT_CALLS({});
    EXPECT_EQ("", Lines(DlopenShim::Calls()));
    EXPECT_EQ(kRuby, channel.State().callingRuntime);
    EXPECT_EQ(kCpp, channel.State().calledRuntime);
    EXPECT_EQ(7, channel.State().passThroughByte);
    EXPECT_TRUE(InitializationMutexIsFree());
}

TEST_F(TransportInMemoryTest, ARuntimeThatCallsItselfIsSetUpOnceAsTheCalledSide) {
    EXPECT_EQ(0, channel->Initialize(kCpp, kCpp, 1));
    EXPECT_CALLS(
        {"cpp CreateReceiver(1)", "cpp receiver Initialize(8, 8, 1)", "cpp CreateTransmitter(1)"});
}

TEST_F(TransportInMemoryTest, EveryStepDoesNothingWhenItsResultIsThere) {
    Initialize();
    Fakes::ClearTrace();
    DlopenShim::Clear();
    for (const char* step :
         {"ImportCalledLibrary()", "CreateReceiverInCalledRuntime()",
          "CreateTransmitterInCalledRuntime()", "ImportCallingLibrary()",
          "CreateReceiverInCallingRuntime()", "CreateTransmitterInCallingRuntime()"}) {
        channel.Call<void>(step);
    }
    EXPECT_CALLS({});
    EXPECT_EQ("", Lines(DlopenShim::Calls()));
}

TEST_F(TransportInMemoryTest, OneChannelServesSeveralCalledRuntimes) {
    With("FakeNetcoreBridge", "Netcore");
    Initialize();
    Fakes::ClearTrace();
    EXPECT_EQ(0, channel->Initialize(kRuby, kNetcore, 9));
    EXPECT_CALLS({"netcore CreateReceiver(1)", "netcore receiver Initialize(6, 3, 9)",
                  "netcore CreateTransmitter(1)"});

    const Bytes toCpp = InMemoryCommand(kCpp);
    const Bytes toNetcore = InMemoryCommand(kNetcore);
    Send(toCpp);
    Send(toNetcore);
    Send(toCpp);
    EXPECT_CALLS({"cpp receiver SendCommand(" + Shown(toCpp) + ")",
                  "netcore receiver SendCommand(" + Shown(toNetcore) + ")",
                  "cpp receiver SendCommand(" + Shown(toCpp) + ")"});
}

TEST_F(TransportInMemoryTest, CallsWithoutACommandGoToTheRuntimeThatWasSetUpLast) {
    With("FakeNetcoreBridge", "Netcore");
    Initialize();
    channel->Initialize(kRuby, kNetcore, 9);
    Initialize();  // both libraries are open: nothing changes
    Fakes::ClearTrace();
    unsigned char message[] = {kCpp};
    channel->SetEmbeddedRuntime(kRuby, kCpp, 3, "path");
    channel->DeployRuntime(message, 1, "path", 4);
    HeartBeatOutput("Called");
    EXPECT_CALLS({"netcore receiver SetEmbeddedRuntime(3, path)",
                  "netcore transmitter DeployRuntime([1] 08, path, 4)",
                  "netcore receiver SendCommand([13] 03 09 00 00 00 00 00 00 00 06 0b 31 32)"});
}

TEST_F(TransportInMemoryTest, SendCommandGoesToTheReceiverThatTheFirstByteNames) {
    Initialize();
    Fakes::ClearTrace();
    Fakes::SetNumber("cpp receiver result", 1234);
    Fakes::SetNumber("ruby receiver result", -2);
    EXPECT_EQ(1234, Send({kCpp}));
    EXPECT_EQ(-2, Send({kRuby, 1, 2}));
    EXPECT_CALLS({"cpp receiver SendCommand([1] 08)", "ruby receiver SendCommand([3] 06 01 02)"});
}

TEST_F(TransportInMemoryTest, CommandBytesAreHandedOnWhereTheyLie) {
    With("FakeEchoBridge", "Netcore");
    channel->Initialize(kRuby, kNetcore, 7);
    Bytes command = InMemoryCommand(kNetcore);
    EXPECT_EQ(11, channel->SendCommand(command.data(), 11));
    void* library = dlopen(PathOf("Netcore").c_str(), RTLD_NOW);
    const auto lastCommand =
        reinterpret_cast<const unsigned char* (*)()>(dlsym(library, "lastCommand"));
    EXPECT_EQ(command.data(), lastCommand());
}

TEST_F(TransportInMemoryTest, ReadResponseGoesToTheReceiverThatTheBuffersFirstByteNames) {
    Initialize();
    Fakes::ClearTrace();
    Fakes::SetText("ruby response", "hello");
    Fakes::SetNumber("ruby receiver result", 5);
    unsigned char buffer[6] = {kRuby, 0, 0, 0, 0, '!'};
    EXPECT_EQ(5, channel->ReadResponse(buffer, 5));
    EXPECT_EQ("hello!", std::string(std::begin(buffer), std::end(buffer)));
    EXPECT_CALLS({"ruby receiver ReadResponse(5)"});
}

TEST_F(TransportInMemoryTest, SetEmbeddedRuntimeGoesToTheCalledReceiverWithoutItsFirstTwoBytes) {
    Initialize();
    Fakes::ClearTrace();
    Fakes::SetNumber("cpp receiver result", 21);
    EXPECT_EQ(21, channel->SetEmbeddedRuntime(kRuby, kRuby, 255, "some path"));
    EXPECT_CALLS({"cpp receiver SetEmbeddedRuntime(255, some path)"});
}

TEST_F(TransportInMemoryTest, DeployRuntimeGoesToTheCalledTransmitter) {
    Initialize();
    Fakes::ClearTrace();
    Fakes::SetNumber("cpp transmitter result", 22);
    unsigned char message[] = {kRuby, 2};
    EXPECT_EQ(22, channel->DeployRuntime(message, 2, "some path", 255));
    EXPECT_CALLS({"cpp transmitter DeployRuntime([2] 06 02, some path, 255)"});
}

// --- Heartbeats ----------------------------------------------------------------------------------

// Python (5) calls Netcore (3) with pass-through byte 7. A fake stands for Python's own bridge.
class HeartBeatTest : public TransportInMemoryTest {
  protected:
    HeartBeatTest() {
        With("FakeNetcoreBridge", "Netcore");
        With("FakePythonBridge", "Other");
        DlopenShim::Map(PathOf("Python"), PathOf("Other"));
        channel->Initialize(kPython, kNetcore, 7);
        Fakes::ClearTrace();
    }
};

TEST_F(HeartBeatTest, TheOneToTheCalledRuntimeCarriesThePassThroughByte) {
    EXPECT_EQ("SendHeartBeatToCalledRuntime\n", HeartBeatOutput("Called"));
    EXPECT_CALLS({"netcore receiver SendCommand([13] 03 07 00 00 00 00 00 00 00 05 0b 31 32)"});
}

TEST_F(HeartBeatTest, TheOneToTheCallingRuntimeCarriesZeroInItsPlace) {
    EXPECT_EQ("SendHeartBeatToCallingRuntime\n", HeartBeatOutput("Calling"));
    EXPECT_CALLS({"python receiver SendCommand([13] 05 00 00 00 00 00 00 00 00 03 0b 31 32)"});
}

TEST_F(HeartBeatTest, FailuresAndResultsOfTheReceiverAreNotItsBusiness) {
    Fakes::SetNumber("netcore receiver result", -1);
    EXPECT_EQ("SendHeartBeatToCalledRuntime\n", HeartBeatOutput("Called"));
    Fakes::Fail("netcore receiver throws");
    EXPECT_EQ("netcore receiver threw", FailureOf([this] { HeartBeatOutput("Called"); }));
    EXPECT_EQ("SendHeartBeatToCalledRuntime\n", HeartBeatOutput("Called"));
}

// --- Nobody to go to -----------------------------------------------------------------------------

TEST_F(TransportInMemoryTest, CallsBeforeInitializeSayWhatToCallFirst) {
    unsigned char message[] = {kCpp, 0};
    EXPECT_EQ(NobodyInMemory("receiver", "Cpp (8)"), SendFailure({kCpp, 0}));
    EXPECT_EQ(NobodyInMemory("receiver", "Cpp (8)"),
              FailureOf([&] { channel->ReadResponse(message, 2); }));
    EXPECT_EQ(NobodyInMemory("receiver", "Unknown (100)"),
              FailureOf([&] { channel->SetEmbeddedRuntime(kRuby, kCpp, 1, "path"); }));
    EXPECT_EQ(NobodyInMemory("transmitter", "Unknown (100)"),
              FailureOf([&] { channel->DeployRuntime(message, 2, "path", 1); }));
    for (const char* side : {"Called", "Calling"}) {
        EXPECT_EQ(NobodyInMemory("receiver", "Unknown (100)"),
                  FailureOf([&] { HeartBeatOutput(side); }));
    }
}

TEST_F(TransportInMemoryTest, RuntimesThatWereNeverSetUpAreRefusedAndTheOthersGoOn) {
    Initialize();
    EXPECT_EQ(NobodyInMemory("receiver", "Perl (4)"), SendFailure({kPerl, 0}));
    EXPECT_EQ(NobodyInMemory("receiver", "Unknown (200)"), SendFailure({200, 0}));
    EXPECT_EQ(NobodyInMemory("receiver", "Unknown (255)"), SendFailure({255, 0}));
    Fakes::SetNumber("cpp receiver result", 3);
    EXPECT_EQ(3, Send({kCpp, 0}));
}

TEST_F(TransportInMemoryTest, FailuresOfTheOtherLibraryPassThroughUnchanged) {
    Initialize();
    Fakes::Fail("cpp receiver throws");
    EXPECT_EQ("cpp receiver threw", SendFailure({kCpp}));
    Fakes::Fail("cpp receiver throws");
    unsigned char message[] = {kCpp};
    EXPECT_EQ("cpp receiver threw", FailureOf([&] { channel->ReadResponse(message, 1); }));
    Fakes::Fail("cpp transmitter throws");
    EXPECT_EQ("cpp transmitter threw",
              FailureOf([&] { channel->DeployRuntime(message, 1, "", 0); }));
    Fakes::Fail("cpp receiver throws a number");
    EXPECT_THROW(Send({kCpp}), int);
    EXPECT_EQ(0, Send({kCpp}));
}

// --- Destruction ---------------------------------------------------------------------------------

TEST_F(TransportInMemoryTest, LibrariesAreClosedBeforeTheirObjectsAreReleased) {
    layout.Remove(BridgeFile("Ruby"));
    Initialize();
    Fakes::ClearTrace();
    channel.Destroy();
    EXPECT_CALLS(
        {"dlclose(" + BridgeFile("Cpp") + ")", "cpp transmitter deleted", "cpp receiver deleted"});
}

TEST_F(TransportInMemoryTest, EveryLibraryIsClosedOnceInTheOrderOfTheIds) {
    With("FakeNetcoreBridge", "Netcore");
    Initialize();
    channel->Initialize(kRuby, kNetcore, 7);
    Fakes::ClearTrace();
    channel.Destroy();
    std::vector<std::string> calls = Fakes::Trace();
    ASSERT_EQ(9u, calls.size());
    const std::vector<std::string> objects(calls.begin() + 3, calls.end());
    calls.resize(3);
    EXPECT_EQ(Lines({"dlclose(" + BridgeFile("Netcore") + ")",
                     "dlclose(" + BridgeFile("Ruby") + ")", "dlclose(" + BridgeFile("Cpp") + ")"}),
              Lines(calls));
    for (const std::string& object : objects) {
        EXPECT_NE(std::string::npos, object.find(" deleted")) << object;
    }
}

TEST_F(TransportInMemoryTest, AChannelThatWasNeverInitializedClosesNothing) {
    channel.Destroy();
    EXPECT_CALLS({});
}

}  // namespace
