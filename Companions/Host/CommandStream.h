// Takes the commands out of what one client sends, and answers by itself what needs no Python:
// heartbeats, malformed messages, frames that are too long. It knows no socket. Belongs to a
// session, used by one thread at a time.
#ifndef QUORVALEN_COMPANIONS_HOST_COMMANDSTREAM_H
#define QUORVALEN_COMPANIONS_HOST_COMMANDSTREAM_H

#include <cstddef>
#include <span>
#include <vector>

#include "Companions/Host/Response.h"
#include "Companions/Network/Frame.h"

namespace Quorvalen::Companions::Network::Host {

class CommandStream {
  public:
    enum class Found {
        Nothing,     // more bytes are needed
        Command,     // Command() is to be executed
        Answer,      // `response` is to be sent
        LastAnswer,  // the same, and nothing can be read after it
    };

    // `longestFrame`: the longest message, in bytes.
    explicit CommandStream(std::size_t longestFrame)
        : reader(longestFrame), maxFrame(longestFrame) {}

    // Where the next bytes go, and how many of them came; see FrameReader.
    std::span<unsigned char> Space() { return reader.Space(); }
    void Commit(std::size_t count) { reader.Commit(count); }

    // Looks at the next message, and writes its answer to `response` unless it is a command.
    Found Next(Response& response);

    // The command found last; the bytes stay until the next call of Next or ForgetCommand.
    std::span<unsigned char> Command() { return message; }
    void ForgetCommand();

    // False when the client has sent a part of a frame, or frames that were not yet looked at.
    bool IsBetweenFrames() const { return reader.IsBetweenFrames(); }

    // The length of the frame that was too long, in bytes.
    std::size_t AnnouncedLength() const { return reader.AnnouncedLength(); }

  private:
    Found AnswerTooLong(Response& response) const;
    Found AnswerMalformed(Response& response) const;

    FrameReader reader;
    const std::size_t maxFrame;
    std::vector<unsigned char> message;
};

}  // namespace Quorvalen::Companions::Network::Host

#endif
