#include "Companions/Host/TlsStream.h"

#include <openssl/err.h>
#include <openssl/x509_vfy.h>

#include <cerrno>
#include <new>
#include <system_error>
#include <utility>

namespace Quorvalen::Companions::Network::Host {

namespace {

// The reason of the first error in this thread's queue, which is emptied.
std::string TakeReason() {
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    const char* reason = ERR_reason_error_string(code);
    if (reason != nullptr) return reason;
    if (ERR_SYSTEM_ERROR(code)) return std::generic_category().message(ERR_GET_REASON(code));
    return "error " + std::to_string(code);
}

[[noreturn]] void Refuse(const char* option, const std::string& file) {
    throw TlsFileError(std::string(option) + " " + file + ": " + TakeReason());
}

// A key with a passphrase is refused: nobody may be there to type it.
int NoPassphrase(char*, int, int, void*) {
    return 0;
}

// A stream can say that it must try again after each part, from another place in memory.
constexpr auto kModes = SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER;

// Frames tell their length, so a stream that was cut off is noticed without TLS's own mark. Clients
// that resume nothing need no tickets; without them an idle connection stays silent.
constexpr auto kOptions = SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_TICKET | SSL_OP_IGNORE_UNEXPECTED_EOF;

}  // namespace

TlsContext::TlsContext(const TlsSettings& settings)
    : context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free) {
    if (!context) throw std::bad_alloc();
    SSL_CTX_set_min_proto_version(Get(), TLS1_2_VERSION);
    SSL_CTX_set_options(Get(), kOptions);
    SSL_CTX_set_mode(Get(), kModes);
    SSL_CTX_set_num_tickets(Get(), 0);
    SSL_CTX_set_session_cache_mode(Get(), SSL_SESS_CACHE_OFF);
    SSL_CTX_set_read_ahead(Get(), 1);
    SSL_CTX_set_default_passwd_cb(Get(), NoPassphrase);
    LoadHostCertificate(settings);
    if (!settings.clientCa.empty()) DemandClientCertificate(settings.clientCa);
}

void TlsContext::LoadHostCertificate(const TlsSettings& settings) {
    if (SSL_CTX_use_certificate_chain_file(Get(), settings.certificate.c_str()) != 1) {
        Refuse("--tls-certificate", settings.certificate);
    }
    if (SSL_CTX_use_PrivateKey_file(Get(), settings.key.c_str(), SSL_FILETYPE_PEM) != 1) {
        Refuse("--tls-key", settings.key);
    }
}

void TlsContext::DemandClientCertificate(const std::string& file) {
    STACK_OF(X509_NAME)* names = SSL_load_client_CA_file(file.c_str());
    if (names == nullptr || SSL_CTX_load_verify_file(Get(), file.c_str()) != 1) {
        Refuse("--tls-client-ca", file);
    }
    SSL_CTX_set_client_CA_list(Get(), names);
    SSL_CTX_set_verify(Get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
}

TlsStream::TlsStream(int descriptor, const TlsContext& context)
    : socket(descriptor), tls(SSL_new(context.Get()), SSL_free) {
    if (!tls || SSL_set_fd(tls.get(), descriptor) != 1) throw std::bad_alloc();
}

// The thread has served other streams before.
void TlsStream::ForgetErrors() {
    ERR_clear_error();
    errno = 0;
}

IoResult TlsStream::Handshake() {
    ForgetErrors();
    return Outcome(SSL_accept(tls.get()), 0);
}

IoResult TlsStream::Read(std::span<unsigned char> space) {
    ForgetErrors();
    std::size_t count = 0;
    const int result = SSL_read_ex(tls.get(), space.data(), space.size(), &count);
    return Outcome(result, count);
}

IoResult TlsStream::Write(std::span<const unsigned char> bytes) {
    ForgetErrors();
    std::size_t count = 0;
    const int result = SSL_write_ex(tls.get(), bytes.data(), bytes.size(), &count);
    return Outcome(result, count);
}

void TlsStream::SayEnd() {
    if (!mayWrite || SSL_is_init_finished(tls.get()) != 1) return;
    ForgetErrors();
    SSL_shutdown(tls.get());
}

IoResult TlsStream::Outcome(int result, std::size_t count) {
    if (result == 1) return {Io::Done, count};
    const int systemError = errno;
    switch (SSL_get_error(tls.get(), result)) {
        case SSL_ERROR_WANT_READ:
            return {Io::WantsRead};
        case SSL_ERROR_WANT_WRITE:
            return {Io::WantsWrite};
        case SSL_ERROR_ZERO_RETURN:
            return {Io::Ended};
        case SSL_ERROR_SYSCALL:
            if (systemError == 0 || systemError == ECONNRESET) return {Io::Ended};
            return Fail(std::generic_category().message(systemError));
        default:
            return Fail(TakeReason());
    }
}

IoResult TlsStream::Fail(std::string text) {
    mayWrite = false;
    failure = std::move(text);
    const long verified = SSL_get_verify_result(tls.get());
    if (verified != X509_V_OK) {
        failure += std::string(": ") + X509_verify_cert_error_string(verified);
    }
    return {Io::Failed};
}

}  // namespace Quorvalen::Companions::Network::Host
