// The other side of the network client in its tests: a server that does with each connection what
// the test's script says, in a thread of its own, with blocking sockets and OpenSSL. It knows
// nothing of the product's code, so both have to mean the same bytes.
#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "Tests/Companions/Network/Certificates.h"

namespace NetworkTests {

// A message with its length in front, as it stands on the wire.
std::string Frame(const std::string& message);

// Serves TLS with this certificate.
class TlsServer {
  public:
    explicit TlsServer(const Identity& identity);

    // Every client has to show a certificate of this authority.
    TlsServer& DemandCertificateOf(const std::string& ca);

    // TLS1_1_VERSION and the like. Below 1.2 with the weak algorithms that those need.
    TlsServer& AtMost(int version);

    SSL* NewConnection() const { return SSL_new(context.get()); }

  private:
    std::shared_ptr<SSL_CTX> context;  // copies serve the same
};

class PeerConnection {
  public:
    PeerConnection(int accepted, const TlsServer* server, std::atomic<int>& frameCount);
    ~PeerConnection();
    PeerConnection(const PeerConnection&) = delete;
    PeerConnection& operator=(const PeerConnection&) = delete;

    // False when TLS is served and the handshake failed.
    bool Start();

    // The next message, nothing when the client closed the connection or it was stopped.
    std::optional<std::string> ReadFrame();

    // At most `count` bytes as they come, "" at the end.
    std::string Read(std::size_t count);

    void Send(const std::string& bytes);
    void Close();
    void Reset();          // the client sees "Connection reset by peer"
    void WaitForClient();  // until the client closes the connection

    // For the peer: ends every call above.
    void Stop();

    // The name that the client asked for in its TLS handshake.
    std::string RequestedName() const;

  private:
    bool ReadAll(char* bytes, std::size_t count);

    std::mutex closing;
    int socket;
    std::unique_ptr<SSL, void (*)(SSL*)> tls;
    std::atomic<int>& frames;
};

class Peer {
  public:
    using Script = std::function<void(PeerConnection&)>;

    // Listens at 127.0.0.1, at any free port or at `port`.
    explicit Peer(Script connectionScript, std::shared_ptr<const TlsServer> server = nullptr,
                  unsigned short port = 0);
    ~Peer();
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    unsigned short Port() const { return port; }
    std::string Name() const { return "127.0.0.1:" + std::to_string(port); }

    int Connections() const { return connections; }  // accepted so far
    int Frames() const { return frames; }            // read whole so far
    int OpenConnections();

  private:
    struct Worker {
        std::unique_ptr<PeerConnection> connection;
        std::atomic<bool> done = false;
        std::thread thread;
    };

    void Accept();
    void Serve(int accepted);
    void RemoveFinished();

    const Script script;
    const std::shared_ptr<const TlsServer> tls;
    int listener;
    unsigned short port = 0;
    std::atomic<int> connections = 0;
    std::atomic<int> frames = 0;
    std::mutex mutex;
    std::list<Worker> workers;
    std::thread accepting;
};

// Scripts that many tests use.
void Echo(PeerConnection& connection);     // answers every command with itself
void Silence(PeerConnection& connection);  // reads and never answers

// Answers the first command of a connection with itself, then closes the connection.
void EchoOnce(PeerConnection& connection);

// Sends this, whatever the command is, and then waits for the client to close.
Peer::Script Answer(const std::string& bytes);

}  // namespace NetworkTests
