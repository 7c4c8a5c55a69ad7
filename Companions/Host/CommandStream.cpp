#include "Companions/Host/CommandStream.h"

#include <string>

namespace Quorvalen::Companions::Network::Host {

CommandStream::Found CommandStream::Next(Response& response) {
    const FrameReader::Found found = reader.Next(message);
    if (found == FrameReader::Found::Nothing) return Found::Nothing;
    if (found == FrameReader::Found::TooLong) return AnswerTooLong(response);
    if (message.size() < kHeaderLength) return AnswerMalformed(response);
    if (message[kKind] != kHeartbeat) return Found::Command;
    response.AnswerHeartbeat(message);
    return Found::Answer;
}

void CommandStream::ForgetCommand() {
    ForgetBytes(message);
}

CommandStream::Found CommandStream::AnswerTooLong(Response& response) const {
    response.AnswerException({}, "quorvalen.host.FrameTooLong",
                             "the frame announces " + std::to_string(reader.AnnouncedLength()) +
                                 " bytes, at most " + std::to_string(maxFrame) +
                                 " are accepted; the connection is closed");
    return Found::LastAnswer;
}

CommandStream::Found CommandStream::AnswerMalformed(Response& response) const {
    response.AnswerException(message, "quorvalen.host.MalformedCommand",
                             "the command has " + std::to_string(message.size()) +
                                 " bytes, expected at least " + std::to_string(kHeaderLength));
    return Found::Answer;
}

}  // namespace Quorvalen::Companions::Network::Host
