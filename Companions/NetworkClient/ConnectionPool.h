// The connections of a channel that wait for their next command. Owned by the channel; any thread
// may call it.
#ifndef QUORVALEN_COMPANIONS_NETWORKCLIENT_CONNECTIONPOOL_H
#define QUORVALEN_COMPANIONS_NETWORKCLIENT_CONNECTIONPOOL_H

#include <sys/types.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <vector>

#include "Companions/NetworkClient/Connection.h"

namespace Quorvalen::Companions::Network {

class ConnectionPool {
  public:
    // The connection used last that is still alive, null when there is none. Dead ones are closed
    // on the way.
    std::unique_ptr<Connection> Take();

    // Closes the connection when enough are waiting already.
    void Give(std::unique_ptr<Connection> connection);

  private:
    std::unique_ptr<Connection> TakeLast();
    void DropThoseOfTheParent();

    std::mutex mutex;
    std::vector<std::unique_ptr<Connection>> idle;
    pid_t process = getpid();
};

}  // namespace Quorvalen::Companions::Network

#endif
