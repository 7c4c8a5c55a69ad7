// What a session asks of its stream: operations on a socket in non-blocking mode that do what they
// can at once and say what they wait for. A stream owns its socket and closes it at its end. It is
// used by one thread at a time.
//
// A stream has these operations:
//
//     IoResult Handshake();
//     IoResult Read(std::span<unsigned char> space);
//     IoResult Write(std::span<const unsigned char> bytes);
//     bool MayHoldBytes() const;      bytes may be at hand of which the socket knows nothing
//     void SayEnd();                  nothing will be written any more
//     std::string Failure() const;    why the last operation failed
//     int Descriptor() const;
#ifndef QUORVALEN_COMPANIONS_HOST_STREAM_H
#define QUORVALEN_COMPANIONS_HOST_STREAM_H

#include <cstddef>
#include <span>
#include <string>

namespace Quorvalen::Companions::Network::Host {

enum class Io {
    Done,
    WantsRead,   // try again when the socket can be read
    WantsWrite,  // or written
    Ended,       // the client has closed the stream
    Failed,
};

struct IoResult {
    Io outcome = Io::Done;
    std::size_t count = 0;  // bytes read or written
};

// A descriptor, closed at the end of the scope.
class Descriptor {
  public:
    explicit Descriptor(int open) : number(open) {}
    ~Descriptor();
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int Number() const { return number; }

  private:
    const int number;
};

// A socket, closed at the end of the scope.
class Socket {
  public:
    explicit Socket(int openDescriptor) : descriptor(openDescriptor) {}
    ~Socket();
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int Descriptor() const { return descriptor; }

  private:
    const int descriptor;
};

class PlainStream {
  public:
    explicit PlainStream(int descriptor) : socket(descriptor) {}

    static constexpr bool kHasHandshake = false;

    IoResult Handshake() { return {}; }
    IoResult Read(std::span<unsigned char> space);
    IoResult Write(std::span<const unsigned char> bytes);
    bool MayHoldBytes() const { return false; }
    void SayEnd() {}
    std::string Failure() const;
    int Descriptor() const { return socket.Descriptor(); }

  private:
    IoResult Outcome(ssize_t result, Io blocked);

    Socket socket;
    int error = 0;  // errno of the last failure
};

}  // namespace Quorvalen::Companions::Network::Host

#endif
