// Clients of a host as plain as can be: blocking sockets, one class for TCP and one for TLS. A
// client that waits longer than kPatience fails by exception.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <optional>
#include <string>

#include "Tests/Companions/Network/Certificates.h"
#include "Tests/Companions/Network/HostProcess.h"

namespace NetworkTests {

// A message with its length before it.
std::string Framed(const std::string& message);

// Messages from runtime 8 to runtime 5.
std::string Command(const std::string& body);
std::string Heartbeat(const std::string& body);
std::string HeartbeatAnswer(const std::string& body);
std::string Value(const std::string& body);

// An exception response with such a header.
std::string ExceptionOf(const std::string& header, const std::string& type,
                        const std::string& message);

class Client {
  public:
    virtual ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // False when the connection is lost.
    virtual bool Send(const std::string& bytes);

    // The next message; "closed" when the connection is closed instead, "lost" when it was reset.
    std::string Receive();

    std::string Ask(const std::string& message);

    void FinishSending();

    // True when there is something to read, or the end, without waiting.
    bool IsReadable() const;

    // What was sent is in the host's hands.
    void WaitUntilDelivered() const;

    int Descriptor() const { return descriptor; }

  protected:
    explicit Client(unsigned short port);

    // As recv.
    virtual long Read(char* bytes, std::size_t count);

    int descriptor = -1;

  private:
    std::string Take(std::size_t count);
    std::string failure;
};

class TcpClient : public Client {
  public:
    explicit TcpClient(unsigned short port) : Client(port) {}
};

struct TlsOptions {
    std::optional<Identity> identity;
    std::string ca;
    int newestVersion = TLS1_3_VERSION;
};

class TlsClient : public Client {
  public:
    TlsClient(unsigned short port, const TlsOptions& options);
    ~TlsClient() override;

    // "" when the handshake has succeeded as far as the client can tell, else why not.
    std::string HandshakeFailure() const { return handshakeFailure; }

    // Why the last read failed, "" when it did not.
    std::string ReadFailure() const { return readFailure; }

    bool Send(const std::string& bytes) override;

  protected:
    long Read(char* bytes, std::size_t count) override;

  private:
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context;
    std::unique_ptr<SSL, decltype(&SSL_free)> tls;
    std::string handshakeFailure;
    std::string readFailure;
};

}  // namespace NetworkTests
