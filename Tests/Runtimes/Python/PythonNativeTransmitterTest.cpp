// The Python transmitter: it starts empty, in the mode it was given, and lets go of its channels.
#include <gtest/gtest.h>

#include "Runtimes/Python/Native/PythonNativeTransmitter.h"
#include "Tests/Fakes/Recorder.h"
#include "Tests/Fakes/SlotOrder.h"
#include "Tests/Support/Bridge.h"
#include "Tests/Support/DlopenShim.h"
#include "Tests/Support/Files.h"

using Quorvalen::Native::Definitions::RuntimeOperationMode;
using Quorvalen::Runtimes::Python::Native::Transmitter::PythonNativeTransmitter;

namespace {

class Channel : public SlotOrder::ITransport {
  public:
    ~Channel() override { Fakes::Record("channel deleted"); }
    int Initialize(unsigned char, unsigned char, unsigned char) override { return 0; }
    int SendCommand(unsigned char*, int) override { return 0; }
    int ReadResponse(unsigned char*, int length) override { return length; }
    int SetEmbeddedRuntime(unsigned char, unsigned char, unsigned char, std::string) override {
        return 0;
    }
    int DeployRuntime(unsigned char*, int, std::string, unsigned char) override { return 0; }
};

class PythonNativeTransmitterTest : public testing::Test {
  protected:
    PythonNativeTransmitterTest() { layout.WithServices(); }

    SlotOrder::ITransmitter* Construct(int mode) {
        void* memory = ::operator new(sizeof(PythonNativeTransmitter));
        bridge.Cpp<void(void*, RuntimeOperationMode)>(
            "Quorvalen::Runtimes::Python::Native::Transmitter::PythonNativeTransmitter::"
            "PythonNativeTransmitter(Quorvalen::Native::Definitions::RuntimeOperationMode)")(
            memory, static_cast<RuntimeOperationMode>(mode));
        return static_cast<SlotOrder::ITransmitter*>(memory);
    }

    Layout layout;
    Bridge bridge{layout};
};

TEST_F(PythonNativeTransmitterTest, StartsWithoutAChannelInAnyMode) {
    unsigned char buffer[1] = {};
    for (const int mode : {-1, 0, 1, 7}) {
        SlotOrder::ITransmitter* transmitter = Construct(mode);
        EXPECT_EQ(
            "Quorvalen Native Exception: No command has chosen a transport channel yet. \n"
            "Call SendCommand before ReadResponse",
            FailureOf([&] { transmitter->ReadResponse(buffer, 1); }))
            << mode;
        delete transmitter;
    }
}

TEST_F(PythonNativeTransmitterTest, ConstructionAndDestructionCallNothing) {
    DlopenShim::Clear();
    delete Construct(0);
    EXPECT_EQ("", Lines(DlopenShim::Calls()));
    EXPECT_EQ("", Lines(Fakes::Trace()));
}

TEST_F(PythonNativeTransmitterTest, DestructionDeletesTheCurrentChannel) {
    SlotOrder::ITransmitter* transmitter = Construct(0);
    transmitter->SetTransportChannel(new Channel);
    unsigned char buffer[1] = {};
    EXPECT_EQ(1, transmitter->ReadResponse(buffer, 1));
    EXPECT_EQ("", Lines(Fakes::Trace()));
    delete transmitter;
    EXPECT_EQ(Lines({"channel deleted"}), Lines(Fakes::Trace()));
}

}  // namespace
