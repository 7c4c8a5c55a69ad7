// A recording fake of another runtime's bridge library. Its objects are recorded under the name
// that FAKE_NAME gives, as "<name> receiver ..." and "<name> transmitter ...".
//
// Variants, by compile definition: FAKE_WITHOUT_CREATE_RECEIVER, FAKE_WITHOUT_CREATE_TRANSMITTER;
// FAKE_MARKER (exports `bridgeMarker` and reports which definition of it this library sees, for
// deep binding).
//
// Failures by Fakes::Fail: "<name> CreateReceiver" and "<name> CreateTransmitter" return null,
// "<name> CreateReceiver throws" and "<name> CreateTransmitter throws" throw
// std::runtime_error("<name> CreateReceiver threw"), "<name> receiver Initialize" throws the coded
// exception, "<name> receiver throws" throws std::runtime_error("<name> receiver threw") from the
// next receiver call of any kind, "<name> receiver throws a number" throws 42 from it, and
// "<name> transmitter throws" does the same as "<name> receiver throws" for the transmitter.
// Answers: "<name> receiver result" and "<name> transmitter result" are returned by the calls;
// Text "<name> response" is copied by ReadResponse.
#include <algorithm>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "Native/QuorvalenNativeException/QuorvalenNativeException.h"
#include "Tests/Fakes/Recorder.h"
#include "Tests/Fakes/SlotOrder.h"

namespace {

using Fakes::MustFail;
using Fakes::Number;
using Fakes::Record;
using Fakes::ShowBytes;
using Fakes::Text;

const std::string kName = FAKE_NAME;

std::string Bytes(unsigned char a, unsigned char b, unsigned char c) {
    return std::to_string(a) + ", " + std::to_string(b) + ", " + std::to_string(c);
}

int Result(const char* object) {
    return static_cast<int>(Number(kName + " " + object + " result"));
}

class Receiver : public SlotOrder::IReceiver {
  public:
    ~Receiver() override { Record(kName + " receiver deleted"); }

    int SetConfigSource(std::string source) override { return Call("SetConfigSource(" + source); }
    int Initialize(unsigned char calling, unsigned char target, unsigned char version) override {
        Call("Initialize(" + Bytes(calling, target, version));
        if (MustFail(kName + " receiver Initialize")) {
            throw QuorvalenNativeException(kName + " receiver does not start", "Unknown");
        }
        return 0;
    }
    int SendCommand(unsigned char* message, int length) override {
        return Call("SendCommand(" + ShowBytes(message, length));
    }
    int ReadResponse(unsigned char* buffer, int length) override {
        const int result = Call("ReadResponse(" + std::to_string(length));
        const std::string response = Text(kName + " response");
        std::memcpy(buffer, response.data(),
                    std::min(response.size(), static_cast<std::size_t>(length)));
        return result;
    }
    void LogException(unsigned char* response, int length) override {
        Call("LogException(" + ShowBytes(response, length));
    }
    int LoadOptimizedMethod(std::string method) override {
        return Call("LoadOptimizedMethod(" + method);
    }
    int SetEmbeddedRuntime(unsigned char version, std::string path) override {
        return Call("SetEmbeddedRuntime(" + std::to_string(version) + ", " + path);
    }
    int DeployRuntime(unsigned char* message, int length, std::string path,
                      unsigned char flag) override {
        return Call("DeployRuntime(" + ShowBytes(message, length) + ", " + path + ", " +
                    std::to_string(flag));
    }

  private:
    static int Call(const std::string& call) {
        Record(kName + " receiver " + call + ")");
        if (MustFail(kName + " receiver throws")) {
            throw std::runtime_error(kName + " receiver threw");
        }
        if (MustFail(kName + " receiver throws a number")) throw 42;
        return Result("receiver");
    }
};

class Transmitter : public SlotOrder::ITransmitter {
  public:
    ~Transmitter() override { Record(kName + " transmitter deleted"); }

    int SendCommand(unsigned char* message, int length) override {
        return Call("SendCommand(" + ShowBytes(message, length));
    }
    int ReadResponse(unsigned char*, int length) override {
        return Call("ReadResponse(" + std::to_string(length));
    }
    void SetTransportChannel(SlotOrder::ITransport*) override { Call("SetTransportChannel("); }
    int SetEmbeddedRuntime(unsigned char a, unsigned char b, unsigned char c,
                           std::string path) override {
        return Call("SetEmbeddedRuntime(" + Bytes(a, b, c) + ", " + path);
    }
    int DeployRuntime(unsigned char* message, int length, std::string path,
                      unsigned char flag) override {
        return Call("DeployRuntime(" + ShowBytes(message, length) + ", " + path + ", " +
                    std::to_string(flag));
    }

  private:
    static int Call(const std::string& call) {
        Record(kName + " transmitter " + call + ")");
        if (MustFail(kName + " transmitter throws")) {
            throw std::runtime_error(kName + " transmitter threw");
        }
        return Result("transmitter");
    }
};

// A real bridge keeps the objects that it hands out, whatever becomes of the caller's pointers.
template <typename Object>
Object* Kept(Object* created) {
    static auto* all = new std::vector<Object*>;
    static auto* lock = new std::mutex;
    const std::lock_guard<std::mutex> guard(*lock);
    all->push_back(created);
    return created;
}

void ThrowIfTold(const std::string& function) {
    if (MustFail(kName + " " + function + " throws")) {
        throw std::runtime_error(kName + " " + function + " threw");
    }
}

}  // namespace

extern "C" {

#ifdef FAKE_MARKER
__attribute__((visibility("default"))) const char* bridgeMarker() {
    return FAKE_NAME;
}
#endif

#ifndef FAKE_WITHOUT_CREATE_RECEIVER
SlotOrder::IReceiver* CreateReceiver(int mode) {
    std::string call = kName + " CreateReceiver(" + std::to_string(mode) + ")";
#ifdef FAKE_MARKER
    // Through the symbol table, so that what is seen depends on how the library was opened.
    call += std::string(" sees ") + bridgeMarker();
#endif
    Record(call);
    ThrowIfTold("CreateReceiver");
    return MustFail(kName + " CreateReceiver") ? nullptr : Kept(new Receiver);
}
#endif

#ifndef FAKE_WITHOUT_CREATE_TRANSMITTER
SlotOrder::ITransmitter* CreateTransmitter(int mode) {
    Record(kName + " CreateTransmitter(" + std::to_string(mode) + ")");
    ThrowIfTold("CreateTransmitter");
    return MustFail(kName + " CreateTransmitter") ? nullptr : Kept(new Transmitter);
}
#endif

}  // extern "C"
