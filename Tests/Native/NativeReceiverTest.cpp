// The generic receiver's start: what it tells telemetry and standard output, once, and what stays
// when the start fails.
#include <gtest/gtest.h>

#include "Native/Launcher/NativeLauncher.h"
#include "Native/Receiver/NativeReceiver.h"
#include "Tests/Support/Files.h"
#include "Tests/Support/Launcher.h"
#include "Tests/Support/Scopes.h"

using Quorvalen::Native::Definitions::RuntimeOperationMode;
using Quorvalen::Native::Interfaces::ILauncher;
using Quorvalen::Native::Interfaces::IReceiver;
using Quorvalen::Native::Launcher::NativeLauncher;
using Quorvalen::Native::Receiver::NativeReceiver;

namespace {

const std::string kRuntimeInfo =
    "Python Native Launcher Runtime Info:\n"
    "Library Location: libpython3.14.so\n"
    "Runtime Version: 3.fake\n"
    "Runtime Platform: fake-linux\n"
    "\n"
    "Fake Python\n";
const std::string kStarted = "LogMessage(\"Native message\", \"Python initialized\", \"Php\")\n";

// Name the protected fields, so that a test can take a launcher back to "not started".
class ReceiverFields : public NativeReceiver {
  public:
    static ILauncher* LauncherOf(IReceiver* receiver) {
        std::unique_ptr<ILauncher> NativeReceiver::*const field = &ReceiverFields::launcher;
        return (static_cast<NativeReceiver*>(receiver)->*field).get();
    }
};
class LauncherFields : public NativeLauncher {
  public:
    static void Forget(ILauncher* launcher) {
        bool NativeLauncher::*const field = &LauncherFields::initialized;
        static_cast<NativeLauncher*>(launcher)->*field = false;
    }
};

// The telemetry events since the last Fakes::ClearTrace().
std::string Telemetry() {
    std::string events;
    for (const std::string& call : Fakes::Trace()) {
        if (call.rfind("LogMessage(", 0) == 0) events += call + "\n";
    }
    return events;
}

class NativeReceiverTest : public testing::Test {
  protected:
    NativeReceiverTest() {
        layout.WithServices().WithReceiverFile();
        UsePython(layout, "FakePython");
    }

