#include "Companions/NetworkClient/TlsContext.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>

#include "Companions/NetworkClient/Messages.h"
#include "Companions/NetworkClient/NetworkError.h"
#include "Companions/NetworkClient/Settings.h"

namespace Quorvalen::Companions::Network {
namespace {

constexpr const char* kCaFile = "QUORVALEN_TLS_CA_FILE";
constexpr const char* kCertificateFile = "QUORVALEN_TLS_CERTIFICATE_FILE";
constexpr const char* kKeyFile = "QUORVALEN_TLS_KEY_FILE";
constexpr const char* kServerName = "QUORVALEN_TLS_SERVER_NAME";

// One of the files that the settings name.
struct TlsFile {
    const std::string& peer;
    const char* variable;
    std::string name;

    [[noreturn]] void Refuse(const std::string& reason) const {
        throw NetworkError(Messages::TlsFileUnusable(peer, variable, name, reason));
    }

    // OpenSSL's own reasons for a file that cannot be opened name its sources instead.
    void ExpectReadable() const {
        std::ifstream file(name);
        if (!file || (file.peek(), file.bad())) Refuse(std::strerror(errno));
        ERR_clear_error();
    }

    // The last failed call's reason, `missing` when the file simply has no such entry.
    [[noreturn]] void RefuseForReasonOfOpenSsl(const char* missing) const {
        const unsigned long error = ERR_peek_error();
        ERR_clear_error();
        const int reason = ERR_GET_REASON(error);
        if (reason == X509_R_KEY_VALUES_MISMATCH || reason == X509_R_KEY_TYPE_MISMATCH) {
            Refuse(Messages::kKeyOfAnother);
        }
        if (reason == PEM_R_NO_START_LINE || reason == X509_R_NO_CERTIFICATE_OR_CRL_FOUND ||
            reason == ERR_R_UNSUPPORTED) {
            Refuse(missing);
        }
        const char* text = ERR_reason_error_string(error);
        Refuse(text == nullptr ? missing : text);
    }
};

void TrustAuthorities(SSL_CTX* context, const std::string& peer) {
    const auto name = Setting(peer, kCaFile, Messages::kFileName);
    if (!name) {
        SSL_CTX_set_default_verify_paths(context);
        return;
    }
    const TlsFile file{peer, kCaFile, *name};
    file.ExpectReadable();
    if (SSL_CTX_load_verify_locations(context, name->c_str(), nullptr) != 1) {
        file.RefuseForReasonOfOpenSsl(Messages::kNoCertificateInFile);
    }
}

void TakeIdentity(asio::ssl::context& owner, const std::string& peer) {
    const auto certificateName = Setting(peer, kCertificateFile, Messages::kFileName);
    const auto keyName = Setting(peer, kKeyFile, Messages::kFileName);
    if (certificateName.has_value() != keyName.has_value()) {
        const char* set = certificateName ? kCertificateFile : kKeyFile;
        const char* other = certificateName ? kKeyFile : kCertificateFile;
        throw NetworkError(Messages::HalfAnIdentity(peer, set, other));
    }
    if (!certificateName) return;
    SSL_CTX* const context = owner.native_handle();
    const TlsFile certificate{peer, kCertificateFile, *certificateName};
    certificate.ExpectReadable();
    if (SSL_CTX_use_certificate_chain_file(context, certificateName->c_str()) != 1) {
        certificate.RefuseForReasonOfOpenSsl(Messages::kNoCertificateInFile);
    }
    const TlsFile key{peer, kKeyFile, *keyName};
    key.ExpectReadable();
    const auto isEncrypted = std::make_shared<bool>(false);
    // OpenSSL's own way is to ask at the terminal, which may be anybody's, and to wait for ever.
    owner.set_password_callback([isEncrypted](std::size_t, asio::ssl::context::password_purpose) {
        *isEncrypted = true;
        return std::string();
    });
    if (SSL_CTX_use_PrivateKey_file(context, keyName->c_str(), SSL_FILETYPE_PEM) != 1) {
        if (*isEncrypted) key.Refuse(Messages::kKeyIsEncrypted);
        key.RefuseForReasonOfOpenSsl(Messages::kNoKeyInFile);
    }
}

}  // namespace

TlsContext CreateTlsContext(const std::string& host, const std::string& peer) {
    TlsContext made{asio::ssl::context(asio::ssl::context::tls_client), ""};
    SSL_CTX* const context = made.context.native_handle();
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    TrustAuthorities(context, peer);
    TakeIdentity(made.context, peer);
    made.serverName = Setting(peer, kServerName, Messages::kServerName).value_or(host);
    return made;
}

}  // namespace Quorvalen::Companions::Network
