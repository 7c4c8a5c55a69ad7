// A connected socket whose reads and writes wait until a deadline at most. It can be read and
// written like any of Asio's synchronous streams, so TLS can run on top of it. A missed deadline is
// MissedDeadline(); bytes that are there are taken even after it.
//
// Belongs to one connection; one thread at a time.
#ifndef QUORVALEN_COMPANIONS_NETWORKCLIENT_DEADLINESOCKET_H
#define QUORVALEN_COMPANIONS_NETWORKCLIENT_DEADLINESOCKET_H

#include <poll.h>

#include <asio/error.hpp>
#include <asio/ip/tcp.hpp>
#include <system_error>
#include <utility>

#include "Companions/NetworkClient/Deadline.h"

namespace Quorvalen::Companions::Network {

// Tells whether a host is so quick that its next answer is worth looking for without sleeping: a
// processor that slept takes longer to wake than such an answer takes.
class AnswerTimes {
  public:
    // Also how long an answer is looked for.
    static constexpr Clock::duration kShort = std::chrono::microseconds(100);

    bool AreShort() const { return shortOnes >= kShortOnesWanted; }
    void Note(Clock::duration time) { shortOnes = time < kShort ? shortOnes + 1 : 0; }

  private:
    // So many in a row: where others want the processor as well, looking for an answer may cost a
    // millisecond, and that must not happen often.
    static constexpr std::size_t kShortOnesWanted = 256;

    std::size_t shortOnes = 0;  // in a row
};

// Looks for input on the descriptor for a moment without sleeping. False when there is none.
bool LooksReadable(int descriptor);

// Waits for `events` of poll() on the descriptor. False and `error` when the deadline is missed.
bool WaitFor(int descriptor, short events, const Deadline& deadline, std::error_code& error);

class DeadlineSocket {
  public:
    using lowest_layer_type = asio::ip::tcp::socket::lowest_layer_type;
    using executor_type = asio::ip::tcp::socket::executor_type;

    // `connected` is in non-blocking mode.
    explicit DeadlineSocket(asio::ip::tcp::socket connected) : socket(std::move(connected)) {}

    void SetDeadline(const Deadline& next) { deadline = next; }
    int Descriptor() { return socket.native_handle(); }

    lowest_layer_type& lowest_layer() { return socket.lowest_layer(); }
    executor_type get_executor() { return socket.get_executor(); }

    template <typename Buffers>
    std::size_t read_some(const Buffers& buffers, std::error_code& error) {
        // An answer is never there at once: asking for it before waiting would be a system call for
        // nothing in every round trip.
        if (std::exchange(answerIsDue, false)) {
            if (!AwaitAnswer(error)) return 0;
        }
        return Try(POLLIN, error, [&] { return socket.read_some(buffers, error); });
    }

    template <typename Buffers>
    std::size_t write_some(const Buffers& buffers, std::error_code& error) {
        answerIsDue = true;
        return Try(POLLOUT, error, [&] { return socket.write_some(buffers, error); });
    }

  private:
    bool AwaitAnswer(std::error_code& error) {
        const Clock::time_point begin = Clock::now();
        const bool isHere = answerTimes.AreShort() && LooksReadable(Descriptor());
        if (!isHere && !WaitFor(Descriptor(), POLLIN, deadline, error)) return false;
        answerTimes.Note(Clock::now() - begin);
        return true;
    }

    template <typename Operation>
    std::size_t Try(short events, std::error_code& error, Operation operation) {
        for (;;) {
            const std::size_t count = operation();
            if (error != asio::error::would_block) return count;
            if (!WaitFor(Descriptor(), events, deadline, error)) return 0;
        }
    }

    asio::ip::tcp::socket socket;
    Deadline deadline = Deadline::Never();
    AnswerTimes answerTimes;
    bool answerIsDue = false;  // something was written and nothing read since
};

}  // namespace Quorvalen::Companions::Network

#endif