    Layout layout;
    Bridge bridge{layout};
    const Capture output{1};
};

TEST_F(NativeReceiverTest, TheFirstInitializeTellsTelemetryAndPrintsTheRuntimeInformation) {
    IReceiver* receiver = bridge.CreateReceiver(1);
    EXPECT_EQ(0, receiver->Initialize(9, 5, 0));
    EXPECT_EQ(kRuntimeInfo, output.Text());
    EXPECT_EQ(kStarted, Telemetry());
    EXPECT_EQ("", ContentsOf(ErrorLogFile(layout.Root())));
}

// After the start: the event first, then the level, then the information.
TEST_F(NativeReceiverTest, TheStepsAfterTheStartComeInTheirOrder) {
    bridge.CreateReceiver(1)->Initialize(9, 5, 0);
    const std::string trace = Lines(Fakes::Trace());
    const std::string startsEnd = "PyEval_SaveThread()\n";
    EXPECT_EQ(startsEnd + kStarted +
                  Lines({
                      "GetLoggingLevel()",
                      "PyGILState_Ensure() = 1",
                      "PyObject_GetAttrString(Receiver, \"get_runtime_info\")",
                      "PyCallable_Check(get_runtime_info)",
                      "PyObject_CallObject(get_runtime_info, null)",
                      "Py_DecRef(get_runtime_info)",
                      "PyUnicode_AsUTF8(info)",
                      "Py_DecRef(info)",
                      "PyGILState_Release(1)",
                      "PyGILState_Check() = 0",
                      "Py_GetVersion()",
                      "Py_GetPlatform()",
                  }),
              trace.substr(trace.find(startsEnd)));
}

TEST_F(NativeReceiverTest, TheSecondInitializeDoesNothing) {
    IReceiver* receiver = bridge.CreateReceiver(1);
    receiver->Initialize(9, 5, 0);
    Fakes::ClearTrace();
    EXPECT_EQ(0, receiver->Initialize(6, 8, 3));
    EXPECT_EQ("", Lines(Fakes::Trace()));
    EXPECT_EQ(kRuntimeInfo, output.Text());
    // Not even the runtimes change.
    receiver->LogException(nullptr, 0);
    EXPECT_EQ("LogMessage(\"Python exception\", \"\", \"Php\")\n", Telemetry());
}

TEST_F(NativeReceiverTest, InMode0NothingIsToldAndNothingPrinted) {
    IReceiver* receiver = bridge.CreateReceiver(0);
    EXPECT_EQ(0, receiver->Initialize(9, 5, 0));
    EXPECT_EQ(Lines({"GetChannelRuntimePath(\"python\", \"default\")"}), Lines(Fakes::Trace()));
    EXPECT_EQ("", output.Text());
}

TEST_F(NativeReceiverTest, InAModeThatNamesNothingNothingIsToldAndNothingPrinted) {
    IReceiver* receiver = bridge.CreateReceiver(7);
    EXPECT_EQ(0, receiver->Initialize(9, 5, 0));
    EXPECT_EQ("", Telemetry());
    EXPECT_EQ("", output.Text());
}

TEST_F(NativeReceiverTest, WithLevel0FromTheEnvironmentNothingIsPrinted) {
    const EnvironmentVariable level("QUORVALEN_LOGGING_LEVEL", "OFF");
    bridge.CreateReceiver(1)->Initialize(9, 5, 0);
    EXPECT_EQ("", output.Text());
    EXPECT_EQ(kStarted, Telemetry());
}

TEST_F(NativeReceiverTest, WithLevel0FromTheConfigurationNothingIsPrintedEver) {
    Fakes::SetText("GetLoggingLevel", "off");
    IReceiver* receiver = bridge.CreateReceiver(1);
    receiver->Initialize(9, 5, 0);
    Fakes::SetText("GetLoggingLevel", "all");
    receiver->Initialize(9, 5, 0);
    EXPECT_EQ("", output.Text());
    EXPECT_EQ(kStarted, Telemetry());
}

TEST_F(NativeReceiverTest, WithLevel2TheInformationIsPrinted) {
    Fakes::SetText("GetLoggingLevel", "All");
    bridge.CreateReceiver(1)->Initialize(9, 5, 0);
    EXPECT_EQ(kRuntimeInfo, output.Text());
}

TEST_F(NativeReceiverTest, TheInformationIsPrintedAtMostOncePerReceiver) {
    IReceiver* receiver = bridge.CreateReceiver(1);
    receiver->Initialize(9, 5, 0);
    LauncherFields::Forget(ReceiverFields::LauncherOf(receiver));
    Fakes::ClearTrace();
    EXPECT_EQ(0, receiver->Initialize(9, 5, 0));
    EXPECT_EQ(kStarted, Telemetry());
    EXPECT_EQ(kRuntimeInfo, output.Text());
}

// The level decides again as long as nothing was printed.
TEST_F(NativeReceiverTest, InformationNotPrintedAtLevel0CountsAsNotShown) {
    Fakes::SetText("GetLoggingLevel", "off");
    IReceiver* receiver = bridge.CreateReceiver(1);
    receiver->Initialize(9, 5, 0);
    LauncherFields::Forget(ReceiverFields::LauncherOf(receiver));
    Fakes::SetText("GetLoggingLevel", "all");
    receiver->Initialize(9, 5, 0);
    EXPECT_EQ(kRuntimeInfo, output.Text());
}

TEST_F(NativeReceiverTest, UnknownRuntimesAreCalledUnknown) {
    bridge.CreateReceiver(1)->Initialize(200, 11, 0);
    EXPECT_EQ("LogMessage(\"Native message\", \"Unknown initialized\", \"Unknown\")\n",
              Telemetry());
}

TEST_F(NativeReceiverTest, WithoutTheUtilitiesLibraryTheStartIsTheSame) {
    layout.Remove("libUtils.so");
    const Capture errors(2);
    EXPECT_EQ(0, bridge.CreateReceiver(1)->Initialize(9, 5, 0));
    EXPECT_EQ(kRuntimeInfo, output.Text());
    EXPECT_EQ("", errors.Text());
}

TEST_F(NativeReceiverTest, AFailedStartPropagatesAndMayBeTriedAgain) {
    Fakes::Fail("PyImport_Import");
    IReceiver* receiver = bridge.CreateReceiver(1);
    const std::string message =
        "Python Launcher: Exception code 012. Reinstall Quorvalen package\nRUNTIME INFO:\n"
        "Python Native Launcher Runtime Info:\n"
        "Library Location: libpython3.14.so\n"
        "Runtime Version: 3.fake\n"
        "Runtime Platform: fake-linux\n"
        "\n";
    const Capture errors(2);
    EXPECT_EQ(message, FailureOf([&] { receiver->Initialize(9, 5, 0); }));
    EXPECT_FALSE(ReceiverFields::LauncherOf(receiver)->IsInitialized());
    EXPECT_EQ("", output.Text());
    // The runtimes of the failed start stay.
    Fakes::ClearTrace();
    receiver->LogException(nullptr, 0);
    EXPECT_EQ("LogMessage(\"Python exception\", \"\", \"Php\")\n", Telemetry());

    Fakes::ClearTrace();
    EXPECT_EQ(0, receiver->Initialize(6, 5, 0));
    EXPECT_EQ("LogMessage(\"Native message\", \"Python initialized\", \"Ruby\")\n", Telemetry());
    EXPECT_EQ(kRuntimeInfo, output.Text());
}

// The level is asked for after the start, so the receiver is initialised all the same.
TEST_F(NativeReceiverTest, AMissingConfigurationLibraryFailsOnlyTheFirstInitialize) {
    layout.Remove("libConfigs.so");
    IReceiver* receiver = bridge.CreateReceiver(1);
    EXPECT_EQ("Quorvalen Native Exception: Exception code 001. \nCannot load: " +
                  layout.NativePrefix() + "libConfigs.so. \nError: File not found.",
              FailureOf([&] { receiver->Initialize(9, 5, 0); }));
    EXPECT_EQ(kStarted, Telemetry());
    EXPECT_EQ(0, receiver->Initialize(9, 5, 0));
    EXPECT_EQ("", output.Text());
}

TEST_F(NativeReceiverTest, AReceiverOfTheUnsetModeRaisesCode031BeforeItAsksItsLauncher) {
    void* memory = ::operator new(sizeof(NativeReceiver));
    const std::string name = "Quorvalen::Native::Receiver::NativeReceiver::NativeReceiver(";
    bridge.Cpp<void(void*, RuntimeOperationMode)>(
        name + "Quorvalen::Native::Definitions::RuntimeOperationMode)")(
        memory, RuntimeOperationMode::NotSet);
    auto* receiver = static_cast<IReceiver*>(memory);
    ASSERT_EQ(nullptr, ReceiverFields::LauncherOf(receiver));
    EXPECT_EQ("Quorvalen Native Exception: Exception code 031. \nRuntime not initialized",
              FailureOf([&] { receiver->Initialize(9, 5, 0); }));
    delete receiver;
}

}  // namespace
