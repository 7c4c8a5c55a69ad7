// A Python bridge without Python: its receiver hands every command to a function that the test
// sets, on the thread that brings the command, and keeps the answer for that thread.
#include "Tests/Companions/Cpp/FakePythonBridge.h"

#include <algorithm>

#include "Native/Definitions/RuntimeOperationMode.h"
#include "Native/Interfaces/IReceiver.h"
#include "Native/Interfaces/ITransmitter.h"

using Quorvalen::Native::Definitions::RuntimeOperationMode;
using Quorvalen::Native::Interfaces::IReceiver;
using Quorvalen::Native::Interfaces::ITransmitter;
using Quorvalen::Native::Interfaces::ITransport;

namespace {

FakePython::Handler handler;
thread_local FakePython::Bytes pending;

class Receiver : public IReceiver {
  public:
    int SetConfigSource(std::string) override { return 0; }
    int Initialize(unsigned char, unsigned char, unsigned char) override { return 0; }
    int SendCommand(unsigned char* message, int length) override {
        FakePython::Bytes answer = handler(FakePython::Bytes(message, message + length));
        pending = std::move(answer);
        return static_cast<int>(pending.size());
    }
    int ReadResponse(unsigned char* buffer, int length) override {
        std::copy_n(pending.begin(), length, buffer);
        pending.clear();
        return FakePython::readStatus;
    }
    void LogException(unsigned char*, int) override {}
    int LoadOptimizedMethod(std::string) override { return 0; }
    int SetEmbeddedRuntime(unsigned char version, std::string path) override {
        return version + static_cast<int>(path.size());
    }
    int DeployRuntime(unsigned char*, int, std::string, unsigned char) override { return 0; }
};

class Transmitter : public ITransmitter {
  public:
    int SendCommand(unsigned char*, int) override { return 0; }
    int ReadResponse(unsigned char*, int) override { return 0; }
    void SetTransportChannel(ITransport*) override {}
    int SetEmbeddedRuntime(unsigned char, unsigned char, unsigned char, std::string) override {
        return 0;
    }
    int DeployRuntime(unsigned char*, int length, std::string path, unsigned char flag) override {
        return length + static_cast<int>(path.size()) + flag;
    }
};

}  // namespace

int FakePython::readStatus = 0;

void FakePython::SetHandler(Handler function) {
    handler = std::move(function);
}

extern "C" IReceiver* CreateReceiver(RuntimeOperationMode) {
    return new Receiver;
}

extern "C" ITransmitter* CreateTransmitter(RuntimeOperationMode) {
    return new Transmitter;
}
