// The bridge as a file and as a mapping: what it exports, what it is linked with, how the loader
// binds its names, and that it stays once it was opened.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <fstream>

#include "Native/Definitions/RuntimeOperationMode.h"
#include "Tests/Native/Sanitizers.h"
#include "Tests/Product/ElfFile.h"
#include "Tests/Support/Bridge.h"
#include "Tests/Support/Files.h"
#include "Tests/Support/Paths.h"

using Quorvalen::Native::Definitions::RuntimeOperationMode;

namespace {

std::vector<std::string> CheckedInNames() {
    std::ifstream list(std::string(Paths::kSource) + "/Runtimes/Python/Native/ExportedSymbols.txt");
    std::vector<std::string> names;
    for (std::string name; list >> name;) names.push_back(name);
    std::sort(names.begin(), names.end());
    return names;
}

bool HasFlag(const std::vector<Elf64_Xword>& values, Elf64_Xword flag) {
    return std::any_of(values.begin(), values.end(),
                       [flag](Elf64_Xword value) { return (value & flag) != 0; });
}

class BridgeFileTest : public testing::Test {
  protected:
    Layout layout;
    const ElfFile file{layout.BridgePath()};
};

TEST_F(BridgeFileTest, ExportsExactlyTheCheckedInNames) {
    EXPECT_EQ(Lines(CheckedInNames()), Lines(file.DefinedNames()));
}

TEST_F(BridgeFileTest, EveryVariableAndEntryPointIsAmongThem) {
    const std::vector<std::string> defined = file.DefinedNames();
    for (const char* name : {"CreateReceiver",
                             "CreateTransmitter",
                             "GetReceiver",
                             "GetTransmitter",
                             "SendCommand",
                             "ReadResponse",
                             "SetEmbeddedRuntime",
                             "DeployRuntime",
                             "SetConfigSource",
                             "SetWorkingDirectory",
                             "GetNativeError",
                             "SetCallback",
                             "emptyFunctionInNativeLib",
                             "operationMode",
                             "firstCall",
                             "receiver",
                             "transmitter",
                             "createReceiverMutex",
                             "createTransmitterMutex",
                             "setOperationModeForTransmitterMutex",
                             "errorMessage",
                             "runtimeName",
                             "pythonFunction"}) {
        EXPECT_TRUE(std::binary_search(defined.begin(), defined.end(), name)) << name;
    }
}

// A name that the loader makes unique would be shared with every other bridge in the process.
TEST_F(BridgeFileTest, NoNameIsUniqueInTheProcess) {
    EXPECT_EQ("", Lines(file.UniqueNames()));
}

TEST_F(BridgeFileTest, NeedsTheStandardLibrariesOnly) {
#if QUORVALEN_TEST_SANITIZED
    GTEST_SKIP() << "a sanitizer build needs the sanitizers' libraries too";
#endif
    EXPECT_EQ(Lines({"libstdc++.so.6", "libgcc_s.so.1", "libc.so.6", "ld-linux-x86-64.so.2"}),
              Lines(file.NeededLibraries()));
}

TEST_F(BridgeFileTest, IsBoundToItsOwnNames) {
    EXPECT_TRUE(HasFlag(file.DynamicValues(DT_FLAGS), DF_SYMBOLIC));
}

TEST_F(BridgeFileTest, IsNeverUnmapped) {
    EXPECT_TRUE(HasFlag(file.DynamicValues(DT_FLAGS_1), DF_1_NODELETE));
    EXPECT_FALSE(HasFlag(file.DynamicValues(DT_FLAGS_1), DF_1_NOOPEN));
}

TEST_F(BridgeFileTest, HasNoRunPath) {
    EXPECT_EQ(0U, file.DynamicValues(DT_RPATH).size());
    EXPECT_EQ(0U, file.DynamicValues(DT_RUNPATH).size());
}

// What a command costs depends on its place in a page, which no other code shall change.
TEST_F(BridgeFileTest, WhatEveryCommandPassesBeginsAPage) {
    const Bridge bridge(layout);
    const void* sendCommand = dlsym(bridge.Handle(), "_ZN14PythonLauncher11SendCommandEPhi");
    ASSERT_NE(nullptr, sendCommand);
    EXPECT_EQ(0U, reinterpret_cast<std::uintptr_t>(sendCommand) % 4096);
}

// Another bridge closes the library before it deletes the objects that it got from it.
TEST_F(BridgeFileTest, StaysMappedWithItsStateAfterItWasClosed) {
    const Bridge bridge(layout);
    auto* transmitter = bridge.CreateTransmitter(1);
    const auto getTransmitter = bridge.C<void*()>("GetTransmitter");
    ASSERT_EQ(0, dlclose(bridge.Handle()));
    EXPECT_EQ(transmitter, getTransmitter());
    void* again = dlopen(layout.BridgePath().c_str(), RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(nullptr, again);
    EXPECT_EQ(1, *static_cast<int*>(dlsym(again, "operationMode")));
}

}  // namespace
