// Keeps a channel from knocking at a host that is down as fast as its commands come. Owned by the
// opener; any thread may call it.
#ifndef QUORVALEN_COMPANIONS_NETWORKCLIENT_BACKOFF_H
#define QUORVALEN_COMPANIONS_NETWORKCLIENT_BACKOFF_H

#include <chrono>
#include <mutex>

#include "Companions/NetworkClient/Deadline.h"

namespace Quorvalen::Companions::Network {

class Backoff {
  public:
    // Waits until the pause after the last failure is over, but not longer than `longest`.
    void Wait(Seconds longest);

    void Succeeded();

    // Of several attempts that were under way at the same time the first failure counts alone.
    void Failed(Clock::time_point attemptBegan);

  private:
    std::mutex mutex;
    Clock::duration pause{};
    Clock::time_point failed = Clock::time_point::min();
    Clock::time_point next = Clock::time_point::min();
};

}  // namespace Quorvalen::Companions::Network

#endif
