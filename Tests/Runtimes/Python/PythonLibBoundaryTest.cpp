// The exported boundary: what the entry points forward, which failures become a status, and what
// GetNativeError, SetCallback, SetConfigSource and SetWorkingDirectory answer.
#include <gtest/gtest.h>

#include <new>

#include "Tests/Fakes/Recorder.h"
#include "Tests/Fakes/SlotOrder.h"
#include "Tests/Support/Bridge.h"
#include "Tests/Support/Files.h"
#include "Tests/Support/Scopes.h"

using Quorvalen::Native::Definitions::RuntimeOperationMode;

namespace {

struct NoStandardException {};

// What a transmitter of the test's own does with every call.
class TestTransmitter : public SlotOrder::ITransmitter {
  public:
    std::function<int()> action = [] { return 0; };

    int SendCommand(unsigned char* message, int length) override {
        return Call("SendCommand(" + Fakes::ShowBytes(message, length) + ")");
    }
    int ReadResponse(unsigned char* buffer, int length) override {
        buffer[0] = 0x2a;
        return Call("ReadResponse(" + std::to_string(length) + ")");
    }
    void SetTransportChannel(SlotOrder::ITransport*) override { Call("SetTransportChannel()"); }
    int SetEmbeddedRuntime(unsigned char a, unsigned char b, unsigned char c,
                           std::string path) override {
        return Call("SetEmbeddedRuntime(" + std::to_string(a) + ", " + std::to_string(b) + ", " +
                    std::to_string(c) + ", " + path + ")");
    }
    int DeployRuntime(unsigned char* message, int length, std::string path,
                      unsigned char flag) override {
        return Call("DeployRuntime(" + Fakes::ShowBytes(message, length) + ", " + path + ", " +
                    std::to_string(flag) + ")");
    }

  private:
    int Call(const std::string& call) {
        Fakes::Record(call);
        return action();
    }
};

class PythonLibBoundaryTest : public testing::Test {
  protected:
    PythonLibBoundaryTest() { layout.WithServices(); }

    // The process's transmitter is the test's from now on.
    void InstallTransmitter() {
        bridge.Variable<SlotOrder::ITransmitter*>("transmitter") = &transmitter;
        bridge.Variable<RuntimeOperationMode>("operationMode") =
            RuntimeOperationMode::CallingRuntime;
    }

    int SendCommand() { return bridge.C<int(unsigned char*, int)>("SendCommand")(bytes, 3); }
    int ReadResponse() { return bridge.C<int(unsigned char*, int)>("ReadResponse")(bytes, 3); }
    int SetEmbeddedRuntime(const char* text) {
        return bridge.C<int(int, int, int, const char*)>("SetEmbeddedRuntime")(255, 256, -2, text);
    }
    int DeployRuntime(const char* text) {
        return bridge.C<int(unsigned char*, int, const char*, int)>("DeployRuntime")(bytes, 3, text,
                                                                                     300);
    }

