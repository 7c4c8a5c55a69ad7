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
            if (!WaitFor(Descriptor(), POLLIN, deadline, error)) return 0;
        }
        return Try(POLLIN, error, [&] { return socket.read_some(buffers, error); });
    }

    template <typename Buffers>
    std::size_t write_some(const Buffers& buffers, std::error_code& error) {
        answerIsDue = true;
        return Try(POLLOUT, error, [&] { return socket.write_some(buffers, error); });
    }

  private:
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
    bool answerIsDue = false;  // something was written and nothing read since
};

}  // namespace Quorvalen::Companions::Network

#endif
