// The in-memory channel when something is missing or fails: codes 001 and 014 to 018, what stays
// done, what a retry repeats, which failures of the calling side are swallowed. The mutex is free
// after every failure.
#include <fstream>

#include "Tests/Native/AllocationShim.h"
#include "Tests/Native/InMemoryFixture.h"

namespace {

class TransportInMemoryFailureTest : public InMemoryTest {
  protected:
    bool Has(const std::map<int, std::shared_ptr<void>>& objects, int runtime) const {
        return objects.at(runtime) != nullptr;
    }
    bool HasReceiver(int runtime) const { return Has(channel.State().receivers, runtime); }
    bool HasTransmitter(int runtime) const { return Has(channel.State().transmitters, runtime); }
    bool HasLibrary(int runtime) const { return channel.State().libraries.at(runtime) != nullptr; }

    // Expects that Initialize fails with the message, forgets the trace, and that the mutex is
    // free.
    void ExpectInitializeFails(const std::string& message) const {
        EXPECT_EQ(message, InitializeFailure());
        EXPECT_TRUE(InitializationMutexIsFree());
    }
    void ExpectInitializeWorks() const {
        EXPECT_EQ("no exception", InitializeFailure());
        EXPECT_TRUE(InitializationMutexIsFree());
    }
    // The loader's own words about a file that is no library.
    std::string LoaderErrorFor(const std::string& path) const {
        EXPECT_EQ(nullptr, dlopen(path.c_str(), RTLD_NOW));
        const std::string reason = dlerror();
        return "Quorvalen Native Exception: Exception code 001. \nCannot load: " + path +
               ". \nError: " + reason;
    }
};

// --- The called side -----------------------------------------------------------------------------

TEST_F(TransportInMemoryFailureTest, MissingCalledLibraryIsCode001AndLooksAgainAtTheNextCall) {
    layout.Remove(BridgeFile("Cpp"));
    DlopenShim::Clear();
    for (int attempt = 0; attempt < 2; ++attempt) {
        ExpectInitializeFails(NotFound(PathOf("Cpp")));
        EXPECT_CALLS(Recording(NotFound(PathOf("Cpp"))));
    }
    for (const std::string& call : DlopenShim::Calls()) {
        EXPECT_EQ(std::string::npos, call.find("RuntimeNative")) << call;
    }
    EXPECT_EQ(kRuby, channel.State().callingRuntime);
    EXPECT_EQ(kCpp, channel.State().calledRuntime);
    EXPECT_EQ(7, channel.State().passThroughByte);
    EXPECT_FALSE(HasLibrary(kRuby));

    With("FakeCppBridge", "Cpp");
    ExpectInitializeWorks();
    EXPECT_CALLS(Joined({calledSide, callingSide}));
}

TEST_F(TransportInMemoryFailureTest, CalledLibraryThatIsNoLibraryIsCode001WithTheLoadersText) {
    layout.Remove(BridgeFile("Cpp"));
    layout.WithScrapOfText(BridgeFile("Cpp"));
    const std::string message = LoaderErrorFor(PathOf("Cpp"));
    ExpectInitializeFails(message);
    EXPECT_CALLS(Recording(message));
}

TEST_F(TransportInMemoryFailureTest, UnknownRuntimesAreSoughtUnderTheNameUnknown) {
    const std::string message = NotFound(layout.NativePrefix() + "Unknown");
    EXPECT_EQ(message, FailureOf([this] { channel->Initialize(kRuby, 200, 7); }));
    EXPECT_EQ(message, FailureOf([this] { channel->Initialize(kRuby, 200, 7); }));
    EXPECT_EQ(200, channel.State().calledRuntime);
    Fakes::ClearTrace();
    ExpectInitializeWorks();
    EXPECT_CALLS(Joined({calledSide, callingSide}));
}

TEST_F(TransportInMemoryFailureTest, NoCreateReceiverInTheCalledLibraryIsCode014) {
    With("FakeBridgeWithoutCreateReceiver", "Cpp");
    ExpectInitializeFails(Reinstall("014"));
    EXPECT_CALLS(Recording(Reinstall("014")));
    EXPECT_TRUE(HasLibrary(kCpp));
    EXPECT_FALSE(HasTransmitter(kCpp));
    EXPECT_FALSE(HasLibrary(kRuby));
}

TEST_F(TransportInMemoryFailureTest, ARetryAfterCode014DoesNotReopenTheLibrary) {
    With("FakeBridgeWithoutCreateReceiver", "Cpp");
    ExpectInitializeFails(Reinstall("014"));
    DlopenShim::Clear();
    Fakes::ClearTrace();
    ExpectInitializeFails(Reinstall("014"));
    EXPECT_CALLS(Recording(Reinstall("014")));
    EXPECT_EQ("", Lines(DlopenShim::Calls()));
}

TEST_F(TransportInMemoryFailureTest, CreateReceiverReturningNullIsCode015AndIsRetried) {
    Fakes::Fail("cpp CreateReceiver");
    ExpectInitializeFails(Reinstall("015"));
    EXPECT_CALLS(Joined({{"cpp CreateReceiver(1)"}, Recording(Reinstall("015"))}));
    EXPECT_FALSE(HasReceiver(kCpp));
    ExpectInitializeWorks();
    EXPECT_CALLS(Joined({calledSide, callingSide}));
}

TEST_F(TransportInMemoryFailureTest, CreateReceiverReturningNullForEverFailsEveryTime) {
    Fakes::Fail("cpp CreateReceiver", 1, true);
    for (int attempt = 0; attempt < 3; ++attempt) ExpectInitializeFails(Reinstall("015"));
}

TEST_F(TransportInMemoryFailureTest, CreateReceiverThrowingPassesThroughAndIsRetried) {
    Fakes::Fail("cpp CreateReceiver throws");
    ExpectInitializeFails("cpp CreateReceiver threw");
    EXPECT_CALLS({"cpp CreateReceiver(1)"});
    ExpectInitializeWorks();
    EXPECT_CALLS(Joined({calledSide, callingSide}));
}

TEST_F(TransportInMemoryFailureTest, ACalledReceiverThatDoesNotStartIsAskedForAgain) {
    const std::string message = "cpp receiver does not start";
    Fakes::Fail("cpp receiver Initialize");
    ExpectInitializeFails(message);
    EXPECT_CALLS(Joined(
        {{"cpp CreateReceiver(1)", "cpp receiver Initialize(6, 8, 7)"}, Recording(message)}));
    EXPECT_FALSE(HasReceiver(kCpp));
    Fakes::Fail("cpp receiver throws");
    ExpectInitializeFails("cpp receiver threw");
    Fakes::ClearTrace();
    ExpectInitializeWorks();
    EXPECT_CALLS(Joined({calledSide, callingSide}));
}

TEST_F(TransportInMemoryFailureTest, NoCreateTransmitterInTheCalledLibraryIsCode016) {
    With("FakeBridgeWithoutCreateTransmitter", "Cpp");
    ExpectInitializeFails(Reinstall("016"));
    EXPECT_CALLS(Joined({{"cpp CreateReceiver(1)", "cpp receiver Initialize(6, 8, 7)"},
                         Recording(Reinstall("016"))}));
    EXPECT_TRUE(HasReceiver(kCpp));
    EXPECT_FALSE(HasTransmitter(kCpp));
    EXPECT_FALSE(HasLibrary(kRuby));

    // The receiver stays; the retry goes straight to the transmitter.
    ExpectInitializeFails(Reinstall("016"));
    EXPECT_CALLS(Recording(Reinstall("016")));
    EXPECT_EQ(0, Send({kCpp}));
}

TEST_F(TransportInMemoryFailureTest, CreateTransmitterThrowingPassesThroughAndOnlyItIsRetried) {
    Fakes::Fail("cpp CreateTransmitter throws");
    ExpectInitializeFails("cpp CreateTransmitter threw");
    Fakes::ClearTrace();
    ExpectInitializeWorks();
    EXPECT_CALLS(Joined({{"cpp CreateTransmitter(1)"}, callingSide}));
}

TEST_F(TransportInMemoryFailureTest, ANullTransmitterIsNotCheckedUntilSomebodyNeedsIt) {
    Fakes::Fail("cpp CreateTransmitter");
    ExpectInitializeWorks();
    EXPECT_CALLS(Joined({calledSide, callingSide}));
    unsigned char message[] = {kCpp};
    EXPECT_EQ(NobodyInMemory("transmitter", "Cpp (8)"),
              FailureOf([&] { channel->DeployRuntime(message, 1, "", 0); }));
    EXPECT_EQ(0, Send({kCpp}));
}

// By design a call with both libraries open does nothing, whatever failed after they were opened.
TEST_F(TransportInMemoryFailureTest, AFailedSecondRuntimeIsNotRetriedOnceBothLibrariesAreOpen) {
    With("FakeBridgeWithoutCreateReceiver", "Netcore");
    Initialize();
    EXPECT_EQ(Reinstall("014"), FailureOf([this] { channel->Initialize(kRuby, kNetcore, 9); }));
    Fakes::ClearTrace();
    EXPECT_EQ(0, channel->Initialize(kRuby, kNetcore, 9));
    EXPECT_CALLS({});
    EXPECT_EQ(NobodyInMemory("receiver", "Netcore (3)"), SendFailure({kNetcore}));
    EXPECT_EQ(0, Send({kCpp}));
    EXPECT_EQ(kNetcore, channel.State().calledRuntime);
}

// --- The calling side ----------------------------------------------------------------------------

// What a swallowed failure of the calling side leaves: a called side that is fully usable.
class CallingSideTest : public TransportInMemoryFailureTest {
  protected:
    void ExpectSwallowed(const std::vector<std::string>& callingCalls) {
        ExpectInitializeWorks();
        EXPECT_CALLS(Joined({calledSide, callingCalls}));
        EXPECT_TRUE(HasReceiver(kCpp));
        EXPECT_TRUE(HasTransmitter(kCpp));
        EXPECT_FALSE(HasTransmitter(kRuby));
        EXPECT_EQ(0, Send({kCpp}));
        Fakes::ClearTrace();
    }
};

TEST_F(CallingSideTest, AMissingLibraryIsSwallowedAndSoughtAgain) {
    layout.Remove(BridgeFile("Ruby"));
    ExpectSwallowed(Recording(NotFound(PathOf("Ruby"))));
    EXPECT_FALSE(HasReceiver(kRuby));

    EXPECT_EQ(0, Initialize());
    EXPECT_CALLS(Recording(NotFound(PathOf("Ruby"))));
    With("FakeRubyBridge", "Ruby");
    EXPECT_EQ(0, Initialize());
    EXPECT_CALLS(callingSide);
}

TEST_F(CallingSideTest, AFileThatIsNoLibraryIsSwallowed) {
    layout.Remove(BridgeFile("Ruby"));
    layout.WithScrapOfText(BridgeFile("Ruby"));
    ExpectSwallowed(Recording(LoaderErrorFor(PathOf("Ruby"))));
}

TEST_F(CallingSideTest, AMissingConfigurationOnTopOfAMissingLibraryIsSwallowedToo) {
    layout.Remove(BridgeFile("Ruby"));
    layout.Remove("libConfigs.so");
    ExpectSwallowed({});
}

TEST_F(CallingSideTest, NoCreateReceiverIsCode017AndIsSwallowedForGood) {
    With("FakeBridgeWithoutCreateReceiver", "Ruby");
    ExpectSwallowed(Recording(Reinstall("017")));
    EXPECT_FALSE(HasReceiver(kRuby));
    // Both libraries are open now, so nothing is tried again.
    EXPECT_EQ(0, Initialize());
    EXPECT_CALLS({});
}

TEST_F(CallingSideTest, CreateReceiverReturningNullIsCode018AndIsSwallowed) {
    Fakes::Fail("ruby CreateReceiver");
    ExpectSwallowed(Joined({{"ruby CreateReceiver(0)"}, Recording(Reinstall("018"))}));
    EXPECT_FALSE(HasReceiver(kRuby));
}

TEST_F(CallingSideTest, AReceiverThatDoesNotStartWithTheFrameworksExceptionIsSwallowed) {
    Fakes::Fail("ruby receiver Initialize");
    ExpectSwallowed(Joined({{"ruby CreateReceiver(0)", "ruby receiver Initialize(6, 8, 7)"},
                            Recording("ruby receiver does not start")}));
    EXPECT_FALSE(HasReceiver(kRuby));
}

TEST_F(CallingSideTest, NoCreateTransmitterIsCode016AndIsSwallowed) {
    With("FakeBridgeWithoutCreateTransmitter", "Ruby");  // its objects are named "cpp"
    ExpectSwallowed(Joined({{"cpp CreateReceiver(0)", "cpp receiver Initialize(6, 8, 7)"},
                            Recording(Reinstall("016"))}));
    EXPECT_TRUE(HasReceiver(kRuby));
}

TEST_F(CallingSideTest, ANullTransmitterIsKept) {
    Fakes::Fail("ruby CreateTransmitter");
    ExpectSwallowed(callingSide);
    EXPECT_TRUE(HasReceiver(kRuby));
}

// Any other exception type is raised, whichever step it comes from, and the mutex is free.
TEST_F(CallingSideTest, OtherExceptionsReachTheCaller) {
    for (const char* failure :
         {"ruby CreateReceiver throws", "ruby receiver throws", "ruby CreateTransmitter throws"}) {
        InMemoryChannel fresh(bridge);
        Fakes::Fail(failure);
        std::string expected = failure;
        expected.replace(expected.find("throws"), 6, "threw");
        EXPECT_EQ(expected, FailureOf([&] { fresh->Initialize(kRuby, kCpp, 7); }));
        EXPECT_TRUE(InitializationMutexIsFree());
    }
    Fakes::Fail("ruby receiver throws a number");
    EXPECT_THROW(Initialize(), int);
    EXPECT_TRUE(InitializationMutexIsFree());
    EXPECT_TRUE(HasReceiver(kCpp));
    EXPECT_EQ(0, Send({kCpp}));
}

// --- Steps called alone, memory ------------------------------------------------------------------

// Without a library to look in, the loader would search the whole process and find this bridge.
TEST_F(TransportInMemoryFailureTest, StepsBeforeTheImportFindNothingElsewhere) {
    dlopen(layout.BridgePath().c_str(), RTLD_NOW | RTLD_GLOBAL);
    EXPECT_EQ(Reinstall("014"),
              FailureOf([this] { channel.Call<void>("CreateReceiverInCalledRuntime()"); }));
    EXPECT_EQ(Reinstall("016"),
              FailureOf([this] { channel.Call<void>("CreateTransmitterInCalledRuntime()"); }));
    EXPECT_EQ(Reinstall("017"),
              FailureOf([this] { channel.Call<void>("CreateReceiverInCallingRuntime()"); }));
    EXPECT_EQ(Reinstall("016"),
              FailureOf([this] { channel.Call<void>("CreateTransmitterInCallingRuntime()"); }));
}

// Lets every allocation of the bridge fail in turn: objects of the other libraries are deleted when
// nobody can own them, the mutex is free, and the next call completes what is missing.
TEST_F(TransportInMemoryFailureTest, EveryFailingAllocationIsRaisedAndARetryCompletesTheRest) {
    const void* bridgeCode = AllocationShim::LibraryOf(bridge.Address("SendCommand"));
    int created = 0;
    int deleted = 0;
    int failures = 0;
    for (bool failed = true; failed;) {
        Fakes::ClearTrace();
        InMemoryChannel fresh(bridge);
        AllocationShim::FailIn(bridgeCode, ++failures);
        const std::string outcome = FailureOf([&] { fresh->Initialize(kRuby, kCpp, 7); });
        failed = AllocationShim::FailNoMore();
        EXPECT_EQ(failed ? "std::bad_alloc" : "no exception", outcome);
        EXPECT_TRUE(InitializationMutexIsFree());
        EXPECT_EQ("no exception", FailureOf([&] { fresh->Initialize(kRuby, kCpp, 7); }));
        fresh.Destroy();
        for (const std::string& call : Fakes::Trace()) {
            created += call.find(" Create") != std::string::npos;
            deleted += call.find(" deleted") != std::string::npos;
        }
    }
    EXPECT_GE(failures, 5);  // an owner for each of the four objects at the least
    EXPECT_EQ(created, deleted);
}

}  // namespace
