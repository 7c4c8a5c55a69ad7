#include "Companions/NetworkClient/DeadlineSocket.h"

#include <sched.h>

#include <cerrno>

namespace Quorvalen::Companions::Network {

// Whoever else wants the processor has it in between: the host itself may be among them.
bool LooksReadable(int descriptor) {
    pollfd looked{descriptor, POLLIN, 0};
    for (const Clock::time_point end = Clock::now() + AnswerTimes::kShort; Clock::now() < end;
         sched_yield()) {
        if (poll(&looked, 1, 0) > 0) return true;
    }
    return false;
}

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
