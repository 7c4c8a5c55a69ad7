// A stream without TLS: the socket itself.
#ifndef QUORVALEN_COMPANIONS_NETWORKCLIENT_PLAINSTREAM_H
#define QUORVALEN_COMPANIONS_NETWORKCLIENT_PLAINSTREAM_H

#include "Companions/NetworkClient/DeadlineSocket.h"
#include "Companions/NetworkClient/Stream.h"

namespace Quorvalen::Companions::Network {

class PlainStream : public Stream {
  public:
    explicit PlainStream(asio::ip::tcp::socket connected) : socket(std::move(connected)) {}

    void SetDeadline(const Deadline& deadline) override { socket.SetDeadline(deadline); }
    void Write(const FramePrefix& prefix, std::span<const unsigned char> message,
               std::error_code& error) override;
    std::size_t ReadSome(std::span<unsigned char> space, std::error_code& error) override;
    bool IsAlive() override;
    std::string RefusalIn(const std::error_code&) const override { return ""; }

  private:
    DeadlineSocket socket;
};

}  // namespace Quorvalen::Companions::Network

#endif
