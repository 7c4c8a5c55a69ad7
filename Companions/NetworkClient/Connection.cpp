#include "Companions/NetworkClient/Connection.h"

#include <asio/error.hpp>
#include <utility>

#include "Companions/NetworkClient/Messages.h"
#include "Companions/NetworkClient/NetworkError.h"

namespace Quorvalen::Companions::Network {
namespace {

// Read as a frame's prefix, the record with which a TLS server refuses what is no TLS.
constexpr std::size_t kTlsAlert = 0x1503;

bool LooksLikeTls(std::size_t announced) {
    return announced >> 16 == kTlsAlert;
}

std::string ReasonOf(const std::error_code& error) {
    return error == asio::error::eof ? Messages::kClosedByPeer : error.message();
}

}  // namespace

Connection::Connection(std::unique_ptr<Stream> connected, std::string peerName,
                       const Settings& chosen)
    : stream(std::move(connected)),
      peer(std::move(peerName)),
      settings(chosen),
      reader(chosen.maxFrame) {}

void Connection::Exchange(std::span<const unsigned char> command,
                          std::vector<unsigned char>& response) {
    stream->SetDeadline(Deadline::In(settings.replyTimeout));
    std::error_code error;
    stream->Write(PrefixOf(command.size()), command, error);
    if (error) {
        ReceiveRefusal(error, response);
        return;
    }
    switch (Receive(response, error)) {
        case FrameReader::Found::Message:
            return;
        case FrameReader::Found::TooLong:
            RefuseLongResponse();
        case FrameReader::Found::Nothing:
            FailToReceive(error);
    }
}

// A host that does not want a command, or our certificate, says so and hangs up while the command
// is still being sent; what it said is here then.
void Connection::ReceiveRefusal(const std::error_code& whileSending,
                                std::vector<unsigned char>& response) {
    sentWhole = false;
    if (whileSending == MissedDeadline()) {
        throw NetworkError(
            Messages::DeadlineMissed(peer, Messages::kSend, TextOf(*settings.replyTimeout)));
    }
    stream->SetDeadline(Deadline::Now());
    std::error_code error;
    if (Receive(response, error) == FrameReader::Found::Message) return;
    const std::string refusal = stream->RefusalIn(error);
    if (!refusal.empty()) throw NetworkError(Messages::TlsCheckFailed(peer, refusal));
    throw NetworkError(Messages::LostWhileSending(peer, ReasonOf(whileSending)));
}

FrameReader::Found Connection::Receive(std::vector<unsigned char>& response,
                                       std::error_code& error) {
    FrameReader::Found found = reader.Next(response);
    while (found == FrameReader::Found::Nothing) {
        const std::size_t count = stream->ReadSome(reader.Space(), error);
        if (error) break;
        reader.Commit(count);
        found = reader.Next(response);
    }
    return found;
}

void Connection::FailToReceive(const std::error_code& error) const {
    if (error == MissedDeadline()) {
        throw NetworkError(Messages::ReplyDeadlineMissed(peer, TextOf(*settings.replyTimeout)));
    }
    const std::string refusal = stream->RefusalIn(error);
    if (!refusal.empty()) throw NetworkError(Messages::TlsCheckFailed(peer, refusal));
    throw NetworkError(Messages::LostBeforeResponse(peer, ReasonOf(error)));
}

void Connection::RefuseLongResponse() const {
    const std::size_t length = reader.AnnouncedLength();
    if (LooksLikeTls(length)) throw NetworkError(Messages::AnsweredWithTls(peer));
    throw NetworkError(
        Messages::ResponseTooLong(peer, std::to_string(length), std::to_string(settings.maxFrame)));
}

}  // namespace Quorvalen::Companions::Network