    unsigned char bytes[3] = {1, 0xff, 0x0b};
    TestTransmitter transmitter;
    Layout layout;
    Bridge bridge{layout};
};

// The standard library's own text for a string made of a null pointer.
std::string NullTextMessage() {
    const char* volatile null = nullptr;
    return FailureOf([&] { const std::string text(null); });
}

TEST_F(PythonLibBoundaryTest, CallsReachTheTransmitterWithTheirArguments) {
    InstallTransmitter();
    transmitter.action = [] { return 42; };
    EXPECT_EQ(42, SendCommand());
    EXPECT_EQ(42, ReadResponse());
    EXPECT_EQ(0x2a, bytes[0]);
    EXPECT_EQ(42, SetEmbeddedRuntime("/some path"));
    EXPECT_EQ(42, DeployRuntime("text"));
    EXPECT_EQ(Lines({
                  "SendCommand([3] 01 ff 0b)",
                  "ReadResponse(3)",
                  "SetEmbeddedRuntime(255, 0, 254, /some path)",
                  "DeployRuntime([3] 2a ff 0b, text, 44)",
              }),
              Lines(Fakes::Trace()));
    EXPECT_EQ("Undefined error", bridge.NativeError());
}

TEST_F(PythonLibBoundaryTest, ANegativeResultOfTheTransmitterIsPassedOnUnchanged) {
    InstallTransmitter();
    transmitter.action = [] { return -2; };
    EXPECT_EQ(-2, SendCommand());
    EXPECT_EQ(-2, ReadResponse());
    EXPECT_EQ(-2, SetEmbeddedRuntime(""));
    EXPECT_EQ(-2, DeployRuntime(""));
    EXPECT_EQ("Undefined error", bridge.NativeError());
}

TEST_F(PythonLibBoundaryTest, EachEntryPointReportsAFailureByItsOwnStatus) {
    InstallTransmitter();
    int count = 0;
    transmitter.action = [&]() -> int {
        throw std::runtime_error("failure " + std::to_string(++count));
    };
    EXPECT_EQ(-2, SendCommand());
    EXPECT_EQ("failure 1", bridge.NativeError());
    EXPECT_EQ(-3, ReadResponse());
    EXPECT_EQ("failure 2", bridge.NativeError());
    EXPECT_EQ(-4, SetEmbeddedRuntime(""));
    EXPECT_EQ("failure 3", bridge.NativeError());
    EXPECT_EQ(-5, DeployRuntime(""));
    EXPECT_EQ("failure 4", bridge.NativeError());
}

TEST_F(PythonLibBoundaryTest, EveryStandardExceptionIsCaught) {
    InstallTransmitter();
    transmitter.action = []() -> int { throw std::bad_alloc(); };
    EXPECT_EQ(-2, SendCommand());
    EXPECT_EQ("std::bad_alloc", bridge.NativeError());
    transmitter.action = []() -> int { throw std::exception(); };
    EXPECT_EQ(-3, ReadResponse());
    EXPECT_EQ("std::exception", bridge.NativeError());
}

TEST_F(PythonLibBoundaryTest, WhatIsNoStandardExceptionPropagates) {
    InstallTransmitter();
    transmitter.action = []() -> int { throw NoStandardException(); };
    EXPECT_THROW(SendCommand(), NoStandardException);
    EXPECT_THROW(ReadResponse(), NoStandardException);
    EXPECT_THROW(SetEmbeddedRuntime(""), NoStandardException);
    EXPECT_THROW(DeployRuntime(""), NoStandardException);
    EXPECT_EQ("Undefined error", bridge.NativeError());
}

TEST_F(PythonLibBoundaryTest, GetNativeErrorBeforeAnyFailureIsUndefinedError) {
    EXPECT_EQ("Undefined error", bridge.NativeError());
}

TEST_F(PythonLibBoundaryTest, TheErrorTextIsNeverCleared) {
    InstallTransmitter();
    transmitter.action = []() -> int { throw std::runtime_error("the failure"); };
    SendCommand();
    transmitter.action = [] { return 0; };
    EXPECT_EQ(0, SendCommand());
    EXPECT_EQ("the failure", bridge.NativeError());
}

TEST_F(PythonLibBoundaryTest, GetNativeErrorGivesTheVariablesOwnMemory) {
    const auto getNativeError = bridge.C<const char*()>("GetNativeError");
    const std::string& variable = bridge.Variable<std::string>("errorMessage");
    EXPECT_EQ(variable.c_str(), getNativeError());
    InstallTransmitter();
    transmitter.action = []() -> int { throw std::runtime_error(std::string(1000, 'x')); };
    SendCommand();
    const char* text = getNativeError();
    EXPECT_EQ(variable.c_str(), text);
    // It stays valid while nothing fails.
    transmitter.action = [] { return 0; };
    SendCommand();
    EXPECT_EQ(text, getNativeError());
    EXPECT_EQ(std::string(1000, 'x'), text);
}

TEST_F(PythonLibBoundaryTest, AFailureOfTheBridgeItselfIsKeptWhole) {
    EXPECT_EQ(-2, SendCommand());
    EXPECT_EQ("Message byte array length is less than 11", bridge.NativeError());
}

TEST_F(PythonLibBoundaryTest, SetEmbeddedRuntimeWithANullTextReportsTheStandardLibrarysError) {
    EXPECT_EQ(-4, SetEmbeddedRuntime(nullptr));
    EXPECT_EQ(NullTextMessage(), bridge.NativeError());
    // The transmitter comes first.
    EXPECT_NE(nullptr, bridge.C<void*()>("GetTransmitter")());
    EXPECT_FALSE(bridge.Variable<bool>("firstCall"));
}

TEST_F(PythonLibBoundaryTest, DeployRuntimeWithANullTextReportsTheStandardLibrarysError) {
    EXPECT_EQ(-5, DeployRuntime(nullptr));
    EXPECT_EQ(NullTextMessage(), bridge.NativeError());
    EXPECT_NE(nullptr, bridge.C<void*()>("GetTransmitter")());
}

TEST_F(PythonLibBoundaryTest, SetCallbackStoresThePointerAndAnswers1ForNull) {
    const auto setCallback = bridge.C<int(void*)>("SetCallback");
    const auto callback = bridge.Cpp<void*()>("getPythonCallbackFunction()");
    int function = 0;
    EXPECT_EQ(nullptr, callback());
    EXPECT_EQ(0, setCallback(&function));
    EXPECT_EQ(&function, callback());
    EXPECT_EQ(&function, bridge.Variable<void*>("pythonFunction"));
    EXPECT_EQ(1, setCallback(nullptr));
    EXPECT_EQ(nullptr, callback());
}

TEST_F(PythonLibBoundaryTest, ConfigurationSettersForwardAndReturnTheConfigurationsResult) {
    Fakes::SetNumber("SetConfigSource", 7);
    Fakes::SetNumber("SetWorkingDirectory", -7);
    EXPECT_EQ(7, bridge.C<int(const char*)>("SetConfigSource")("file.json"));
    EXPECT_EQ(-7, bridge.C<int(const char*)>("SetWorkingDirectory")("/directory"));
    EXPECT_EQ(7, bridge.Cpp<int(std::string)>("SetConfigSource(std::string)")("other.json"));
    EXPECT_EQ(-7, bridge.Cpp<int(std::string)>("SetWorkingDirectoryPath(std::string)")("/other"));
    EXPECT_EQ(Lines({
                  "SetConfigSource(\"file.json\")",
                  "SetWorkingDirectory(\"/directory\")",
                  "SetConfigSource(\"other.json\")",
                  "SetWorkingDirectory(\"/other\")",
              }),
              Lines(Fakes::Trace()));
    EXPECT_EQ(-1, static_cast<int>(bridge.Variable<RuntimeOperationMode>("operationMode")));
}

TEST_F(PythonLibBoundaryTest, ANullArgumentOfAConfigurationSetterPropagates) {
    for (const char* setter : {"SetConfigSource", "SetWorkingDirectory"}) {
        EXPECT_EQ(NullTextMessage(),
                  FailureOf([&] { bridge.C<int(const char*)>(setter)(nullptr); }));
    }
    EXPECT_EQ("", Lines(Fakes::Trace()));
    EXPECT_EQ("Undefined error", bridge.NativeError());
}

TEST_F(PythonLibBoundaryTest, AMissingConfigurationLibraryPropagatesFromTheSetters) {
    layout.Remove("libConfigs.so");
    for (const char* setter : {"SetConfigSource", "SetWorkingDirectory"}) {
        EXPECT_EQ("Quorvalen Native Exception: Exception code 001. \nCannot load: " +
                      layout.NativePrefix() + "libConfigs.so. \nError: File not found.",
                  FailureOf([&] { bridge.C<int(const char*)>(setter)("x"); }));
    }
    EXPECT_EQ("Undefined error", bridge.NativeError());
}

TEST_F(PythonLibBoundaryTest, AMissingConfigurationLibraryStillLeavesAStatusAndAText) {
    layout.Remove("libConfigs.so");
    EXPECT_EQ(-2, SendCommand());
    EXPECT_EQ("Quorvalen Native Exception: Exception code 001. \nCannot load: " +
                  layout.NativePrefix() + "libConfigs.so. \nError: File not found.",
              bridge.NativeError());
}

TEST_F(PythonLibBoundaryTest, EmptyFunctionDoesNothing) {
    bridge.C<void()>("emptyFunctionInNativeLib")();
    EXPECT_EQ("", Lines(Fakes::Trace()));
    EXPECT_TRUE(bridge.Variable<bool>("firstCall"));
}

}  // namespace
