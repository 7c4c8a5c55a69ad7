#include "Companions/Network/Frame.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Quorvalen::Companions::Network {

FramePrefix PrefixOf(std::size_t length) {
    const auto byte = [length](unsigned shift) {
        return static_cast<unsigned char>((length >> shift) & 0xFF);
    };
    return {byte(24), byte(16), byte(8), byte(0)};
}

FrameReader::FrameReader(std::size_t longest) : maxFrame(longest), staging(kStagingLength) {}

// A long message is read to where it stays; a short one comes through the staging bytes, together
// with its prefix and whatever follows it.
bool FrameReader::ReadsStraightIntoBody() const {
    return prefixKnown && length <= maxFrame && begin == end && length - received > kStagingLength;
}

std::span<unsigned char> FrameReader::Space() {
    if (ReadsStraightIntoBody()) {
        if (received == body.size()) {
            body.resize(std::min(length, std::max(2 * received, kStagingLength)));
        }
        return std::span(body).subspan(received);
    }
    if (begin > 0) {
        std::memmove(staging.data(), staging.data() + begin, end - begin);
        end -= begin;
        begin = 0;
    }
    return std::span(staging).subspan(end);
}

void FrameReader::Commit(std::size_t count) {
    (ReadsStraightIntoBody() ? received : end) += count;
}

FrameReader::Found FrameReader::Next(std::vector<unsigned char>& message) {
    if (!prefixKnown && !TakePrefix()) return Found::Nothing;
    if (length > maxFrame) return Found::TooLong;
    TakeStagedBody();
    if (received < length) return Found::Nothing;
    body.resize(length);
    std::swap(body, message);
    // The caller's old storage serves the next message, unless a rare long one would stay for good.
    if (body.capacity() > kKeptCapacity) body = std::vector<unsigned char>();
    received = 0;
    prefixKnown = false;
    return Found::Message;
}

bool FrameReader::IsBetweenFrames() const {
    return !prefixKnown && begin == end;
}

bool FrameReader::TakePrefix() {
    if (end - begin < kFramePrefixLength) return false;
    length = 0;
    for (std::size_t i = 0; i < kFramePrefixLength; ++i) length = length << 8 | staging[begin + i];
    begin += kFramePrefixLength;
    prefixKnown = true;
    return true;
}

void FrameReader::TakeStagedBody() {
    const std::size_t count = std::min(end - begin, length - received);
    if (count == 0) return;
    if (body.size() < received + count) body.resize(received + count);
    std::memcpy(body.data() + received, staging.data() + begin, count);
    begin += count;
    received += count;
}

}  // namespace Quorvalen::Companions::Network
