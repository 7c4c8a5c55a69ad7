#include "Benchmarks/Remote/Stream.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace Benchmarks {

namespace {

int Require(int result, const char* what) {
    if (result < 0) throw std::runtime_error(std::string(what) + " failed");
    return result;
}

void RequireTls(bool good, const std::string& what) {
    if (good) return;
    throw std::runtime_error(what + ": " + ERR_error_string(ERR_get_error(), nullptr));
}

sockaddr_in Loopback(unsigned short port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

void SendAtOnce(int descriptor) {
    const int on = 1;
    Require(setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on), "TCP_NODELAY");
}

class Plain : public Stream {
  public:
    explicit Plain(int owned) : descriptor(owned) {}
    ~Plain() override { close(descriptor); }
    long Read(std::span<unsigned char> room) override {
        return recv(descriptor, room.data(), room.size(), 0);
    }
    long Write(std::span<const unsigned char> bytes) override {
        return send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }

  private:
    int descriptor;
};

class Tls : public Stream {
  public:
    Tls(int owned, SSL_CTX& context, int (*shakeHands)(SSL*))
        : descriptor(owned), ssl(SSL_new(&context), SSL_free) {
        SSL_set_fd(ssl.get(), descriptor);
        RequireTls(shakeHands(ssl.get()) == 1, "the TLS handshake failed");
    }
    ~Tls() override { close(descriptor); }
    long Read(std::span<unsigned char> room) override {
        return SSL_read(ssl.get(), room.data(), static_cast<int>(room.size()));
    }
    long Write(std::span<const unsigned char> bytes) override {
        return SSL_write(ssl.get(), bytes.data(), static_cast<int>(bytes.size()));
    }

  private:
    int descriptor;
    std::unique_ptr<SSL, decltype(&SSL_free)> ssl;
};

TlsContext NewContext(const SSL_METHOD* method) {
    TlsContext context(SSL_CTX_new(method), SSL_CTX_free);
    RequireTls(context != nullptr, "no TLS context");
    SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
    return context;
}

std::size_t LengthIn(const std::vector<unsigned char>& frame) {
    std::size_t length = 0;
    for (std::size_t i = 0; i < kFramePrefix; ++i) length = length << 8 | frame[i];
    return length;
}

}  // namespace

Listener::Listener() : descriptor(Require(socket(AF_INET, SOCK_STREAM, 0), "socket")) {
    const sockaddr_in address = Loopback(0);
    Require(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), "bind");
    Require(listen(descriptor, SOMAXCONN), "listen");
}

Listener::~Listener() {
    close(descriptor);
}

unsigned short Listener::Port() const {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    Require(getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length), "getsockname");
    return ntohs(address.sin_port);
}

int Listener::Accept() const {
    const int accepted = Require(accept(descriptor, nullptr, nullptr), "accept");
    SendAtOnce(accepted);
    return accepted;
}

int Connect(unsigned short port) {
    const int descriptor = Require(socket(AF_INET, SOCK_STREAM, 0), "socket");
    const sockaddr_in address = Loopback(port);
    Require(connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address),
            "connect");
    SendAtOnce(descriptor);
    return descriptor;
}

std::unique_ptr<Stream> PlainStream(int descriptor) {
    return std::make_unique<Plain>(descriptor);
}

TlsContext ServerContext(const std::string& certificate, const std::string& key) {
    TlsContext context = NewContext(TLS_server_method());
    RequireTls(SSL_CTX_use_certificate_chain_file(context.get(), certificate.c_str()) == 1,
               certificate);
    RequireTls(SSL_CTX_use_PrivateKey_file(context.get(), key.c_str(), SSL_FILETYPE_PEM) == 1, key);
    SSL_CTX_set_num_tickets(context.get(), 0);
    return context;
}

TlsContext ClientContext(const std::string& trusted) {
    TlsContext context = NewContext(TLS_client_method());
    RequireTls(SSL_CTX_load_verify_file(context.get(), trusted.c_str()) == 1, trusted);
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
    return context;
}

std::unique_ptr<Stream> AcceptTls(int descriptor, SSL_CTX& context) {
    return std::make_unique<Tls>(descriptor, context, SSL_accept);
}

std::unique_ptr<Stream> ConnectTls(int descriptor, SSL_CTX& context) {
    return std::make_unique<Tls>(descriptor, context, SSL_connect);
}

std::size_t ReadFrame(Stream& stream, std::vector<unsigned char>& frame) {
    std::size_t have = 0;
    std::size_t want = kFramePrefix;
    if (frame.size() < want) frame.resize(want);
    while (have < want) {
        const long read = stream.Read(std::span(frame).subspan(have));
        if (read <= 0) return 0;
        have += static_cast<std::size_t>(read);
        if (have < kFramePrefix) continue;
        want = kFramePrefix + LengthIn(frame);
        if (frame.size() < want) frame.resize(want);
    }
    return want;
}

bool WriteAll(Stream& stream, std::span<const unsigned char> bytes) {
    while (!bytes.empty()) {
        const long written = stream.Write(bytes);
        if (written <= 0) return false;
        bytes = bytes.subspan(static_cast<std::size_t>(written));
    }
    return true;
}

std::vector<unsigned char> FrameOf(std::span<const unsigned char> message) {
    std::vector<unsigned char> frame;
    for (int shift = 24; shift >= 0; shift -= 8) {
        frame.push_back(static_cast<unsigned char>(message.size() >> shift));
    }
    frame.insert(frame.end(), message.begin(), message.end());
    return frame;
}

}  // namespace Benchmarks
