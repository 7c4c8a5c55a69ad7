// Several libraries with the bridge's exported names in one process, all of them global: each
// bridge keeps to its own variables, functions, directory and objects.
#include <gtest/gtest.h>

#include "Native/Definitions/RuntimeOperationMode.h"
#include "Tests/Fakes/Recorder.h"
#include "Tests/Support/Bridge.h"
#include "Tests/Support/Files.h"
#include "Tests/Support/NativeException.h"
#include "Tests/Support/Paths.h"
#include "Tests/Support/Scopes.h"

using Quorvalen::Native::Definitions::RuntimeOperationMode;

// The same names twice are the point here.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
    return "detect_odr_violation=0:use_sigaltstack=0";
}

namespace {

int Mode(const Bridge& bridge) {
    return static_cast<int>(bridge.Variable<RuntimeOperationMode>("operationMode"));
}

std::string DirectoryOf(const Bridge& bridge) {
    return bridge.Cpp<std::string()>(
        "Quorvalen::Native::LibrariesFinder::LibrariesFinder::getThisLibraryPath()")();
}

const std::string& CachedDirectoryOf(const Bridge& bridge) {
    return bridge.Cpp<const std::string&()>(
        "Quorvalen::Native::LibrariesFinder::LibrariesFinder::getPathToDir()")();
}

// Nothing of the bridge that `layout` holds is another library's.
void ExpectAllItsOwn(const Bridge& bridge, const Layout& layout) {
    unsigned char message[1] = {};
    EXPECT_EQ(-1, Mode(bridge));
    EXPECT_EQ("Undefined error", bridge.NativeError());
    EXPECT_EQ(nullptr, bridge.C<void*()>("GetReceiver")());
    EXPECT_EQ(-3, bridge.C<int(unsigned char*, int)>("ReadResponse")(message, 1));
    EXPECT_EQ(-2, bridge.C<int(unsigned char*, int)>("SendCommand")(message, 1));
    EXPECT_EQ("Message byte array length is less than 11", bridge.NativeError());
    EXPECT_EQ(0, Mode(bridge));
    EXPECT_FALSE(bridge.Variable<bool>("firstCall"));
    EXPECT_EQ(bridge.Variable<void*>("transmitter"), bridge.C<void*()>("GetTransmitter")());
    EXPECT_EQ(bridge.CreateReceiver(1), bridge.Variable<void*>("receiver"));
    EXPECT_EQ(0, Mode(bridge));
    int callback = 0;
    bridge.C<int(void*)>("SetCallback")(&callback);
    EXPECT_EQ(&callback, bridge.Cpp<void*()>("getPythonCallbackFunction()")());
    EXPECT_EQ(layout.NativePrefix(), DirectoryOf(bridge));
    EXPECT_EQ(layout.NativePrefix(), CachedDirectoryOf(bridge));
}

class NamesakeTest : public testing::TestWithParam<int> {
  protected:
    NamesakeTest() {
        layout.WithServices().WithFake("FakeNamesake", "libNamesake.so");
        const std::string path = layout.NativePrefix() + "libNamesake.so";
        namesake = dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL);
    }

    template <typename Type>
    Type& NamesakesVariable(const char* name) const {
        return *static_cast<Type*>(dlsym(namesake, name));
    }

    Layout layout;
    void* namesake;
};

TEST_P(NamesakeTest, OpenedFirstItIsNeitherUsedNorTouched) {
    ASSERT_NE(nullptr, namesake);
    // It is what the process finds under these names.
    ASSERT_EQ(dlsym(namesake, "operationMode"), dlsym(RTLD_DEFAULT, "operationMode"));
    void* const itsReceiver = NamesakesVariable<void*>("receiver");
    void* const itsTransmitter = NamesakesVariable<void*>("transmitter");
    const Bridge bridge(layout, RTLD_NOW | GetParam());
    ExpectAllItsOwn(bridge, layout);
    EXPECT_EQ(77, NamesakesVariable<int>("operationMode"));
    EXPECT_FALSE(NamesakesVariable<bool>("firstCall"));
    EXPECT_EQ(itsReceiver, NamesakesVariable<void*>("receiver"));
    EXPECT_EQ(itsTransmitter, NamesakesVariable<void*>("transmitter"));
    EXPECT_EQ("namesake", NamesakesVariable<std::string>("_Z12errorMessageB5cxx11"));
    EXPECT_EQ(NamesakesVariable<int>("operationMode"),
              *static_cast<int*>(NamesakesVariable<void*>("pythonFunction")));
}

