// The process-wide state behind the entry points: what loading the library leaves, how the two
// singletons are created and how the first caller's mode stays.
#include <gtest/gtest.h>

#include <memory>

#include "Native/Transmitter/NativeTransmitter.h"
#include "Tests/Fakes/Recorder.h"
#include "Tests/Support/Bridge.h"
#include "Tests/Support/DlopenShim.h"
#include "Tests/Support/Files.h"
#include "Tests/Support/Scopes.h"

using Quorvalen::Native::Definitions::RuntimeOperationMode;
using Quorvalen::Native::Interfaces::IReceiver;
using Quorvalen::Native::Interfaces::ITransmitter;
using Quorvalen::Native::Transmitter::NativeTransmitter;

namespace {

// Names the protected field, so that the mode of the bridge's own object can be read.
class TransmitterMode : public NativeTransmitter {
  public:
    static int Of(ITransmitter* transmitter) {
        RuntimeOperationMode NativeTransmitter::*const field = &TransmitterMode::operationMode;
        return static_cast<int>(static_cast<NativeTransmitter*>(transmitter)->*field);
    }
};

class PythonLibCreationTest : public testing::Test {
  protected:
    PythonLibCreationTest() { layout.WithServices(); }

    int Mode() const {
        return static_cast<int>(bridge->Variable<RuntimeOperationMode>("operationMode"));
    }
    bool FirstCall() const { return bridge->Variable<bool>("firstCall"); }
    IReceiver* Receiver() const { return bridge->C<IReceiver*()>("GetReceiver")(); }
    ITransmitter* Transmitter() const { return bridge->C<ITransmitter*()>("GetTransmitter")(); }
    int SendCommand() const {
        unsigned char message[1] = {};
        return bridge->C<int(unsigned char*, int)>("SendCommand")(message, 1);
    }
    int ReadResponse() const {
        unsigned char buffer[1] = {};
        return bridge->C<int(unsigned char*, int)>("ReadResponse")(buffer, 1);
    }

