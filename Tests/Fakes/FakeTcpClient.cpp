// A recording fake of a network client library; FAKE_NAME is "tcp" or "tls". The variant
// FAKE_WITHOUT_FACTORY lacks its one function.
//
// Failures by Fakes::Fail: "<name> CreateTransportChannel" returns null, "<name> factory throws"
// throws std::runtime_error from the factory, "<name> channel Initialize" and "<name> channel
// SendCommand" throw std::runtime_error from those calls. Answers: Number "<name> channel result",
// Text
// "<name> response".
#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>

#include "Tests/Fakes/Recorder.h"
#include "Tests/Fakes/SlotOrder.h"

namespace {

using Fakes::MustFail;
using Fakes::Record;

const std::string kName = FAKE_NAME;

class Channel : public SlotOrder::ITransport {
  public:
    explicit Channel(std::string address) : name(kName + " channel " + address) {}
    ~Channel() override { Record(name + " deleted"); }

    int Initialize(unsigned char a, unsigned char b, unsigned char c) override {
        Record(name + " Initialize(" + std::to_string(a) + ", " + std::to_string(b) + ", " +
               std::to_string(c) + ")");
        ThrowIfTold("Initialize");
        return 77;  // the bridge ignores it
    }
    int SendCommand(unsigned char* message, int length) override {
        Record(name + " SendCommand(" + Fakes::ShowBytes(message, length) + ")");
        ThrowIfTold("SendCommand");
        return Result();
    }
    int ReadResponse(unsigned char* buffer, int length) override {
        Record(name + " ReadResponse(" + std::to_string(length) + ")");
        const std::string response = Fakes::Text(kName + " response");
        std::memcpy(buffer, response.data(),
                    std::min(response.size(), static_cast<std::size_t>(length)));
        return Result();
    }
    int SetEmbeddedRuntime(unsigned char, unsigned char, unsigned char, std::string) override {
        Record(name + " SetEmbeddedRuntime()");
        return Result();
    }
    int DeployRuntime(unsigned char*, int, std::string, unsigned char) override {
        Record(name + " DeployRuntime()");
        return Result();
    }

  private:
    static int Result() { return static_cast<int>(Fakes::Number(kName + " channel result")); }
    void ThrowIfTold(const std::string& call) {
        if (MustFail(kName + " channel " + call))
            throw std::runtime_error(name + " " + call + " threw");
    }

    const std::string name;
};

}  // namespace

extern "C" {

#ifndef FAKE_WITHOUT_FACTORY
SlotOrder::ITransport* CreateTransportChannel(const char* host, unsigned short port) {
    const std::string address = std::string(host) + ":" + std::to_string(port);
    Record(kName + " CreateTransportChannel(" + address + ")");
    if (MustFail(kName + " factory throws")) throw std::runtime_error(kName + " factory threw");
    return MustFail(kName + " CreateTransportChannel") ? nullptr : new Channel(address);
}
#endif

}  // extern "C"