INSTANTIATE_TEST_SUITE_P(BridgeOpened, NamesakeTest, testing::Values(RTLD_LOCAL, RTLD_GLOBAL),
                         [](const testing::TestParamInfo<int>& tested) {
                             return tested.param == RTLD_GLOBAL ? "Global" : "Local";
                         });

// A second copy carries every exported name, functions and tables of functions included.
class TwoBridgesTest : public testing::Test {
  protected:
    TwoBridgesTest() {
        firstLayout.WithServices();
        secondLayout.WithFake("FakeConfigs", "libConfigs.so").WithFake("FakeUtils", "libUtils.so");
    }

    Layout firstLayout;
    Layout secondLayout;
    const Bridge first{firstLayout, RTLD_NOW | RTLD_GLOBAL};
    const Bridge second{secondLayout, RTLD_NOW | RTLD_GLOBAL};
};

TEST_F(TwoBridgesTest, EachIsAllItsOwn) {
    ASSERT_NE(first.Handle(), second.Handle());
    ExpectAllItsOwn(second, secondLayout);
    ExpectAllItsOwn(first, firstLayout);
}

TEST_F(TwoBridgesTest, EachHasItsModeAndItsObjects) {
    auto* receiver = second.CreateReceiver(1);
    EXPECT_EQ(nullptr, first.C<void*()>("GetReceiver")());
    EXPECT_EQ(-1, Mode(first));
    auto* transmitter = first.CreateTransmitter(0);
    EXPECT_EQ(nullptr, second.C<void*()>("GetTransmitter")());
    EXPECT_EQ(1, Mode(second));
    EXPECT_NE(first.CreateReceiver(1), receiver);
    EXPECT_NE(second.CreateTransmitter(1), transmitter);
}

TEST_F(TwoBridgesTest, EachOpensTheServicesInItsOwnDirectory) {
    secondLayout.Remove("libConfigs.so");
    EXPECT_EQ(0, first.C<int(const char*)>("SetConfigSource")("x"));
    EXPECT_EQ("Quorvalen Native Exception: Exception code 001. \nCannot load: " +
                  secondLayout.NativePrefix() + "libConfigs.so. \nError: File not found.",
              FailureOf([&] { second.C<int(const char*)>("SetConfigSource")("x"); }));
    const std::string handle =
        "Quorvalen::Native::ConfigHandler::ConfigHandler::configsLibraryInstance";
    EXPECT_NE(nullptr, *static_cast<void**>(first.CppAddress(handle)));
    EXPECT_EQ(nullptr, *static_cast<void**>(second.CppAddress(handle)));
}

TEST_F(TwoBridgesTest, EachRecordsThroughItsOwnServices) {
    secondLayout.Remove("libUtils.so");
    const Capture errors(2);
    { const NativeException recorded(second, "of the second"); }
    EXPECT_EQ(Lines({"GetLoggingLevel()", "GetWorkingDirectory()"}), Lines(Fakes::Trace()));
    { const NativeException recorded(first, "of the first"); }
    EXPECT_EQ("LogMessage(\"Native exception\", \"of the first\", \"Unknown\")",
              Fakes::Trace().back());
}

TEST_F(TwoBridgesTest, OneCatchesWhatTheOtherRaises) {
    const Capture errors(2);
    EXPECT_EQ("Quorvalen Native Exception: Exception code 032. \nRuntime not initialized",
              FailureOf([&] { first.CreateReceiver(-1); }));
    EXPECT_EQ("Quorvalen Native Exception: Exception code 032. \nRuntime not initialized",
              FailureOf([&] { second.CreateReceiver(-1); }));
}

}  // namespace
