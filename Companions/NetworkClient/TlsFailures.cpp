#include "Companions/NetworkClient/TlsFailures.h"

#include <openssl/err.h>
#include <openssl/sslerr.h>
#include <openssl/x509_vfy.h>

#include <algorithm>
#include <asio/error.hpp>
#include <asio/ssl/error.hpp>
#include <iterator>

#include "Companions/NetworkClient/Messages.h"

namespace Quorvalen::Companions::Network {
namespace {

struct Words {
    int code;
    const char* text;
};

// Of the check of the other side's certificate.
constexpr Words kCertificateFaults[] = {
    {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT, Messages::kUntrusted},
    {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, Messages::kUntrusted},
    {X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE, Messages::kUntrusted},
    {X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, Messages::kUntrusted},
    {X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN, Messages::kUntrusted},
    {X509_V_ERR_CERT_HAS_EXPIRED, Messages::kExpired},
    {X509_V_ERR_CERT_NOT_YET_VALID, Messages::kNotYetValid},
};

// Of the handshake itself.
constexpr Words kHandshakeFaults[] = {
    {SSL_R_WRONG_VERSION_NUMBER, Messages::kNoTls},
    {SSL_R_HTTP_REQUEST, Messages::kNoTls},
    {SSL_R_UNSUPPORTED_PROTOCOL, Messages::kTooOld},
    {SSL_R_VERSION_TOO_LOW, Messages::kTooOld},
    {SSL_R_TLSV1_ALERT_PROTOCOL_VERSION, Messages::kTooOld},
};

// What the other side answers to our certificate, or to its absence.
constexpr Words kRefusals[] = {
    {SSL_R_SSLV3_ALERT_BAD_CERTIFICATE, "bad certificate"},
    {SSL_R_SSLV3_ALERT_UNSUPPORTED_CERTIFICATE, "unsupported certificate"},
    {SSL_R_SSLV3_ALERT_CERTIFICATE_REVOKED, "certificate revoked"},
    {SSL_R_SSLV3_ALERT_CERTIFICATE_EXPIRED, "certificate expired"},
    {SSL_R_SSLV3_ALERT_CERTIFICATE_UNKNOWN, "certificate unknown"},
    {SSL_R_TLSV1_ALERT_UNKNOWN_CA, "unknown authority"},
    {SSL_R_TLSV1_ALERT_ACCESS_DENIED, "access denied"},
};

template <std::size_t Count>
const char* Find(const Words (&table)[Count], int code) {
    const auto* found = std::find_if(std::begin(table), std::end(table),
                                     [code](const Words& words) { return words.code == code; });
    return found == std::end(table) ? nullptr : found->text;
}

// 0 when the error is none of OpenSSL's.
int ReasonIn(const std::error_code& error) {
    if (error.category() != asio::error::get_ssl_category()) return 0;
    return ERR_GET_REASON(static_cast<unsigned long>(error.value()));
}

std::string CertificateFault(long fault, const std::string& serverName) {
    if (fault == X509_V_ERR_HOSTNAME_MISMATCH || fault == X509_V_ERR_IP_ADDRESS_MISMATCH) {
        return Messages::WrongName(serverName);
    }
    const char* known = Find(kCertificateFaults, static_cast<int>(fault));
    return known != nullptr ? known
                            : Messages::OtherCertificateFault(X509_verify_cert_error_string(fault));
}

// In TLS 1.2 a missing certificate is answered with the alert for every handshake that failed.
bool CertificateWasMissing(int reason, SSL* tls) {
    const unsigned char* types = nullptr;
    return reason == SSL_R_SSLV3_ALERT_HANDSHAKE_FAILURE &&
           SSL_get0_certificate_types(tls, &types) > 0 && SSL_get_certificate(tls) == nullptr;
}

}  // namespace

std::string HandshakeFailure(const std::error_code& error, SSL* tls,
                             const std::string& serverName) {
    if (error == asio::error::eof || error == asio::ssl::error::stream_truncated) {
        return Messages::kClosedInHandshake;
    }
    const int reason = ReasonIn(error);
    if (reason == SSL_R_CERTIFICATE_VERIFY_FAILED) {
        return CertificateFault(SSL_get_verify_result(tls), serverName);
    }
    if (CertificateWasMissing(reason, tls)) return Messages::kCertificateDemanded;
    std::string refusal = CertificateRefusal(error);
    if (!refusal.empty()) return refusal;
    const char* known = Find(kHandshakeFaults, reason);
    return known != nullptr ? known : error.message();
}

std::string CertificateRefusal(const std::error_code& error) {
    const int reason = ReasonIn(error);
    if (reason == SSL_R_TLSV13_ALERT_CERTIFICATE_REQUIRED) return Messages::kCertificateDemanded;
    const char* refusal = Find(kRefusals, reason);
    return refusal == nullptr ? "" : Messages::CertificateRefused(refusal);
}

}  // namespace Quorvalen::Companions::Network
