// Blocking connections over loopback with the frames that the network companions use (four bytes of
// length, most significant first, then the message), and nothing else: no deadline, no check. One
// thread uses a stream at a time.
#pragma once

#include <openssl/ssl.h>

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace Benchmarks {

constexpr std::size_t kFramePrefix = 4;

class Stream {
  public:
    virtual ~Stream() = default;

    // Both move at least one byte and return how many; 0 or less means that the connection is over.
    virtual long Read(std::span<unsigned char> room) = 0;
    virtual long Write(std::span<const unsigned char> bytes) = 0;
};

// A listening socket on any free port of the loopback address.
class Listener {
  public:
    Listener();
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    unsigned short Port() const;

    // Waits for the next connection; returns its descriptor, the caller's.
    int Accept() const;

  private:
    int descriptor;
};

// The stream owns the descriptor.
std::unique_ptr<Stream> PlainStream(int descriptor);

using TlsContext = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;

TlsContext ServerContext(const std::string& certificate, const std::string& key);
TlsContext ClientContext(const std::string& trusted);

// With the handshake done. The stream owns the descriptor; the context outlives it.
std::unique_ptr<Stream> AcceptTls(int descriptor, SSL_CTX& context);
std::unique_ptr<Stream> ConnectTls(int descriptor, SSL_CTX& context);

// Opens a connection to a port of the loopback address. Returns its descriptor, the caller's.
int Connect(unsigned short port);

// Reads one frame, prefix and all, into the front of `frame`, which is enlarged when it is too
// short. Returns the frame's whole length, 0 when the connection is over.
std::size_t ReadFrame(Stream& stream, std::vector<unsigned char>& frame);

// Tells whether all bytes were taken.
bool WriteAll(Stream& stream, std::span<const unsigned char> bytes);

// `message` with its length before it.
std::vector<unsigned char> FrameOf(std::span<const unsigned char> message);

}  // namespace Benchmarks
