// Which check failed, in words, when there is no TLS connection.
#ifndef QUORVALEN_COMPANIONS_NETWORKCLIENT_TLSFAILURES_H
#define QUORVALEN_COMPANIONS_NETWORKCLIENT_TLSFAILURES_H

#include <openssl/ssl.h>

#include <string>
#include <system_error>

namespace Quorvalen::Companions::Network {

// For a handshake that failed with `error`. `serverName` is the name the certificate had to carry.
std::string HandshakeFailure(const std::error_code& error, SSL* tls, const std::string& serverName);

// For a read: the reason when the other side does not accept our certificate, which it tells only
// then in TLS 1.3; "" for any other error.
std::string CertificateRefusal(const std::error_code& error);

}  // namespace Quorvalen::Companions::Network

#endif
