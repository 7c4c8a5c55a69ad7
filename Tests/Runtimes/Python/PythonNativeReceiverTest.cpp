// The Python receiver: what its construction does and leaves, and what its destruction closes.
#include <gtest/gtest.h>

#include "Runtimes/Python/Native/PythonNativeReceiver.h"
#include "Tests/Fakes/SlotOrder.h"
#include "Tests/Support/DlopenShim.h"
#include "Tests/Support/Files.h"
#include "Tests/Support/Launcher.h"
#include "Tests/Support/Scopes.h"

using Quorvalen::Native::Definitions::RuntimeOperationMode;
using Quorvalen::Native::Interfaces::IReceiver;
using Quorvalen::Runtimes::Python::Native::Receiver::PythonNativeReceiver;

namespace {

constexpr const char* kConstructor =
    "Quorvalen::Runtimes::Python::Native::Receiver::PythonNativeReceiver::PythonNativeReceiver("
    "Quorvalen::Native::Definitions::RuntimeOperationMode)";

class PythonNativeReceiverTest : public testing::Test {
  protected:
    PythonNativeReceiverTest() {
        layout.WithServices().WithReceiverFile();
        UsePython(layout, "FakePython");
    }

    // In memory of the right size, so that it can be deleted through its virtual destructor.
    IReceiver* Construct(int mode) {
        void* memory = ::operator new(sizeof(PythonNativeReceiver));
        try {
            bridge.Cpp<void(void*, RuntimeOperationMode)>(kConstructor)(
                memory, static_cast<RuntimeOperationMode>(mode));
        } catch (const std::exception&) {
            ::operator delete(memory);
            throw;
        }
        return static_cast<IReceiver*>(memory);
    }

    Layout layout;
    Bridge bridge{layout};
};

TEST_F(PythonNativeReceiverTest, TheUnsetModeRaisesCode032AndCreatesNoLauncher) {
    EXPECT_EQ("Quorvalen Native Exception: Exception code 032. \nRuntime not initialized",
              FailureOf([&] { Construct(-1); }));
    EXPECT_EQ(Lines({
                  "GetLoggingLevel()",
                  "GetWorkingDirectory()",
                  "LogMessage(\"Native exception\", \"Quorvalen Native Exception: Exception code "
                  "032. Runtime not initialized\", \"Unknown\")",
              }),
              Lines(Fakes::Trace()));
}

TEST_F(PythonNativeReceiverTest, ConstructionStartsNothing) {
    for (const int mode : {0, 1, 7, -2}) {
        DlopenShim::Clear();
        delete Construct(mode);
        EXPECT_EQ("", Lines(DlopenShim::Calls())) << mode;
        EXPECT_EQ("", Lines(Fakes::Trace())) << mode;
    }
}

TEST_F(PythonNativeReceiverTest, TheLauncherWorksInTheGivenMode) {
    const Capture silenced(1);
    IReceiver* receiver = Construct(0);
    EXPECT_EQ(0, receiver->Initialize(5, 5, 0));
    EXPECT_EQ("", PythonTrace());
    delete receiver;
    receiver = Construct(1);
    EXPECT_EQ(0, receiver->Initialize(5, 5, 0));
    EXPECT_EQ(0U, PythonTrace().find("Py_Initialize()\n"));
    delete receiver;
}

TEST_F(PythonNativeReceiverTest, DestructionClosesTheInterpreter) {
    const Capture silenced(1);
    IReceiver* receiver = Construct(1);
    receiver->Initialize(9, 5, 0);
    Fakes::ClearTrace();
    delete receiver;
    EXPECT_EQ(Lines({
                  "PyGILState_Ensure() = 1",
                  "Py_DecRef(send_command)",
                  "Py_DecRef(heart_beat)",
                  "Py_DecRef(Receiver)",
                  "Py_DecRef(dictionary)",
                  "Py_DecRef(module)",
                  "Py_DecRef(module name)",
                  "Py_Finalize()",
              }),
              Lines(Fakes::Trace()));
}

TEST_F(PythonNativeReceiverTest, DestroyingAReceiverThatWasNeverStartedCallsNothing) {
    IReceiver* receiver = Construct(1);
    delete receiver;
    EXPECT_EQ("", Lines(Fakes::Trace()));
}

TEST_F(PythonNativeReceiverTest, ResponsesThatNobodyReadDieWithTheReceiver) {
    const Capture silenced(1);
    IReceiver* receiver = Construct(1);
    receiver->Initialize(9, 5, 0);
    unsigned char message[11] = {};
    EXPECT_EQ(8, receiver->SendCommand(message, 11));
    delete receiver;
    receiver = Construct(1);
    unsigned char buffer[8] = {};
    EXPECT_EQ(0U, FailureOf([&] {
                      receiver->ReadResponse(buffer, 8);
                  }).find("Python Launcher: Exception code 020.\nError while reading response"));
    delete receiver;
}

}  // namespace
