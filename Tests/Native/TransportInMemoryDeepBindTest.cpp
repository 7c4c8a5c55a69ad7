// Calling runtime 9 (PHP) opens the called library with deep binding, nobody else does. The fake
// bridge "marked" reports which definition of bridgeMarker it sees: its own, or this program's.
#include "Tests/Native/InMemoryFixture.h"
#include "Tests/Native/Sanitizers.h"

extern "C" __attribute__((visibility("default"))) const char* bridgeMarker();

extern "C" const char* bridgeMarker() {
    return "the program";
}

namespace {

class TransportInMemoryDeepBindTest : public InMemoryTest {
  protected:
    TransportInMemoryDeepBindTest() {
        With("FakeMarkedBridge", "Netcore");
        With("FakeRubyBridge", "Php");
        DlopenShim::Clear();
    }
};

TEST_F(TransportInMemoryDeepBindTest, ALibraryCalledByPhpSeesItsOwnDefinitions) {
    if (QUORVALEN_TEST_SANITIZED) {
        GTEST_SKIP() << "the sanitizer ends the process at RTLD_DEEPBIND";
    }
    EXPECT_EQ(0, channel->Initialize(kPhp, kNetcore, 7));
    EXPECT_CALLS({"marked CreateReceiver(1) sees marked", "marked receiver Initialize(9, 3, 7)",
                  "marked CreateTransmitter(1)", "ruby CreateReceiver(0)",
                  "ruby receiver Initialize(9, 3, 7)", "ruby CreateTransmitter(0)"});
    EXPECT_EQ(Lines({PathOf("Netcore") + " 10", PathOf("Php") + " 2"}), Lines(DlopenShim::Calls()));
}

TEST_F(TransportInMemoryDeepBindTest, ALibraryCalledByAnybodyElseSeesTheProgramsDefinitions) {
    EXPECT_EQ(0, channel->Initialize(kRuby, kNetcore, 7));
    EXPECT_CALLS({"marked CreateReceiver(1) sees the program",
                  "marked receiver Initialize(6, 3, 7)", "marked CreateTransmitter(1)",
                  "ruby CreateReceiver(0)", "ruby receiver Initialize(6, 3, 7)",
                  "ruby CreateTransmitter(0)"});
    EXPECT_EQ(Lines({PathOf("Netcore") + " 2", PathOf("Ruby") + " 2"}), Lines(DlopenShim::Calls()));
}

TEST_F(TransportInMemoryDeepBindTest, EveryCallingRuntimeButPhpOpensPlainly) {
    for (unsigned char calling = 0; calling <= 10; ++calling) {
        if (calling == kPhp) continue;
        InMemoryChannel fresh(bridge);
        DlopenShim::Map(layout.NativePrefix() + BridgeFile("Python"), PathOf("Ruby"));
        fresh->Initialize(calling, kNetcore, 7);
        EXPECT_EQ(PathOf("Netcore") + " 2", DlopenShim::Calls().front()) << int{calling};
        DlopenShim::Clear();
    }
}

TEST_F(TransportInMemoryDeepBindTest, ALibraryThatPhpCallsButIsMissingIsCode001) {
    layout.Remove(BridgeFile("Netcore"));
    EXPECT_EQ(NotFound(PathOf("Netcore")),
              FailureOf([this] { channel->Initialize(kPhp, kNetcore, 7); }));
}

}  // namespace
