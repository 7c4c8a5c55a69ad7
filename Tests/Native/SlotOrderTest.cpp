// The slots of the bridge's own objects, called through declarations that were written down apart
// from the product's headers: a slot that moves meets the wrong function here.
#include <gtest/gtest.h>

#include "Runtimes/Python/Native/PythonLauncher.h"
#include "Runtimes/Python/Native/PythonNativeReceiver.h"
#include "Tests/Fakes/SlotOrder.h"
#include "Tests/Support/DlopenShim.h"
#include "Tests/Support/Files.h"
#include "Tests/Support/Launcher.h"
#include "Tests/Support/Scopes.h"

using Quorvalen::Native::Definitions::RuntimeOperationMode;

namespace {

class SlotOrderTest : public testing::Test {
  protected:
    SlotOrderTest() {
        layout.WithServices().WithReceiverFile();
        UsePython(layout, "FakePython");
    }

    // An object of the bridge, of any of its classes.
    template <typename Interface, typename... Arguments>
    Interface* Construct(const std::string& constructor, Arguments... arguments) {
        return static_cast<Interface*>(BridgeObject::Construct(bridge, constructor, arguments...));
    }

    // The memory is not the class's own size, so it is not freed by the deleting destructor.
    template <typename Interface>
    static void Destroy(Interface* object) {
        object->~Interface();
        ::operator delete(static_cast<void*>(object));
    }

    SlotOrder::ILauncher* ConstructLauncher() {
        return Construct<SlotOrder::ILauncher>(
            "PythonLauncher::PythonLauncher(Quorvalen::Native::Definitions::RuntimeOperationMode)",
            RuntimeOperationMode::CalledRuntime);
    }

    // The calls since the last look.
    static std::string NewCalls() {
        const std::string calls = Lines(Fakes::Trace());
        Fakes::ClearTrace();
        return calls;
    }

