// A fake of another runtime's bridge library for tests that count or run at once: it records
// nothing, takes no lock and allocates nothing once a thread has sent its first command. Its one
// receiver keeps the last command of every thread (at most 64 bytes) and answers with the same
// bytes. `lastCommand` is the address of the calling thread's last command, as it was passed in.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <string>

#include "Tests/Fakes/SlotOrder.h"

namespace {

struct Pending {
    std::array<unsigned char, 64> bytes = {};
    std::size_t length = 0;
    const unsigned char* address = nullptr;
};

thread_local Pending pending;

class Receiver : public SlotOrder::IReceiver {
  public:
    int SetConfigSource(std::string) override { return 0; }
    int Initialize(unsigned char, unsigned char, unsigned char) override { return 0; }
    int SendCommand(unsigned char* message, int length) override {
        pending.length = std::min(static_cast<std::size_t>(length), pending.bytes.size());
        std::memcpy(pending.bytes.data(), message, pending.length);
        pending.address = message;
        return length;
    }
    int ReadResponse(unsigned char* buffer, int length) override {
        std::memcpy(buffer, pending.bytes.data(),
                    std::min(static_cast<std::size_t>(length), pending.length));
        return 0;
    }
    void LogException(unsigned char*, int) override {}
    int LoadOptimizedMethod(std::string) override { return 0; }
    int SetEmbeddedRuntime(unsigned char, std::string) override { return 0; }
    int DeployRuntime(unsigned char*, int, std::string, unsigned char) override { return 0; }
};

class Transmitter : public SlotOrder::ITransmitter {
  public:
    int SendCommand(unsigned char*, int) override { return 0; }
    int ReadResponse(unsigned char*, int) override { return 0; }
    void SetTransportChannel(SlotOrder::ITransport*) override {}
    int SetEmbeddedRuntime(unsigned char, unsigned char, unsigned char, std::string) override {
        return 0;
    }
    int DeployRuntime(unsigned char*, int, std::string, unsigned char) override { return 0; }
};

}  // namespace

extern "C" {

SlotOrder::IReceiver* CreateReceiver(int) {
    return new Receiver;
}
SlotOrder::ITransmitter* CreateTransmitter(int) {
    return new Transmitter;
}
const unsigned char* lastCommand() {
    return pending.address;
}

}  // extern "C"
