// One connection to the host: sends a command, receives its response. Made by the opener, kept by
// the pool between commands, used by one thread at a time.
#ifndef QUORVALEN_COMPANIONS_NETWORKCLIENT_CONNECTION_H
#define QUORVALEN_COMPANIONS_NETWORKCLIENT_CONNECTION_H

#include <memory>
#include <span>
#include <string>
#include <system_error>
#include <vector>

#include "Companions/Network/Frame.h"
#include "Companions/NetworkClient/Settings.h"
#include "Companions/NetworkClient/Stream.h"

namespace Quorvalen::Companions::Network {

class Connection {
  public:
    Connection(std::unique_ptr<Stream> connected, std::string peerName, const Settings& chosen);

    // For a connection that waits for a command. Does not wait.
    bool IsAlive() { return stream->IsAlive(); }

    // Sends the command once, receives the response whole. Throws NetworkError; the connection must
    // not be used any more then, because a late response would be taken for the next command's.
    void Exchange(std::span<const unsigned char> command, std::vector<unsigned char>& response);

    // After Exchange: whether the next command may go the same way.
    bool IsReusable() const { return sentWhole && reader.IsBetweenFrames(); }

  private:
    void ReceiveRefusal(const std::error_code& whileSending, std::vector<unsigned char>& response);
    FrameReader::Found Receive(std::vector<unsigned char>& response, std::error_code& error);
    [[noreturn]] void FailToReceive(const std::error_code& error) const;
    [[noreturn]] void RefuseLongResponse() const;

    const std::unique_ptr<Stream> stream;
    const std::string peer;
    const Settings settings;
    FrameReader reader;
    bool sentWhole = true;
};

}  // namespace Quorvalen::Companions::Network

#endif