    const Capture silenced{1};
    unsigned char message[11] = {8, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0};
    unsigned char buffer[16] = {};
    Layout layout;
    Bridge bridge{layout};
};

std::string Text(const unsigned char* bytes, std::size_t count) {
    return std::string(bytes, bytes + count);
}

TEST_F(SlotOrderTest, EverySlotOfTheReceiver) {
    auto* receiver = bridge.C<SlotOrder::IReceiver*(int)>("CreateReceiver")(1);
    Fakes::SetNumber("SetConfigSource", 5);
    EXPECT_EQ(5, receiver->SetConfigSource("a source"));
    EXPECT_EQ("SetConfigSource(\"a source\")\n", NewCalls());

    DlopenShim::Clear();
    DlopenShim::Map("/elsewhere/libpython3.14.so", layout.NativePrefix() + "libpython3.14.so");
    EXPECT_EQ(0, receiver->SetEmbeddedRuntime(9, "/elsewhere/"));
    EXPECT_EQ("", NewCalls());
    EXPECT_EQ(0, receiver->Initialize(9, 5, 9));
    EXPECT_EQ("/elsewhere/libpython3.14.so " + std::to_string(RTLD_LAZY | RTLD_GLOBAL),
              DlopenShim::Calls().front());

    EXPECT_EQ(8, receiver->SendCommand(message, 11));
    EXPECT_EQ(0, receiver->ReadResponse(buffer, 8));
    EXPECT_EQ("response", Text(buffer, 8));

    NewCalls();
    receiver->LogException(message, 0);
    EXPECT_EQ("LogMessage(\"Python exception\", \"\", \"Php\")\n", NewCalls());
    EXPECT_EQ(1, receiver->LoadOptimizedMethod("a method"));
    EXPECT_EQ(0, receiver->DeployRuntime(message, 11, "a path", 1));
    EXPECT_EQ("", NewCalls());
}

TEST_F(SlotOrderTest, TheReceiversDestructors) {
    using Quorvalen::Runtimes::Python::Native::Receiver::PythonNativeReceiver;
    const auto constructor = bridge.Cpp<void(void*, RuntimeOperationMode)>(
        "Quorvalen::Runtimes::Python::Native::Receiver::PythonNativeReceiver::"
        "PythonNativeReceiver(Quorvalen::Native::Definitions::RuntimeOperationMode)");
    for (const bool deleting : {false, true}) {
        void* memory = ::operator new(sizeof(PythonNativeReceiver));
        constructor(memory, RuntimeOperationMode::CalledRuntime);
        auto* receiver = static_cast<SlotOrder::IReceiver*>(memory);
        receiver->Initialize(9, 5, 0);
        Fakes::ClearTrace();
        if (deleting) {
            delete receiver;
        } else {
            Destroy(receiver);
        }
        EXPECT_EQ("Py_Finalize()", Fakes::Trace().back());
    }
}

class Channel : public SlotOrder::ITransport {
  public:
    ~Channel() override { Fakes::Record("channel deleted"); }
    int Initialize(unsigned char, unsigned char, unsigned char) override { return 1; }
    int SendCommand(unsigned char*, int) override { return 2; }
    int ReadResponse(unsigned char*, int) override { return 3; }
    int SetEmbeddedRuntime(unsigned char, unsigned char, unsigned char, std::string) override {
        return 4;
    }
    int DeployRuntime(unsigned char*, int, std::string, unsigned char) override { return 5; }
};

TEST_F(SlotOrderTest, EverySlotOfTheTransmitter) {
    layout.WithFake("FakeTcpClient", "libQuorvalenTcpClient.so");
    auto* transmitter = bridge.C<SlotOrder::ITransmitter*(int)>("CreateTransmitter")(0);
    transmitter->SetTransportChannel(new Channel);
    EXPECT_EQ(3, transmitter->ReadResponse(buffer, 8));

    message[2] = 1;
    Fakes::SetNumber("tcp channel result", 6);
    EXPECT_EQ(6, transmitter->SendCommand(message, 11));
    EXPECT_EQ(
        "channel deleted\n"
        "tcp CreateTransportChannel(3.4.5.6:2055)\n"
        "tcp channel 3.4.5.6:2055 Initialize(9, 8, 1)\n"
        "tcp channel 3.4.5.6:2055 SendCommand([11] 08 01 01 03 04 05 06 07 08 09 00)\n",
        NewCalls());
    EXPECT_EQ(6, transmitter->ReadResponse(buffer, 4));
    EXPECT_EQ("tcp channel 3.4.5.6:2055 ReadResponse(4)\n", NewCalls());
    EXPECT_EQ(
        "Quorvalen Native Exception: No receiver of runtime Unknown (100) is set up in this "
        "process. \nSend a command to this runtime over the in-memory channel first",
        FailureOf([&] { transmitter->SetEmbeddedRuntime(1, 2, 3, "a path"); }));
    EXPECT_EQ(
        "Quorvalen Native Exception: The message is a null pointer. \n"
        "Pass the bytes of a command",
        FailureOf([&] { transmitter->DeployRuntime(nullptr, 0, "a path", 1); }));
}

TEST_F(SlotOrderTest, EverySlotOfTheLauncher) {
    SlotOrder::ILauncher* launcher = ConstructLauncher();
    EXPECT_EQ("Python", launcher->GetRuntimeName());
    EXPECT_EQ("Python Native Launcher Runtime Info:\nLibrary Location: \n\n",
              launcher->GetRuntimeInfo());
    EXPECT_EQ(1, launcher->LoadOptimizedMethod("a method"));
    EXPECT_EQ(0, launcher->DeployRuntime(message, 11, "a path", 1));
    const auto isInitialized = bridge.Cpp<bool(SlotOrder::ILauncher*)>(
        "Quorvalen::Native::Launcher::NativeLauncher::IsInitialized()");
    EXPECT_FALSE(launcher->IsInitialized());
    EXPECT_FALSE(isInitialized(launcher));
    launcher->SetInitialized();
    EXPECT_TRUE(isInitialized(launcher));
    EXPECT_TRUE(launcher->IsInitialized());
    EXPECT_EQ("", NewCalls());

    DlopenShim::Map("/elsewhere/libpython3.14.so", layout.NativePrefix() + "libpython3.14.so");
    EXPECT_EQ(0, launcher->SetPath(9, "/elsewhere/"));
    EXPECT_EQ(0, launcher->Initialize(9));
    EXPECT_EQ(8, launcher->SendCommand(message, 11));
    EXPECT_EQ(0, launcher->ReadResponse(buffer, 8));
    EXPECT_EQ("response", Text(buffer, 8));
    EXPECT_EQ(
        "Python Native Launcher Runtime Info:\n"
        "Library Location: /elsewhere/libpython3.14.so\n"
        "Runtime Version: 3.fake\n"
        "Runtime Platform: fake-linux\n"
        "\n"
        "Fake Python",
        launcher->GetRuntimeInfo());
    Destroy(launcher);
    EXPECT_EQ("Py_Finalize()", Fakes::Trace().back());
}

// The launcher has an answer of its own; the base's is reached under its C++ name.
TEST_F(SlotOrderTest, ALauncherWithoutRuntimeInformationAnswersAnEmptyText) {
    SlotOrder::ILauncher* launcher = ConstructLauncher();
    EXPECT_EQ("", bridge.Cpp<std::string(SlotOrder::ILauncher*)>(
                      "Quorvalen::Native::Launcher::NativeLauncher::GetRuntimeInfo()")(launcher));
    Destroy(launcher);
}

TEST_F(SlotOrderTest, EverySlotOfTheNetworkTransport) {
    layout.WithFake("FakeTcpClient", "libQuorvalenTcpClient.so");
    auto* transport = Construct<SlotOrder::ITransport, std::string, unsigned short, bool>(
        "Quorvalen::Native::Transport::TransportNetwork::TransportNetwork(std::string, unsigned "
        "short, bool)",
        "host", 7, false);
    EXPECT_EQ(0, transport->Initialize(1, 2, 3));
    EXPECT_EQ(
        "tcp CreateTransportChannel(host:7)\n"
        "tcp channel host:7 Initialize(1, 2, 3)\n",
        NewCalls());
    Fakes::SetNumber("tcp channel result", 6);
    Fakes::SetText("tcp response", "answer");
    EXPECT_EQ(6, transport->SendCommand(message, 1));
    EXPECT_EQ("tcp channel host:7 SendCommand([1] 08)\n", NewCalls());
    EXPECT_EQ(6, transport->ReadResponse(buffer, 6));
    EXPECT_EQ("tcp channel host:7 ReadResponse(6)\n", NewCalls());
    EXPECT_EQ("answer", Text(buffer, 6));
    EXPECT_EQ(0, transport->SetEmbeddedRuntime(1, 2, 3, "a path"));
    EXPECT_EQ(0, transport->DeployRuntime(message, 11, "a path", 1));
    EXPECT_EQ("", NewCalls());
    Destroy(transport);
    EXPECT_EQ("tcp channel host:7 deleted\n", NewCalls());
}

TEST_F(SlotOrderTest, EverySlotOfTheInMemoryTransport) {
    layout.WithFake("FakeCppBridge", "libQuorvalenCppRuntimeNative.so");
    layout.WithFake("FakeRubyBridge", "libQuorvalenRubyRuntimeNative.so");
    auto* transport = Construct<SlotOrder::ITransport>(
        "Quorvalen::Native::Transport::TransportInMemory::TransportInMemory()");
    EXPECT_EQ(0, transport->Initialize(6, 8, 3));
    EXPECT_EQ(
        "cpp CreateReceiver(1)\n"
        "cpp receiver Initialize(6, 8, 3)\n"
        "cpp CreateTransmitter(1)\n"
        "ruby CreateReceiver(0)\n"
        "ruby receiver Initialize(6, 8, 3)\n"
        "ruby CreateTransmitter(0)\n",
        NewCalls());
    Fakes::SetNumber("cpp receiver result", 11);
    Fakes::SetNumber("cpp transmitter result", 12);
    EXPECT_EQ(11, transport->SendCommand(message, 1));
    EXPECT_EQ("cpp receiver SendCommand([1] 08)\n", NewCalls());
    buffer[0] = 8;
    EXPECT_EQ(11, transport->ReadResponse(buffer, 16));
    EXPECT_EQ("cpp receiver ReadResponse(16)\n", NewCalls());
    EXPECT_EQ(11, transport->SetEmbeddedRuntime(1, 2, 3, "a path"));
    EXPECT_EQ("cpp receiver SetEmbeddedRuntime(3, a path)\n", NewCalls());
    EXPECT_EQ(12, transport->DeployRuntime(message, 1, "a path", 4));
    EXPECT_EQ("cpp transmitter DeployRuntime([1] 08, a path, 4)\n", NewCalls());
    Destroy(transport);
    EXPECT_NE(std::string::npos, NewCalls().find("cpp receiver deleted\n"));
}

}  // namespace
