// Feeds bytes to the client as the response of a command, through the code that receives every
// response. The first byte of the input tells the longest message that is accepted, the others in
// pairs: how many bytes come at once, and then those bytes.
#include <algorithm>
#include <asio/error.hpp>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "Companions/NetworkClient/Connection.h"
#include "Companions/NetworkClient/NetworkError.h"

namespace {

using namespace Quorvalen::Companions::Network;

class FuzzedStream : public Stream {
  public:
    explicit FuzzedStream(std::span<const unsigned char> bytes) : input(bytes) {}

    void SetDeadline(const Deadline&) override {}
    void Write(const FramePrefix&, std::span<const unsigned char>, std::error_code&) override {}
    bool IsAlive() override { return !input.empty(); }
    std::string RefusalIn(const std::error_code&) const override { return ""; }

    std::size_t ReadSome(std::span<unsigned char> space, std::error_code& error) override {
        if (space.empty()) std::abort();  // would look like the end of the stream
        if (left == 0) BeginPiece();
        if (left == 0) {
            error = asio::error::eof;
            return 0;
        }
        const std::size_t count = std::min(left, space.size());
        std::memcpy(space.data(), input.data(), count);
        input = input.subspan(count);
        left -= count;
        return count;
    }

  private:
    void BeginPiece() {
        if (input.size() < 2) return;
        // Long pieces too, so that a long message is reached.
        left = std::min((std::size_t{input[0]} + 1) * 32, input.size() - 1);
        if (input[0] < 128) left = std::min(std::size_t{input[0]} + 1, input.size() - 1);
        input = input.subspan(1);
    }

    std::span<const unsigned char> input;
    std::size_t left = 0;  // of the piece that comes now
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    Settings settings;
    settings.maxFrame = (std::size_t{data[0]} + 1) * 200;
    auto stream = std::make_unique<FuzzedStream>(std::span(data + 1, size - 1));
    Connection connection(std::move(stream), "127.0.0.1:1", settings);
    std::vector<unsigned char> response;
    const unsigned char command[] = {1, 2, 3};
    try {
        do {
            connection.Exchange(command, response);
            if (response.size() > settings.maxFrame) std::abort();
        } while (connection.IsReusable());
    } catch (const NetworkError&) {
        // How most inputs end.
    }
    return 0;
}
