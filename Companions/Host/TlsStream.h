// TLS on a client's socket; see Stream.h. The context is made once on the main thread, before the
// first stream, and outlives them all.
#ifndef QUORVALEN_COMPANIONS_HOST_TLSSTREAM_H
#define QUORVALEN_COMPANIONS_HOST_TLSSTREAM_H

#include <openssl/ssl.h>

#include <memory>
#include <stdexcept>

#include "Companions/Host/Settings.h"
#include "Companions/Host/Stream.h"

namespace Quorvalen::Companions::Network::Host {

// A certificate, key or CA file that cannot be used; the text names it.
class TlsFileError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class TlsContext {
  public:
    // Reads the files. Throws TlsFileError.
    explicit TlsContext(const TlsSettings& settings);

    SSL_CTX* Get() const { return context.get(); }

  private:
    void LoadHostCertificate(const TlsSettings& settings);
    void DemandClientCertificate(const std::string& file);

    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context;
};

class TlsStream {
  public:
    TlsStream(int descriptor, const TlsContext& context);

    static constexpr bool kHasHandshake = true;

    IoResult Handshake();
    IoResult Read(std::span<unsigned char> space);
    IoResult Write(std::span<const unsigned char> bytes);
    bool MayHoldBytes() const { return SSL_has_pending(tls.get()) == 1; }
    void SayEnd();
    std::string Failure() const { return failure; }
    int Descriptor() const { return socket.Descriptor(); }

  private:
    static void ForgetErrors();
    IoResult Outcome(int result, std::size_t count);
    IoResult Fail(std::string text);

    Socket socket;
    std::unique_ptr<SSL, decltype(&SSL_free)> tls;
    bool mayWrite = true;  // no operation has failed
    std::string failure;
};

}  // namespace Quorvalen::Companions::Network::Host

#endif
