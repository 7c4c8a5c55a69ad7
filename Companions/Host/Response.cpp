#include "Companions/Host/Response.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "Companions/Network/Frame.h"

namespace Quorvalen::Companions::Network::Host {

namespace {

constexpr std::size_t kTargetRuntime = 0;  // places in the header
constexpr std::size_t kTargetVersion = 1;
constexpr std::size_t kCallingRuntime = 9;

constexpr std::size_t kKeptCapacity = std::size_t{64} * 1024;

// The header that answers the one in `message`.
void TurnAround(std::span<unsigned char> message) {
    std::swap(message[kTargetRuntime], message[kCallingRuntime]);
    message[kTargetVersion] = 0;
}

// Texts that are no UTF-8 must not cost the caller the whole answer.
std::string ExceptionBody(const std::string& type, const std::string& message) {
    const nlohmann::ordered_json body = {{"type", type}, {"message", message}, {"traceback", ""}};
    return body.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace

void ForgetBytes(std::vector<unsigned char>& bytes) {
    if (bytes.capacity() > kKeptCapacity) bytes = std::vector<unsigned char>();
}

std::span<unsigned char> Response::Room(std::size_t length) {
    frame.resize(kFramePrefixLength + length);
    const FramePrefix prefix = PrefixOf(length);
    std::copy(prefix.begin(), prefix.end(), frame.begin());
    return std::span(frame).subspan(kFramePrefixLength);
}

void Response::AnswerHeartbeat(std::span<const unsigned char> heartbeat) {
    const std::span<unsigned char> answer = Room(heartbeat.size());
    std::copy(heartbeat.begin(), heartbeat.end(), answer.begin());
    TurnAround(answer);
}

void Response::AnswerException(std::span<const unsigned char> command, const std::string& type,
                               const std::string& message) {
    const std::string body = ExceptionBody(type, message);
    const std::span<unsigned char> answer = Room(kHeaderLength + body.size());
    const auto header = command.first(std::min(command.size(), kHeaderLength));
    std::fill_n(answer.begin(), kHeaderLength, static_cast<unsigned char>(0));
    std::copy(header.begin(), header.end(), answer.begin());
    TurnAround(answer);
    answer[kKind] = kException;
    std::copy(body.begin(), body.end(), answer.begin() + kHeaderLength);
}

void Response::Forget() {
    ForgetBytes(frame);
}

}  // namespace Quorvalen::Companions::Network::Host
