// Frames on a stream: every way to cut them, the lengths at the edges, frames one after the other,
// and how much memory is taken for what did not come.
#include "Companions/Network/Frame.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

namespace {

using Quorvalen::Companions::Network::FrameReader;
using Quorvalen::Companions::Network::kLargestMaxFrame;
using Quorvalen::Companions::Network::PrefixOf;

using Bytes = std::vector<unsigned char>;
using Found = FrameReader::Found;

Bytes Framed(const Bytes& message) {
    const auto prefix = PrefixOf(message.size());
    Bytes frame(prefix.begin(), prefix.end());
    frame.insert(frame.end(), message.begin(), message.end());
    return frame;
}

// A message whose bytes tell their places.
Bytes MessageOf(std::size_t length) {
    Bytes message(length);
    for (std::size_t i = 0; i < length; ++i)
        message[i] = static_cast<unsigned char>(i * 7 + i / 256);
    return message;
}

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// Gives `bytes` to the reader, at most `pieceLength` at a time; collects the messages.
std::vector<Bytes> Feed(FrameReader& reader, const Bytes& bytes, std::size_t pieceLength) {
    std::vector<Bytes> messages;
    Bytes message;
    for (std::size_t given = 0; given < bytes.size();) {
        const auto space = reader.Space();
        const std::size_t count = std::min({pieceLength, space.size(), bytes.size() - given});
        std::memcpy(space.data(), bytes.data() + given, count);
        reader.Commit(count);
        given += count;
        while (reader.Next(message) == Found::Message) messages.push_back(message);
    }
    return messages;
}

TEST(FrameTest, ThePrefixIsTheLengthMostSignificantByteFirst) {
    EXPECT_EQ((std::array<unsigned char, 4>{0, 0, 0, 0}), PrefixOf(0));
    EXPECT_EQ((std::array<unsigned char, 4>{0, 0, 0, 11}), PrefixOf(11));
    EXPECT_EQ((std::array<unsigned char, 4>{0x01, 0x02, 0x03, 0x04}), PrefixOf(0x01020304));
    EXPECT_EQ((std::array<unsigned char, 4>{0x7F, 0xFF, 0xFF, 0xFF}), PrefixOf(kLargestMaxFrame));
}

TEST(FrameTest, AFrameMayBeCutAnywhereOnce) {
    const Bytes frames = Framed(MessageOf(20)) + Framed(MessageOf(3));
    for (std::size_t cut = 0; cut <= frames.size(); ++cut) {
        FrameReader reader(100);
        auto messages =
            Feed(reader, Bytes(frames.begin(), frames.begin() + std::ptrdiff_t(cut)), 999);
        for (auto& rest :
             Feed(reader, Bytes(frames.begin() + std::ptrdiff_t(cut), frames.end()), 999)) {
            messages.push_back(rest);
        }
        EXPECT_EQ((std::vector<Bytes>{MessageOf(20), MessageOf(3)}), messages) << cut;
        EXPECT_TRUE(reader.IsBetweenFrames()) << cut;
    }
}

TEST(FrameTest, FramesMayComeInPiecesOfAnyLength) {
    // Short, empty, as long as the bytes read ahead, and longer.
    std::vector<Bytes> expected;
    Bytes stream;
    for (const std::size_t length : {5U, 0U, 1U, 16380U, 16384U, 16385U, 70000U, 200000U, 2U}) {
        expected.push_back(MessageOf(length));
        stream = stream + Framed(expected.back());
    }
    for (const std::size_t piece :
         {1U, 2U, 3U, 4U, 5U, 7U, 1000U, 16383U, 16384U, 16385U, 999999U}) {
        FrameReader reader(200000);
        EXPECT_EQ(expected, Feed(reader, stream, piece)) << piece;
        EXPECT_TRUE(reader.IsBetweenFrames()) << piece;
    }
}

TEST(FrameTest, TheLimitIsTheLongestMessage) {
    FrameReader reader(50);
    EXPECT_EQ((std::vector<Bytes>{MessageOf(50)}), Feed(reader, Framed(MessageOf(50)), 999));
    EXPECT_EQ(50U, reader.AnnouncedLength());
}

TEST(FrameTest, OneByteAboveTheLimitIsTooLongAsSoonAsThePrefixIsThere) {
    FrameReader reader(50);
    const auto prefix = PrefixOf(51);
    EXPECT_EQ(0U, Feed(reader, Bytes(prefix.begin(), prefix.end()), 999).size());
    Bytes message = MessageOf(3);
    EXPECT_EQ(Found::TooLong, reader.Next(message));
    EXPECT_EQ(Found::TooLong, reader.Next(message));
    EXPECT_EQ(MessageOf(3), message);
    EXPECT_EQ(51U, reader.AnnouncedLength());
    EXPECT_FALSE(reader.IsBetweenFrames());
}

TEST(FrameTest, TheHighestPrefixIsTooLongAndNoNegativeNumber) {
    FrameReader reader(kLargestMaxFrame);
    Feed(reader, {0xFF, 0xFF, 0xFF, 0xFF}, 999);
    Bytes message;
    EXPECT_EQ(Found::TooLong, reader.Next(message));
    EXPECT_EQ(0xFFFFFFFFU, reader.AnnouncedLength());
}

TEST(FrameTest, NoMemoryIsTakenForBytesThatAreOnlyAnnounced) {
    FrameReader reader(kLargestMaxFrame);
    const auto prefix = PrefixOf(kLargestMaxFrame);
    Feed(reader, Bytes(prefix.begin(), prefix.end()), 999);
    std::size_t arrived = 0;
    while (arrived < 1'000'000) {
        const std::size_t space = reader.Space().size();
        ASSERT_GT(space, 0U);
        ASSERT_LE(space, std::max<std::size_t>(arrived, 16 * 1024)) << arrived;
        reader.Commit(std::min<std::size_t>(space, 1000));
        arrived += std::min<std::size_t>(space, 1000);
        Bytes message;
        ASSERT_EQ(Found::Nothing, reader.Next(message));
    }
}

TEST(FrameTest, AMessageThatIsNotWholeIsNotGiven) {
    FrameReader reader(100);
    EXPECT_TRUE(reader.IsBetweenFrames());
    Bytes frame = Framed(MessageOf(10));
    frame.pop_back();
    EXPECT_EQ(0U, Feed(reader, frame, 1).size());
    EXPECT_FALSE(reader.IsBetweenFrames());
}

TEST(FrameTest, ThreeBytesOfAPrefixAreNotBetweenFrames) {
    FrameReader reader(100);
    Feed(reader, {0, 0, 0}, 999);
    EXPECT_FALSE(reader.IsBetweenFrames());
}

TEST(FrameTest, TheCallersStorageServesTheNextMessage) {
    FrameReader reader(100);
    Bytes message;
    const auto next = [&] {
        const Bytes frame = Framed(MessageOf(60));
        std::memcpy(reader.Space().data(), frame.data(), frame.size());
        reader.Commit(frame.size());
        ASSERT_EQ(Found::Message, reader.Next(message));
    };
    next();
    const unsigned char* first = message.data();
    next();
    const unsigned char* second = message.data();
    next();
    EXPECT_EQ(first, message.data());
    next();
    EXPECT_EQ(second, message.data());
}

TEST(FrameTest, TheStorageOfALongMessageIsNotKept) {
    FrameReader reader(1'000'000);
    Bytes message;
    const auto give = [&](const Bytes& frame) {
        for (std::size_t given = 0; given < frame.size();) {
            const auto space = reader.Space();
            const std::size_t count = std::min(space.size(), frame.size() - given);
            std::memcpy(space.data(), frame.data() + given, count);
            reader.Commit(count);
            given += count;
            reader.Next(message);
        }
    };
    give(Framed(MessageOf(500'000)));
    give(Framed(MessageOf(1)));
    give(Framed(MessageOf(2)));
    EXPECT_EQ(MessageOf(2), message);
    EXPECT_LT(message.capacity(), 100'000U);
}

}  // namespace
