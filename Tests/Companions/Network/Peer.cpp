#include "Tests/Companions/Network/Peer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace NetworkTests {
namespace {

void Expect(bool succeeded, const char* operation) {
    if (!succeeded) throw std::system_error(errno, std::generic_category(), operation);
}

void ExpectOfOpenSsl(bool succeeded, const char* operation) {
    if (!succeeded) throw std::runtime_error(std::string("OpenSSL failed: ") + operation);
}

// Reading and writing of a stopped connection end the same way with and without TLS: 0 or less.
ssize_t ReadSome(int socket, SSL* tls, char* bytes, std::size_t count) {
    if (tls == nullptr) return recv(socket, bytes, count, 0);
    return SSL_read(tls, bytes, static_cast<int>(count));
}

// OpenSSL writes to closed sockets like to any file. Only this thread is meant: the client has to
// take care of itself.
void IgnoreBrokenPipes() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

ssize_t WriteSome(int socket, SSL* tls, const char* bytes, std::size_t count) {
    if (tls == nullptr) return send(socket, bytes, count, MSG_NOSIGNAL);
    return SSL_write(tls, bytes, static_cast<int>(count));
}

}  // namespace

std::string Frame(const std::string& message) {
    std::string frame;
    for (const int shift : {24, 16, 8, 0}) {
        frame.push_back(static_cast<char>(message.size() >> shift & 0xFF));
    }
    return frame + message;
}

TlsServer::TlsServer(const Identity& identity)
    : context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free) {
    SSL_CTX* const made = context.get();
    ExpectOfOpenSsl(
        SSL_CTX_use_certificate_chain_file(made, identity.certificate.c_str()) == 1 &&
            SSL_CTX_use_PrivateKey_file(made, identity.key.c_str(), SSL_FILETYPE_PEM) == 1,
        "the server's certificate and key");
}

TlsServer& TlsServer::DemandCertificateOf(const std::string& ca) {
    ExpectOfOpenSsl(SSL_CTX_load_verify_locations(context.get(), ca.c_str(), nullptr) == 1,
                    "the clients' authority");
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    return *this;
}

TlsServer& TlsServer::AtMost(int version) {
    if (version < TLS1_2_VERSION) {
        ExpectOfOpenSsl(SSL_CTX_set_cipher_list(context.get(), "ALL:@SECLEVEL=0") == 1, "ciphers");
    }
    SSL_CTX_set_min_proto_version(context.get(), std::min(version, TLS1_2_VERSION));
    SSL_CTX_set_max_proto_version(context.get(), version);
    return *this;
}

PeerConnection::PeerConnection(int accepted, const TlsServer* server, std::atomic<int>& frameCount)
    : socket(accepted),
      tls(server == nullptr ? nullptr : server->NewConnection(), SSL_free),
      frames(frameCount) {}

PeerConnection::~PeerConnection() {
    Close();
}

bool PeerConnection::Start() {
    if (tls == nullptr) return true;
    SSL_set_fd(tls.get(), socket);
    return SSL_accept(tls.get()) == 1;
}

std::optional<std::string> PeerConnection::ReadFrame() {
    char prefix[4];
    if (!ReadAll(prefix, sizeof(prefix))) return std::nullopt;
    std::size_t length = 0;
    for (const char byte : prefix) length = length << 8 | static_cast<unsigned char>(byte);
    std::string message(length, '\0');
    if (!ReadAll(message.data(), length)) return std::nullopt;
    ++frames;
    return message;
}

std::string PeerConnection::Read(std::size_t count) {
    std::string bytes(count, '\0');
    const ssize_t got = ReadSome(socket, tls.get(), bytes.data(), count);
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return bytes;
}

bool PeerConnection::ReadAll(char* bytes, std::size_t count) {
    for (std::size_t read = 0; read < count;) {
        const ssize_t got = ReadSome(socket, tls.get(), bytes + read, count - read);
        if (got <= 0) return false;
        read += static_cast<std::size_t>(got);
    }
    return true;
}

void PeerConnection::Send(const std::string& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
        const ssize_t got = WriteSome(socket, tls.get(), bytes.data() + sent, bytes.size() - sent);
        if (got <= 0) return;
        sent += static_cast<std::size_t>(got);
    }
}

void PeerConnection::Close() {
    const std::lock_guard lock(closing);
    if (socket >= 0) close(socket);
    socket = -1;
}

void PeerConnection::Reset() {
    const linger atOnce{1, 0};
    setsockopt(socket, SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce));
    Close();
}

void PeerConnection::WaitForClient() {
    while (!Read(4096).empty()) {
    }
}

void PeerConnection::Stop() {
    const std::lock_guard lock(closing);
    if (socket >= 0) shutdown(socket, SHUT_RDWR);
}

std::string PeerConnection::RequestedName() const {
    const char* name = SSL_get_servername(tls.get(), TLSEXT_NAMETYPE_host_name);
    return name == nullptr ? "" : name;
}

Peer::Peer(Script connectionScript, std::shared_ptr<const TlsServer> server,
           unsigned short wantedPort)
    : script(std::move(connectionScript)),
      tls(std::move(server)),
      listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(wantedPort);
    socklen_t length = sizeof(address);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    Expect(bind(listener, generic, length) == 0, "bind");
    Expect(listen(listener, 1024) == 0, "listen");
    Expect(getsockname(listener, generic, &length) == 0, "getsockname");
    port = ntohs(address.sin_port);
    accepting = std::thread([this] { Accept(); });
}

Peer::~Peer() {
    shutdown(listener, SHUT_RDWR);
    accepting.join();
    close(listener);
    for (Worker& worker : workers) {
        worker.connection->Stop();
        worker.thread.join();
    }
}

int Peer::OpenConnections() {
    const std::lock_guard lock(mutex);
    RemoveFinished();
    return static_cast<int>(workers.size());
}

void Peer::Accept() {
    for (;;) {
        const int accepted = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (accepted < 0 && errno == EMFILE) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            continue;  // a test leaves us no descriptor for a while
        }
        if (accepted < 0) return;
        ++connections;
        // What is sent is on its way even when the script closes the connection right after it.
        const int on = 1;
        setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        Serve(accepted);
    }
}

void Peer::Serve(int accepted) {
    const std::lock_guard lock(mutex);
    RemoveFinished();
    Worker& worker = workers.emplace_back();
    worker.connection = std::make_unique<PeerConnection>(accepted, tls.get(), frames);
    worker.thread = std::thread([this, &worker] {
        IgnoreBrokenPipes();
        if (worker.connection->Start()) script(*worker.connection);
        worker.connection->Close();
        worker.done = true;
    });
}

void Peer::RemoveFinished() {
    workers.remove_if([](Worker& worker) {
        if (!worker.done) return false;
        worker.thread.join();
        return true;
    });
}

void Echo(PeerConnection& connection) {
    while (const auto message = connection.ReadFrame()) connection.Send(Frame(*message));
}

void Silence(PeerConnection& connection) {
    connection.WaitForClient();
}

void EchoOnce(PeerConnection& connection) {
    if (const auto message = connection.ReadFrame()) connection.Send(Frame(*message));
}

Peer::Script Answer(const std::string& bytes) {
    return [bytes](PeerConnection& connection) {
        if (!connection.ReadFrame()) return;
        connection.Send(bytes);
        connection.WaitForClient();
    };
}

}  // namespace NetworkTests
