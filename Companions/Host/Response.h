// The frame of one response: its length's four bytes and the message stand in one piece of memory,
// so that it leaves in one write. Belongs to a session, used by one thread at a time.
#ifndef QUORVALEN_COMPANIONS_HOST_RESPONSE_H
#define QUORVALEN_COMPANIONS_HOST_RESPONSE_H

#include <cstddef>
#include <span>
#include <string>
#include <vector>

namespace Quorvalen::Companions::Network::Host {

inline constexpr std::size_t kHeaderLength = 11;
inline constexpr std::size_t kKind = 10;  // a byte's place in the header
inline constexpr unsigned char kHeartbeat = 11;
inline constexpr unsigned char kException = 10;

class Response {
  public:
    // Makes the response a message of `length` bytes, at most kLargestMaxFrame, and returns where
    // they go.
    std::span<unsigned char> Room(std::size_t length);

    // The answer to a heartbeat of at least kHeaderLength bytes.
    void AnswerHeartbeat(std::span<const unsigned char> heartbeat);

    // An exception response to `command`, whose missing header bytes are read as 0.
    void AnswerException(std::span<const unsigned char> command, const std::string& type,
                         const std::string& message);

    std::span<const unsigned char> Frame() const { return frame; }

    // Storage of a usual size is kept for the next response.
    void Forget();

  private:
    std::vector<unsigned char> frame;
};

// Gives rare large storage back.
void ForgetBytes(std::vector<unsigned char>& bytes);

}  // namespace Quorvalen::Companions::Network::Host

#endif
