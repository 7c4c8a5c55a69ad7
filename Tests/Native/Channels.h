// What the tests of the transmitter and its channels share: commands as bytes, objects of the
// bridge's classes with a view of their fields, and the calls that recording a failure makes.
#pragma once

#include <array>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Native/Interfaces/ITransport.h"
#include "Tests/Fakes/Recorder.h"
#include "Tests/Support/Bridge.h"
#include "Tests/Support/Files.h"
#include "Tests/Support/Layout.h"

using Bytes = std::vector<unsigned char>;

// Runtime ids. Python is the bridge under test itself.
constexpr unsigned char kNetcore = 3;
constexpr unsigned char kPerl = 4;
constexpr unsigned char kPython = 5;
constexpr unsigned char kRuby = 6;
constexpr unsigned char kCpp = 8;
constexpr unsigned char kPhp = 9;

// "Cpp" -> "libQuorvalenCppRuntimeNative.so"
std::string BridgeFile(const std::string& runtime);

// Eleven bytes with runtime version 7. Nonsense in the address bytes, which nobody may read.
Bytes InMemoryCommand(unsigned char target, unsigned char calling = kRuby);

using Host = std::array<unsigned char, 4>;
constexpr Host kHost = {10, 0, 0, 5};

// Eleven bytes from Ruby to Cpp with runtime version 7 for a runtime at host:port.
Bytes NetworkCommand(unsigned char connectionType, int port, const Host& host = kHost);

// The command as the fakes show it.
std::string Shown(const Bytes& command);

int Length(const Bytes& bytes);

// The calls that recording one failure makes.
std::vector<std::string> Recording(const std::string& message);

std::vector<std::string> Joined(const std::vector<std::vector<std::string>>& parts);

// "Quorvalen Native Exception: Exception code <code>. \nReinstall Quorvalen package"
std::string Reinstall(const std::string& code);
std::string NotFound(const std::string& path);
std::string NobodyInMemory(const std::string& object, const std::string& runtime);

// Expects that nothing but exactly these calls was recorded since the last call of this function.
#define EXPECT_CALLS(...)                                     \
    do {                                                      \
        EXPECT_EQ(Lines(__VA_ARGS__), Lines(Fakes::Trace())); \
        Fakes::ClearTrace();                                  \
    } while (false)

// Fields in the order in which the classes declare them.
struct InMemoryFields {
    const void* vtable;
    unsigned char callingRuntime;
    unsigned char calledRuntime;
    unsigned char passThroughByte;
    std::map<int, std::shared_ptr<void>> receivers;
    std::map<int, std::shared_ptr<void>> transmitters;
    std::map<int, void*> libraries;
};

using SharedTransport = std::shared_ptr<Quorvalen::Native::Interfaces::ITransport>;

struct NetworkFields {
    const void* vtable;
    void* tcpClientLibrary;
    void* tcpTlsClientLibrary;
    SharedTransport tcpChannel;
    SharedTransport tcpTlsChannel;
    SharedTransport activeChannel;
    void* createTransportChannel;
    std::string host;
    unsigned short port;
    bool useTls;
};

struct TransmitterFields {
    const void* vtable;
    SharedTransport inMemoryChannel;
    std::map<std::string, SharedTransport> channels;
    SharedTransport currentChannel;
    int operationMode;
};

// An object of one of the bridge's classes, built and destroyed through its exported constructor
// and destructor.
template <typename Interface, typename Fields>
class CoreObject {
  public:
    // `scope` and `name` make the class's name; `parameters` are the constructor's.
    template <typename... Arguments>
    CoreObject(const Bridge& opened, const std::string& scope, const std::string& name,
               const std::string& parameters, Arguments... arguments)
        : bridge(opened),
          className(scope + "::" + name),
          destructor(className + "::~" + name + "()"),
          memory(BridgeObject::Construct(opened, className + "::" + name + parameters,
                                         arguments...)) {}
    ~CoreObject() { Destroy(); }
    CoreObject(const CoreObject&) = delete;
    CoreObject& operator=(const CoreObject&) = delete;

    Interface* operator->() const { return static_cast<Interface*>(memory); }
    Fields& State() const { return *static_cast<Fields*>(memory); }

    // Calls an operation that is no slot of the interface: Call<int>("ImportTcpClientLibrary()").
    template <typename Result>
    Result Call(const std::string& operation) const {
        return bridge.Cpp<Result(void*)>(className + "::" + operation)(memory);
    }

    // Destroys the object now instead of at the end of the scope.
    void Destroy() {
        if (memory == nullptr) return;
        bridge.Cpp<void(void*)>(destructor)(memory);
        ::operator delete(memory);
        memory = nullptr;
    }

  private:
    const Bridge& bridge;
    const std::string className;
    const std::string destructor;
    void* memory;
};

class InMemoryChannel
    : public CoreObject<Quorvalen::Native::Interfaces::ITransport, InMemoryFields> {
  public:
    explicit InMemoryChannel(const Bridge& opened)
        : CoreObject(opened, "Quorvalen::Native::Transport", "TransportInMemory", "()") {}
};

class NetworkChannel : public CoreObject<Quorvalen::Native::Interfaces::ITransport, NetworkFields> {
  public:
    NetworkChannel(const Bridge& opened, const std::string& host, unsigned short port, bool tls)
        : CoreObject(opened, "Quorvalen::Native::Transport", "TransportNetwork",
                     "(std::string, unsigned short, bool)", host, port, tls) {}
};

class Transmitter
    : public CoreObject<Quorvalen::Native::Interfaces::ITransmitter, TransmitterFields> {
  public:
    explicit Transmitter(const Bridge& opened)
        : CoreObject(opened, "Quorvalen::Native::Transmitter", "NativeTransmitter",
                     "(Quorvalen::Native::Definitions::RuntimeOperationMode)", 0) {}

    int Send(Bytes command) const { return (*this)->SendCommand(command.data(), Length(command)); }
    int Read(unsigned char firstByte) const {
        Bytes buffer(4, firstByte);
        return (*this)->ReadResponse(buffer.data(), Length(buffer));
    }
};
