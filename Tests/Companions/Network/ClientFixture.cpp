#include "Tests/Companions/Network/ClientFixture.h"

#include <dlfcn.h>

#include <cstdlib>
#include <ostream>
#include <stdexcept>

// Asked by the thread sanitizer. It sees the memory that OpenSSL's functions give to the C library,
// but not how OpenSSL counts and locks, because that library is not instrumented.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
    return "called_from_lib:libcrypto.so\ncalled_from_lib:libssl.so\n";
}

namespace NetworkTests {

namespace fs = std::filesystem;

std::string NameOf(const testing::TestParamInfo<Kind>& kind) {
    return kind.param == Kind::Plain ? "Plain" : "Tls";
}

void PrintTo(Kind kind, std::ostream* stream) {
    *stream << (kind == Kind::Plain ? "plain" : "TLS");
}

TemporaryDirectory::TemporaryDirectory() {
    std::string pattern = (fs::temp_directory_path() / "network-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    fs::remove_all(path, ignored);
}

std::string LibraryFile(Kind kind) {
    return kind == Kind::Plain ? PLAIN_CLIENT_LIBRARY : TLS_CLIENT_LIBRARY;
}

void* OpenLibrary(Kind kind) {
    void* library = dlopen(LibraryFile(kind).c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) throw std::runtime_error(dlerror());
    return library;
}

Channel::Channel(Kind kind, const char* host, unsigned short port) {
    using Factory = SlotOrder::ITransport* (*)(const char*, unsigned short);
    void* factory = dlsym(OpenLibrary(kind), "CreateTransportChannel");
    if (factory == nullptr) throw std::runtime_error("no CreateTransportChannel");
    channel.reset(reinterpret_cast<Factory>(factory)(host, port));
}

int Channel::SendCommand(const std::string& command) const {
    std::string bytes = command;
    return channel->SendCommand(reinterpret_cast<unsigned char*>(bytes.data()),
                                static_cast<int>(bytes.size()));
}

std::string Channel::ReadResponse(int length) const {
    std::string buffer(static_cast<std::size_t>(length), '.');
    EXPECT_EQ(0, channel->ReadResponse(reinterpret_cast<unsigned char*>(buffer.data()), length));
    return buffer;
}

std::string Channel::Exchange(const std::string& command) const {
    return ReadResponse(SendCommand(command));
}

std::string Channel::Failure(const std::string& command) const {
    return FailureOf([&] { SendCommand(command); });
}

ClientFixture::ClientFixture() {
    for (const char* variable :
         {"QUORVALEN_NETWORK_CONNECT_TIMEOUT", "QUORVALEN_NETWORK_REPLY_TIMEOUT",
          "QUORVALEN_NETWORK_MAX_FRAME", "QUORVALEN_TLS_CA_FILE", "QUORVALEN_TLS_SERVER_NAME",
          "QUORVALEN_TLS_CERTIFICATE_FILE", "QUORVALEN_TLS_KEY_FILE"}) {
        variables.push_back(std::make_unique<EnvironmentVariable>(variable, std::nullopt));
    }
}

void ClientFixture::Set(const std::string& variable, const std::string& value) {
    variables.push_back(std::make_unique<EnvironmentVariable>(variable, value));
}

std::unique_ptr<Peer> ClientFixture::Serve(Kind kind, Peer::Script script, unsigned short port) {
    if (kind == Kind::Plain) return std::make_unique<Peer>(std::move(script), nullptr, port);
    Set("QUORVALEN_TLS_CA_FILE", Files().ca);
    return std::make_unique<Peer>(std::move(script), std::make_shared<TlsServer>(Files().server),
                                  port);
}

const Certificates& ClientFixture::Files() {
    if (!certificates) certificates.emplace(directory.Path());
    return *certificates;
}

std::size_t OpenDescriptors() {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/fd")) ++count;
    return count;
}

}  // namespace NetworkTests
