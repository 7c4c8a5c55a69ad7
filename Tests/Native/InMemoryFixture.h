// The layout in which the tests of the in-memory channel run: Ruby calls, Cpp is called, every
// bridge but the one under test is a fake. Initialize passes on runtime version 7.
#pragma once

#include <gtest/gtest.h>

#include <mutex>

#include "Tests/Native/Channels.h"
#include "Tests/Support/DlopenShim.h"
#include "Tests/Support/Scopes.h"

class InMemoryTest : public testing::Test {
  protected:
    InMemoryTest() {
        layout.WithServices();
        With("FakeCppBridge", "Cpp");
        With("FakeRubyBridge", "Ruby");
    }

    void With(const std::string& fake, const std::string& runtime) {
        layout.WithFake(fake, BridgeFile(runtime));
    }
    std::string PathOf(const std::string& runtime) const {
        return layout.NativePrefix() + BridgeFile(runtime);
    }

    int Initialize() const { return channel->Initialize(kRuby, kCpp, 7); }
    std::string InitializeFailure() const {
        return FailureOf([this] { Initialize(); });
    }
    int Send(Bytes command) const { return channel->SendCommand(command.data(), Length(command)); }
    std::string SendFailure(const Bytes& command) const {
        return FailureOf([&] { Send(command); });
    }

    // The mutex that one Initialize in the process holds at a time. The locking thread is the
    // test's, so a mutex left locked answers "no" at once.
    bool InitializationMutexIsFree() const {
        const std::unique_lock<std::mutex> lock(InitializationMutex(), std::try_to_lock);
        return lock.owns_lock();
    }
    std::mutex& InitializationMutex() const {
        return *static_cast<std::mutex*>(
            bridge.CppAddress("Quorvalen::Native::Transport::TransportInMemory"
                              "::initializationMutex"));
    }

    const std::vector<std::string> calledSide = {
        "cpp CreateReceiver(1)", "cpp receiver Initialize(6, 8, 7)", "cpp CreateTransmitter(1)"};
    const std::vector<std::string> callingSide = {
        "ruby CreateReceiver(0)", "ruby receiver Initialize(6, 8, 7)", "ruby CreateTransmitter(0)"};

    Layout layout;
    Bridge bridge{layout};
    InMemoryChannel channel{bridge};
};
