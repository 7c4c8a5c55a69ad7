// Fuzzes what quorvalen-host reads from its clients: cuts the input into a stream of pieces, takes
// the commands out of it as a session does, and checks what is promised of every answer.
//
// The input's first byte gives the length of the pieces. Lengths of frames stand in the input
// itself, as they do on the network.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "Companions/Host/CommandStream.h"

namespace {

using namespace Quorvalen::Companions::Network;
using Host::CommandStream;

constexpr std::size_t kMaxFrame = 4096;

void Require(bool holds) {
    if (!holds) std::abort();
}

void CheckAnswer(const Host::Response& response) {
    const auto frame = response.Frame();
    Require(frame.size() >= kFramePrefixLength + Host::kHeaderLength);
    const FramePrefix prefix = PrefixOf(frame.size() - kFramePrefixLength);
    Require(std::equal(prefix.begin(), prefix.end(), frame.begin()));
    const unsigned char kind = frame[kFramePrefixLength + Host::kKind];
    Require(kind == Host::kHeartbeat || kind == Host::kException);
    Require(frame[kFramePrefixLength + 1] == 0);
}

void CheckCommand(std::span<const unsigned char> command) {
    Require(command.size() >= Host::kHeaderLength && command.size() <= kMaxFrame);
    Require(command[Host::kKind] != Host::kHeartbeat);
}

// False when the stream can be read no further.
bool TakeAll(CommandStream& stream, Host::Response& response) {
    for (;;) {
        switch (stream.Next(response)) {
            case CommandStream::Found::Nothing:
                return true;
            case CommandStream::Found::Command:
                CheckCommand(stream.Command());
                stream.ForgetCommand();
                break;
            case CommandStream::Found::Answer:
                CheckAnswer(response);
                break;
            case CommandStream::Found::LastAnswer:
                CheckAnswer(response);
                Require(stream.AnnouncedLength() > kMaxFrame);
                return false;
        }
        response.Forget();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::size_t piece = std::size_t{data[0]} + 1;
    std::span<const unsigned char> rest(data + 1, size - 1);
    CommandStream stream(kMaxFrame);
    Host::Response response;
    while (!rest.empty()) {
        const std::span<unsigned char> space = stream.Space();
        const std::size_t count = std::min({piece, rest.size(), space.size()});
        std::copy_n(rest.begin(), count, space.begin());
        stream.Commit(count);
        rest = rest.subspan(count);
        if (!TakeAll(stream, response)) return 0;
    }
    return 0;
}
