// Opens the connections of one channel. Made with the channel's settings, any thread may call it.
#ifndef QUORVALEN_COMPANIONS_NETWORKCLIENT_CONNECTIONOPENER_H
#define QUORVALEN_COMPANIONS_NETWORKCLIENT_CONNECTIONOPENER_H

#include <asio/io_context.hpp>
#include <memory>
#include <string>
#include <vector>

#include "Companions/NetworkClient/Backoff.h"
#include "Companions/NetworkClient/Connection.h"
#include "Companions/NetworkClient/Settings.h"
#include "Companions/NetworkClient/Stream.h"

namespace Quorvalen::Companions::Network {

class ConnectionOpener {
  public:
    // Reads the settings; throws NetworkError when they cannot be used. `peerName` is "host:port".
    ConnectionOpener(std::string hostName, unsigned short portNumber, std::string peerName);

    const Settings& ChosenSettings() const { return settings; }

    // Throws NetworkError. After a failure the next call waits a little before it tries.
    // The opener outlives its connections.
    std::unique_ptr<Connection> Open();

  private:
    std::unique_ptr<Connection> Attempt();
    std::vector<asio::ip::tcp::endpoint> Addresses(const Deadline& deadline);
    [[noreturn]] void MissDeadline(const char* phase) const;

    const std::string host;
    const unsigned short port;
    const std::string peer;
    const Settings settings;
    const std::unique_ptr<StreamMaker> streams;
    asio::io_context io;  // nothing runs on it: every operation is a blocking one
    Backoff backoff;
};

}  // namespace Quorvalen::Companions::Network

#endif