    Layout layout;
    std::unique_ptr<Bridge> bridge = std::make_unique<Bridge>(layout);
};

TEST(PythonLibLoadTest, LoadingTheLibraryOnlyInitialisesItsVariables) {
    Layout layout;
    layout.WithServices();
    const Capture output(1);
    const Capture errors(2);
    const Bridge bridge(layout);
    EXPECT_EQ(-1, static_cast<int>(bridge.Variable<RuntimeOperationMode>("operationMode")));
    EXPECT_TRUE(bridge.Variable<bool>("firstCall"));
    EXPECT_EQ(nullptr, bridge.Variable<IReceiver*>("receiver"));
    EXPECT_EQ(nullptr, bridge.Variable<ITransmitter*>("transmitter"));
    EXPECT_EQ("Undefined error", bridge.Variable<std::string>("errorMessage"));
    EXPECT_EQ("Python", bridge.Variable<std::string>("runtimeName"));
    EXPECT_EQ(nullptr, bridge.Variable<void*>("pythonFunction"));
    EXPECT_EQ(nullptr, bridge.C<IReceiver*()>("GetReceiver")());
    EXPECT_EQ(nullptr, bridge.C<ITransmitter*()>("GetTransmitter")());
    EXPECT_EQ(Lines({layout.BridgePath().string() + " " + std::to_string(RTLD_NOW)}),
              Lines(DlopenShim::Calls()));
    EXPECT_EQ("", Lines(Fakes::Trace()));
    EXPECT_EQ("", output.Text());
    EXPECT_EQ("", errors.Text());
}

TEST_F(PythonLibCreationTest, VariablesAreReachableUnderTheirDecoratedNamesToo) {
    EXPECT_EQ(&bridge->Variable<std::string>("errorMessage"),
              &bridge->Variable<std::string>("_Z12errorMessageB5cxx11"));
    EXPECT_EQ(&bridge->Variable<std::string>("runtimeName"),
              &bridge->Variable<std::string>("_Z11runtimeNameB5cxx11"));
    EXPECT_EQ(bridge->Address("emptyFunctionInNativeLib"),
              bridge->CppAddress("emptyFunctionInNativeLib()"));
}

TEST_F(PythonLibCreationTest, TheSecondCreateReceiverGivesTheFirstOneAndKeepsItsMode) {
    IReceiver* first = bridge->CreateReceiver(1);
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(first, bridge->CreateReceiver(0));
    EXPECT_EQ(first, bridge->CreateReceiver(-1));
    EXPECT_EQ(first, Receiver());
    EXPECT_EQ(1, Mode());
    EXPECT_EQ(nullptr, Transmitter());
    EXPECT_TRUE(FirstCall());
}

TEST_F(PythonLibCreationTest, TheSecondCreateTransmitterGivesTheFirstOneAndKeepsItsMode) {
    ITransmitter* first = bridge->CreateTransmitter(0);
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(first, bridge->CreateTransmitter(1));
    EXPECT_EQ(first, Transmitter());
    EXPECT_EQ(0, Mode());
    EXPECT_EQ(0, TransmitterMode::Of(first));
    EXPECT_EQ(nullptr, Receiver());
    EXPECT_TRUE(FirstCall());
}

TEST_F(PythonLibCreationTest, CreateTransmitterAfterCreateReceiverUsesTheReceiversMode) {
    bridge->CreateReceiver(1);
    ITransmitter* transmitter = bridge->CreateTransmitter(0);
    EXPECT_EQ(1, Mode());
    EXPECT_EQ(1, TransmitterMode::Of(transmitter));
}

TEST_F(PythonLibCreationTest, CreateReceiverAfterCreateTransmitterUsesTheTransmittersMode) {
    bridge->CreateTransmitter(1);
    EXPECT_NE(nullptr, bridge->CreateReceiver(-1));
    EXPECT_EQ(1, Mode());
}

TEST_F(PythonLibCreationTest, AModeThatNamesNothingCountsAsSet) {
    bridge->CreateTransmitter(7);
    EXPECT_EQ(7, Mode());
    EXPECT_NE(nullptr, bridge->CreateReceiver(1));
    EXPECT_EQ(7, Mode());
}

TEST_F(PythonLibCreationTest, ANegativeModeOtherThanMinusOneCountsAsSet) {
    EXPECT_NE(nullptr, bridge->CreateReceiver(-2));
    EXPECT_EQ(-2, Mode());
}

TEST_F(PythonLibCreationTest, CreateReceiverWithTheUnsetModeRaisesCode032AndLeavesNothing) {
    const std::string message =
        "Quorvalen Native Exception: Exception code 032. \nRuntime not initialized";
    const Capture errors(2);
    EXPECT_EQ(message, FailureOf([&] { bridge->CreateReceiver(-1); }));
    EXPECT_EQ(nullptr, Receiver());
    EXPECT_EQ(-1, Mode());
    // It escaped: nothing was kept for GetNativeError.
    EXPECT_EQ("Undefined error", bridge->NativeError());
    EXPECT_EQ("<time>\tThread ID: <id>\t" + message + "\n",
              WithoutTimeAndThread(ContentsOf(ErrorLogFile(layout.Root()))));
    EXPECT_EQ("<time>\tThread ID: <id>\t" + message +
                  "\nIf the error persists, contact support on: support@quorvalen.example\n",
              WithoutTimeAndThread(errors.Text()));

    // The lock was given back, and the next caller chooses the mode.
    EXPECT_EQ(message, FailureOf([&] { bridge->CreateReceiver(-1); }));
    EXPECT_NE(nullptr, bridge->CreateReceiver(1));
    EXPECT_EQ(1, Mode());
}

TEST_F(PythonLibCreationTest, ATransmitterCreatedWithTheUnsetModeLeavesTheChoiceToTheNextCaller) {
    ITransmitter* transmitter = bridge->CreateTransmitter(-1);
    ASSERT_NE(nullptr, transmitter);
    EXPECT_EQ(-1, Mode());
    EXPECT_EQ(transmitter, bridge->CreateTransmitter(1));
    EXPECT_EQ(1, Mode());
    EXPECT_EQ(-1, TransmitterMode::Of(transmitter));
}

TEST_F(PythonLibCreationTest, SendCommandAsTheFirstCallCreatesATransmitterOfMode0) {
    EXPECT_EQ(-2, SendCommand());
    ASSERT_NE(nullptr, Transmitter());
    EXPECT_EQ(0, Mode());
    EXPECT_EQ(0, TransmitterMode::Of(Transmitter()));
    EXPECT_EQ(nullptr, Receiver());
    EXPECT_FALSE(FirstCall());
}

TEST_F(PythonLibCreationTest, TheSecondSendCommandDoesNotLookForATransmitterAgain) {
    SendCommand();
    ITransmitter* const created = Transmitter();
    bridge->Variable<ITransmitter*>("transmitter") = nullptr;
    EXPECT_EQ(-2, SendCommand());
    EXPECT_EQ(nullptr, Transmitter());
    EXPECT_EQ(
        "Quorvalen Native Exception: No transmitter exists in this process. \n"
        "Call CreateTransmitter or SendCommand before ReadResponse",
        bridge->NativeError());
    bridge->Variable<ITransmitter*>("transmitter") = created;
}

TEST_F(PythonLibCreationTest, SetEmbeddedRuntimeAsTheFirstCallCreatesATransmitterOfMode0) {
    EXPECT_EQ(-4, bridge->C<int(int, int, int, const char*)>("SetEmbeddedRuntime")(5, 8, 0, "/"));
    ASSERT_NE(nullptr, Transmitter());
    EXPECT_EQ(0, Mode());
    EXPECT_EQ(
        "Quorvalen Native Exception: No receiver of runtime Unknown (100) is set up in this "
        "process. \nSend a command to this runtime over the in-memory channel first",
        bridge->NativeError());
}

TEST_F(PythonLibCreationTest, DeployRuntimeAsTheFirstCallCreatesATransmitterOfMode0) {
    EXPECT_EQ(-5, bridge->C<int(unsigned char*, int, const char*, int)>("DeployRuntime")(nullptr, 0,
                                                                                         "", 0));
    ASSERT_NE(nullptr, Transmitter());
    EXPECT_EQ(0, Mode());
    EXPECT_EQ(
        "Quorvalen Native Exception: The message is a null pointer. \nPass the bytes of a command",
        bridge->NativeError());
}

TEST_F(PythonLibCreationTest, ReadResponseCreatesNothing) {
    EXPECT_EQ(-3, ReadResponse());
    EXPECT_EQ(
        "Quorvalen Native Exception: No transmitter exists in this process. \n"
        "Call CreateTransmitter or SendCommand before ReadResponse",
        bridge->NativeError());
    EXPECT_EQ(nullptr, Transmitter());
    EXPECT_EQ(-1, Mode());
    EXPECT_TRUE(FirstCall());
}

TEST_F(PythonLibCreationTest, ReadResponseAfterCreateTransmitterReachesTheTransmitter) {
    bridge->CreateTransmitter(0);
    EXPECT_EQ(-3, ReadResponse());
    EXPECT_EQ(
        "Quorvalen Native Exception: No command has chosen a transport channel yet. \n"
        "Call SendCommand before ReadResponse",
        bridge->NativeError());
    EXPECT_TRUE(FirstCall());
}

TEST_F(PythonLibCreationTest, AProcessMayHoldBothSingletons) {
    IReceiver* receiver = bridge->CreateReceiver(1);
    EXPECT_EQ(-2, SendCommand());
    ASSERT_NE(nullptr, Transmitter());
    EXPECT_EQ(receiver, Receiver());
    EXPECT_EQ(1, Mode());
    EXPECT_EQ(1, TransmitterMode::Of(Transmitter()));
}

TEST_F(PythonLibCreationTest, SetOperationModeForTransmitterAnswers0AndKeepsWhatIsThere) {
    const auto set = bridge->Cpp<int()>("SetOperationModeForTransmitter()");
    EXPECT_EQ(0, set());
    ITransmitter* created = Transmitter();
    EXPECT_NE(nullptr, created);
    EXPECT_EQ(0, Mode());
    EXPECT_TRUE(FirstCall());
    EXPECT_EQ(0, set());
    EXPECT_EQ(created, Transmitter());
}

TEST_F(PythonLibCreationTest, AtStartUpWorksOnceInTheLifeOfTheProcess) {
    const auto atStartUp = bridge->Cpp<void()>("AtStartUp()");
    atStartUp();
    ITransmitter* const created = Transmitter();
    EXPECT_NE(nullptr, created);
    EXPECT_FALSE(FirstCall());
    bridge->Variable<ITransmitter*>("transmitter") = nullptr;
    atStartUp();
    EXPECT_EQ(nullptr, Transmitter());
    bridge->Variable<ITransmitter*>("transmitter") = created;
}

TEST_F(PythonLibCreationTest, CreatingSingletonsCallsNoOtherLibrary) {
    DlopenShim::Clear();
    bridge->CreateReceiver(1);
    bridge->CreateTransmitter(1);
    EXPECT_EQ("", Lines(DlopenShim::Calls()));
    EXPECT_EQ("", Lines(Fakes::Trace()));
}

}  // namespace
