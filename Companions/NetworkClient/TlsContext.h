// What all TLS connections of a channel share: whom they trust and who they are.
#ifndef QUORVALEN_COMPANIONS_NETWORKCLIENT_TLSCONTEXT_H
#define QUORVALEN_COMPANIONS_NETWORKCLIENT_TLSCONTEXT_H

#include <asio/ssl/context.hpp>
#include <string>

namespace Quorvalen::Companions::Network {

struct TlsContext {
    asio::ssl::context context;
    // The name or address that the other side's certificate has to carry.
    std::string serverName;
};

// Reads the TLS settings and the files they name. Throws NetworkError when one cannot be used.
// `host` is whom the channel connects to, `peer` is for the texts.
TlsContext CreateTlsContext(const std::string& host, const std::string& peer);

}  // namespace Quorvalen::Companions::Network

#endif
