// Streams through TLS.
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <array>
#include <asio/buffer.hpp>
#include <asio/ip/address.hpp>
#include <asio/ssl/stream.hpp>
#include <asio/write.hpp>
#include <new>

#include "Companions/NetworkClient/DeadlineSocket.h"
#include "Companions/NetworkClient/Messages.h"
#include "Companions/NetworkClient/NetworkError.h"
#include "Companions/NetworkClient/Stream.h"
#include "Companions/NetworkClient/TlsContext.h"
#include "Companions/NetworkClient/TlsFailures.h"

namespace Quorvalen::Companions::Network {
namespace {

// A frame tells its own length, so nobody needs the goodbye that TLS has for ends of streams: the
// socket is simply closed, which also is what a forked child needs.
class TlsStream : public Stream {
  public:
    TlsStream(asio::ip::tcp::socket connected, asio::ssl::context& context)
        : socket(std::move(connected)), stream(socket, context) {
        // The buffers would be freed and taken again for every command.
        SSL_clear_mode(stream.native_handle(), SSL_MODE_RELEASE_BUFFERS);
    }

    // Sets which name the certificate has to carry, and asks for the certificate of that name.
    void Expect(const std::string& serverName);
    void Handshake(std::error_code& error) {
        stream.handshake(asio::ssl::stream_base::client, error);
    }
    SSL* Tls() { return stream.native_handle(); }

    void SetDeadline(const Deadline& deadline) override { socket.SetDeadline(deadline); }
    void Write(const FramePrefix& prefix, std::span<const unsigned char> message,
               std::error_code& error) override;
    std::size_t ReadSome(std::span<unsigned char> space, std::error_code& error) override;
    bool IsAlive() override;
    std::string RefusalIn(const std::error_code& error) const override {
        return CertificateRefusal(error);
    }

  private:
    DeadlineSocket socket;
    asio::ssl::stream<DeadlineSocket&> stream;
};

void TlsStream::Expect(const std::string& serverName) {
    std::error_code noAddress;
    asio::ip::make_address(serverName, noAddress);
    // An address with a zone, which no certificate can carry, is refused as a name is: without
    // either expectation every name would do.
    if (!noAddress &&
        X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(Tls()), serverName.c_str()) == 1) {
        return;
    }
    SSL_set_hostflags(Tls(),
                      X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS | X509_CHECK_FLAG_NEVER_CHECK_SUBJECT);
    if (SSL_set1_host(Tls(), serverName.c_str()) != 1) throw std::bad_alloc();
    SSL_set_tlsext_host_name(Tls(), serverName.c_str());
}

void TlsStream::Write(const FramePrefix& prefix, std::span<const unsigned char> message,
                      std::error_code& error) {
    const std::array<asio::const_buffer, 2> frame{asio::buffer(prefix),
                                                  asio::buffer(message.data(), message.size())};
    asio::write(stream, frame, error);
}

std::size_t TlsStream::ReadSome(std::span<unsigned char> space, std::error_code& error) {
    const auto count = stream.read_some(asio::buffer(space.data(), space.size()), error);
    if (error == asio::ssl::error::stream_truncated) error = asio::error::eof;
    return count;
}

// Bytes may be there that are no part of any response, session tickets for example; only TLS itself
// can tell.
bool TlsStream::IsAlive() {
    SetDeadline(Deadline::Now());
    unsigned char byte = 0;
    std::error_code error;
    ReadSome(std::span(&byte, 1), error);
    return error == MissedDeadline();
}

class TlsStreamMaker : public StreamMaker {
  public:
    TlsStreamMaker(const std::string& host, const std::string& peerName)
        : peer(peerName), tls(CreateTlsContext(host, peerName)) {}

    std::unique_ptr<Stream> Make(asio::ip::tcp::socket connected, const Deadline& deadline,
                                 Seconds timeout) const override {
        auto stream = std::make_unique<TlsStream>(std::move(connected), tls.context);
        stream->SetDeadline(deadline);
        stream->Expect(tls.serverName);
        std::error_code error;
        stream->Handshake(error);
        if (!error) return stream;
        if (error == MissedDeadline()) {
            throw NetworkError(
                Messages::DeadlineMissed(peer, Messages::kHandshake, TextOf(timeout)));
        }
        throw NetworkError(
            Messages::TlsCheckFailed(peer, HandshakeFailure(error, stream->Tls(), tls.serverName)));
    }

  private:
    const std::string peer;
    mutable TlsContext tls;  // OpenSSL counts and locks in it by itself
};

}  // namespace

std::unique_ptr<StreamMaker> CreateStreamMaker(const std::string& host, const std::string& peer) {
    return std::make_unique<TlsStreamMaker>(host, peer);
}

}  // namespace Quorvalen::Companions::Network
