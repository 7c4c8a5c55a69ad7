// How commands and responses stand on a stream of bytes: a frame is the length of the message in
// four bytes, most significant first, and then the message. Client and host share this code.
#ifndef QUORVALEN_COMPANIONS_NETWORK_FRAME_H
#define QUORVALEN_COMPANIONS_NETWORK_FRAME_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace Quorvalen::Companions::Network {

inline constexpr std::size_t kFramePrefixLength = 4;
inline constexpr std::size_t kDefaultMaxFrame = std::size_t{256} * 1024 * 1024;
// The bridge counts a message's bytes in a signed 32-bit integer.
inline constexpr std::size_t kLargestMaxFrame = 0x7FFFFFFF;

using FramePrefix = std::array<unsigned char, kFramePrefixLength>;

// `length` is at most kLargestMaxFrame.
FramePrefix PrefixOf(std::size_t length);

// Takes messages out of a stream of bytes, however the stream is cut. Memory is taken for bytes
// that came, not for bytes that a prefix announces: at most twice as much as has arrived, and
// nothing at all for a frame above the limit.
//
// One stream has one reader, used by one thread at a time. The loop around it:
//
//     while ((found = reader.Next(message)) == FrameReader::Found::Nothing)
//         reader.Commit(stream.read_some(reader.Space()));
class FrameReader {
  public:
    enum class Found {
        Nothing,  // more bytes are needed
        Message,
        TooLong,  // the stream cannot be used any more; AnnouncedLength tells why
    };

    // `maxFrame`: the longest message, in bytes, without its prefix.
    explicit FrameReader(std::size_t maxFrame);

    // Where the next bytes of the stream go; never empty. Valid until the next call.
    // REQUIRES: Next found nothing in what was committed so far.
    std::span<unsigned char> Space();

    // `count` bytes were put at the beginning of Space().
    void Commit(std::size_t count);

    // Gives the next whole message to `message`, whose old storage may serve the one after it;
    // leaves it as it is when there is none.
    Found Next(std::vector<unsigned char>& message);

    // True when no byte is here that belongs to a message not yet taken.
    bool IsBetweenFrames() const;

    // The length that the prefix of the frame begun last gave, in bytes.
    std::size_t AnnouncedLength() const { return length; }

  private:
    // Enough that a small frame takes one read.
    static constexpr std::size_t kStagingLength = std::size_t{16} * 1024;
    static constexpr std::size_t kKeptCapacity = std::size_t{64} * 1024;

    bool TakePrefix();
    void TakeStagedBody();
    bool ReadsStraightIntoBody() const;

    const std::size_t maxFrame;
    std::vector<unsigned char> staging;  // bytes not looked at are [begin, end)
    std::size_t begin = 0;
    std::size_t end = 0;
    bool prefixKnown = false;
    std::size_t length = 0;  // of the message that the prefix announced
    std::vector<unsigned char> body;
    std::size_t received = 0;  // bytes of the message that are in `body`
};

}  // namespace Quorvalen::Companions::Network

#endif
