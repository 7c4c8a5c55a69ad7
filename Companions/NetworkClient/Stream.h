// The bytes of one connection, plain or through TLS. Each of the two client libraries contains one
// of the two kinds; the rest of their sources is the same.
//
// Owned by a connection; one thread at a time. Deadlines are missed with MissedDeadline().
#ifndef QUORVALEN_COMPANIONS_NETWORKCLIENT_STREAM_H
#define QUORVALEN_COMPANIONS_NETWORKCLIENT_STREAM_H

#include <asio/ip/tcp.hpp>
#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <system_error>

#include "Companions/Network/Frame.h"
#include "Companions/NetworkClient/Deadline.h"

namespace Quorvalen::Companions::Network {

class Stream {
  public:
    virtual ~Stream() = default;

    virtual void SetDeadline(const Deadline& deadline) = 0;

    // Sends both as one, whole unless there is an error.
    virtual void Write(const FramePrefix& prefix, std::span<const unsigned char> message,
                       std::error_code& error) = 0;

    // At least one byte unless there is an error.
    virtual std::size_t ReadSome(std::span<unsigned char> space, std::error_code& error) = 0;

    // For a connection that waits for its next command: false when the other side closed or broke
    // it, or sent something nobody asked for. Does not wait. Changes the deadline.
    virtual bool IsAlive() = 0;

    // The reason, when `error` of a read means that the other side refused us although the
    // connection was made; "" otherwise.
    virtual std::string RefusalIn(const std::error_code& error) const = 0;
};

// Makes the streams of one channel. Any thread may call Make.
class StreamMaker {
  public:
    virtual ~StreamMaker() = default;

    // Throws NetworkError when no stream comes to be on the connected socket until the deadline,
    // which is `timeout` after the attempt began.
    virtual std::unique_ptr<Stream> Make(asio::ip::tcp::socket connected, const Deadline& deadline,
                                         Seconds timeout) const = 0;
};

// Of the library's one kind. Reads the settings of that kind; throws NetworkError when they cannot
// be used. `peer` is "host:port" for the texts.
std::unique_ptr<StreamMaker> CreateStreamMaker(const std::string& host, const std::string& peer);

}  // namespace Quorvalen::Companions::Network

#endif
