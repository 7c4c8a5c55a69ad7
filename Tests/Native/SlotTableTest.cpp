// The tables of functions behind the bridge's objects, slot by slot: each holds exactly the
// exported operation that the framework expects there, and none is overridden where it must not be.
#include <gtest/gtest.h>

#include "Native/Definitions/RuntimeOperationMode.h"
#include "Tests/Support/Bridge.h"

using Quorvalen::Native::Definitions::RuntimeOperationMode;

namespace {

const std::string kNative = "Quorvalen::Native::";
const std::string kMode = "(Quorvalen::Native::Definitions::RuntimeOperationMode)";

class SlotTableTest : public testing::Test {
  protected:
    // The first two slots are the destructors.
    void ExpectSlots(void* object, const std::string& className,
                     const std::vector<std::string>& operations) {
        void* const* slots = *static_cast<void* const* const*>(object);
        std::size_t slot = 2;
        for (const std::string& operation : operations) {
            const std::string name = className + "::" + operation;
            EXPECT_EQ(bridge.CppAddress(name), slots[slot]) << name << " in slot " << slot;
            ++slot;
        }
    }

    Layout layout;
    Bridge bridge{layout};
};

TEST_F(SlotTableTest, TheReceiverInheritsEveryOperationUnchanged) {
    ExpectSlots(
        bridge.C<void*(int)>("CreateReceiver")(1), kNative + "Receiver::NativeReceiver",
        {"SetConfigSource(std::string)", "Initialize(unsigned char, unsigned char, unsigned char)",
         "SendCommand(unsigned char*, int)", "ReadResponse(unsigned char*, int)",
         "LogException(unsigned char*, int)", "LoadOptimizedMethod(std::string)",
         "SetEmbeddedRuntime(unsigned char, std::string)",
         "DeployRuntime(unsigned char*, int, std::string, unsigned char)"});
}

TEST_F(SlotTableTest, TheTransmitterInheritsEveryOperationUnchanged) {
    ExpectSlots(bridge.C<void*(int)>("CreateTransmitter")(0),
                kNative + "Transmitter::NativeTransmitter",
                {"SendCommand(unsigned char*, int)", "ReadResponse(unsigned char*, int)",
                 "SetTransportChannel(Quorvalen::Native::Interfaces::ITransport*)",
                 "SetEmbeddedRuntime(unsigned char, unsigned char, unsigned char, std::string)",
                 "DeployRuntime(unsigned char*, int, std::string, unsigned char)"});
}

TEST_F(SlotTableTest, TheLauncherInheritsTheMarkAndOverridesTheRest) {
    void* launcher = BridgeObject::Construct(bridge, "PythonLauncher::PythonLauncher" + kMode,
                                             RuntimeOperationMode::CalledRuntime);
    ExpectSlots(launcher, "PythonLauncher",
                {"Initialize(unsigned char)", "SendCommand(unsigned char*, int)",
                 "ReadResponse(unsigned char*, int)", "LoadOptimizedMethod(std::string)",
                 "SetPath(unsigned char, std::string)",
                 "DeployRuntime(unsigned char*, int, std::string, unsigned char)"});
    void* const* slots = *static_cast<void* const* const*>(launcher);
    EXPECT_EQ(bridge.CppAddress(kNative + "Launcher::NativeLauncher::IsInitialized()"), slots[8]);
    EXPECT_EQ(bridge.CppAddress(kNative + "Launcher::NativeLauncher::SetInitialized()"), slots[9]);
    EXPECT_EQ(bridge.CppAddress("PythonLauncher::GetRuntimeName()"), slots[10]);
    EXPECT_EQ(bridge.CppAddress("PythonLauncher::GetRuntimeInfo()"), slots[11]);
    bridge.Cpp<void(void*)>("PythonLauncher::~PythonLauncher()")(launcher);
    ::operator delete(launcher);
}

TEST_F(SlotTableTest, BothTransportsFillEverySlot) {
    const std::vector<std::string> operations = {
        "Initialize(unsigned char, unsigned char, unsigned char)",
        "SendCommand(unsigned char*, int)", "ReadResponse(unsigned char*, int)",
        "SetEmbeddedRuntime(unsigned char, unsigned char, unsigned char, std::string)",
        "DeployRuntime(unsigned char*, int, std::string, unsigned char)"};
    const std::string inMemory = kNative + "Transport::TransportInMemory::";
    void* transport = BridgeObject::Construct(bridge, inMemory + "TransportInMemory()");
    ExpectSlots(transport, kNative + "Transport::TransportInMemory", operations);
    bridge.Cpp<void(void*)>(inMemory + "~TransportInMemory()")(transport);
    ::operator delete(transport);

    const std::string network = kNative + "Transport::TransportNetwork::";
    transport = BridgeObject::Construct<std::string, unsigned short, bool>(
        bridge, network + "TransportNetwork(std::string, unsigned short, bool)", "host", 1, false);
    ExpectSlots(transport, kNative + "Transport::TransportNetwork", operations);
    bridge.Cpp<void(void*)>(network + "~TransportNetwork()")(transport);
    ::operator delete(transport);
}

}  // namespace
