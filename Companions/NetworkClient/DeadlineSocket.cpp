#include "Companions/NetworkClient/DeadlineSocket.h"

#include <cerrno>

namespace Quorvalen::Companions::Network {

bool WaitFor(int descriptor, short events, const Deadline& deadline, std::error_code& error) {
    pollfd waited{descriptor, events, 0};
    for (;;) {
        const int left = deadline.MillisecondsLeft();
        const int ready = poll(&waited, 1, left);
        if (ready > 0) return true;
        if (ready == 0) {
            error = MissedDeadline();
            return false;
        }
        if (errno != EINTR) {
            error = std::error_code(errno, std::system_category());
            return false;
        }
    }
}

}  // namespace Quorvalen::Companions::Network
