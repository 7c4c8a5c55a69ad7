#include "Tests/Companions/Network/HostClient.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace NetworkTests {

namespace {

std::string Header(const std::string& runtimes, char kind) {
    return runtimes.substr(0, 1) + std::string(8, '\0') + runtimes.substr(1, 1) + kind;
}

std::string TlsReason() {
    const char* reason = ERR_reason_error_string(ERR_get_error());
    ERR_clear_error();
    return reason == nullptr ? "connection lost" : reason;
}

}  // namespace

std::string Framed(const std::string& message) {
    std::string prefix;
    for (int shift = 24; shift >= 0; shift -= 8) {
        prefix += static_cast<char>((message.size() >> shift) & 0xFF);
    }
    return prefix + message;
}

std::string Command(const std::string& body) {
    return Header("\x05\x08", 1) + body;
}

std::string Heartbeat(const std::string& body) {
    return Header("\x05\x08", 11) + body;
}

std::string HeartbeatAnswer(const std::string& body) {
    return Header("\x08\x05", 11) + body;
}

std::string Value(const std::string& body) {
    return Header("\x08\x05", 2) + body;
}

std::string ExceptionOf(const std::string& header, const std::string& type,
                        const std::string& message) {
    return header + R"({"type":")" + type + R"(","message":")" + message + R"(","traceback":""})";
}

Client::Client(unsigned short port) : descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const timeval patience = {kPatience.count(), 0};
    setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return;
    const int error = errno;
    close(descriptor);
    throw std::system_error(error, std::generic_category(), "cannot connect");
}

Client::~Client() {
    close(descriptor);
}

bool Client::Send(const std::string& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t count =
            send(descriptor, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count < 0) return false;
        sent += static_cast<std::size_t>(count);
    }
    return true;
}

long Client::Read(char* bytes, std::size_t count) {
    return recv(descriptor, bytes, count, 0);
}

// Fewer bytes only when the connection has ended; `failure` says how then.
std::string Client::Take(std::size_t count) {
    std::string bytes(count, '\0');
    std::size_t received = 0;
    while (received < count) {
        errno = 0;
        const long more = Read(bytes.data() + received, count - received);
        if (more <= 0) {
            if (errno == EAGAIN) GiveUp("bytes from the host");
            failure = more == 0 ? "closed" : "lost";
            return bytes.substr(0, received);
        }
        received += static_cast<std::size_t>(more);
    }
    return bytes;
}

std::string Client::Receive() {
    const std::string prefix = Take(4);
    if (prefix.size() < 4) return prefix.empty() ? failure : failure + " in a prefix";
    std::size_t length = 0;
    for (const char byte : prefix) length = length << 8 | static_cast<unsigned char>(byte);
    const std::string message = Take(length);
    return message.size() == length ? message : failure + " in a message";
}

std::string Client::Ask(const std::string& message) {
    Send(Framed(message));
    return Receive();
}

void Client::FinishSending() {
    shutdown(descriptor, SHUT_WR);
}

bool Client::IsReadable() const {
    pollfd wanted = {descriptor, POLLIN, 0};
    return poll(&wanted, 1, 0) > 0;
}

void Client::WaitUntilDelivered() const {
    WaitUntil(
        [this] {
            tcp_info info = {};
            socklen_t length = sizeof info;
            getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &length);
            return info.tcpi_unacked == 0;
        },
        "the host's acknowledgement");
}

TlsClient::TlsClient(unsigned short port, const TlsOptions& options)
    : Client(port),
      context(SSL_CTX_new(TLS_client_method()), SSL_CTX_free),
      tls(nullptr, SSL_free) {
    // Old versions are to be refused by the host, not by this library's own rules.
    SSL_CTX_set_cipher_list(context.get(), "ALL:@SECLEVEL=0");
    SSL_CTX_set_min_proto_version(context.get(), TLS1_VERSION);
    SSL_CTX_set_max_proto_version(context.get(), options.newestVersion);
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
    if (!options.ca.empty()) SSL_CTX_load_verify_file(context.get(), options.ca.c_str());
    if (options.identity) {
        SSL_CTX_use_certificate_chain_file(context.get(), options.identity->certificate.c_str());
        SSL_CTX_use_PrivateKey_file(context.get(), options.identity->key.c_str(), SSL_FILETYPE_PEM);
    }
    tls.reset(SSL_new(context.get()));
    SSL_set_fd(tls.get(), descriptor);
    if (SSL_connect(tls.get()) != 1) handshakeFailure = TlsReason();
}

// No goodbye: the host has to bear that.
TlsClient::~TlsClient() = default;

bool TlsClient::Send(const std::string& bytes) {
    if (SSL_write(tls.get(), bytes.data(), static_cast<int>(bytes.size())) > 0) return true;
    ERR_clear_error();
    return false;
}

long TlsClient::Read(char* bytes, std::size_t count) {
    const int result = SSL_read(tls.get(), bytes, static_cast<int>(count));
    if (result > 0) return result;
    if (SSL_get_error(tls.get(), result) == SSL_ERROR_ZERO_RETURN) return 0;
    readFailure = TlsReason();
    return -1;
}

}  // namespace NetworkTests
