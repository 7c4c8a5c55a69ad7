// Waits for the sockets of all sessions, with all threads at the same time: the system wakes one of
// them for each event. Asio's loop waits with one thread, which wakes another for every event
// before it handles it; that costs a session with one command at a time more than the command
// itself.
//
// Made before the threads that run it, destroyed after their end; any thread may call.
#ifndef QUORVALEN_COMPANIONS_HOST_SOCKETEVENTS_H
#define QUORVALEN_COMPANIONS_HOST_SOCKETEVENTS_H

#include <sys/epoll.h>

#include <atomic>
#include <cstdint>
#include <memory>

#include "Companions/Host/Stream.h"

namespace Quorvalen::Companions::Network::Host {

class SocketUser {
  public:
    virtual ~SocketUser() = default;

    // What was waited for has happened, or the socket has failed. Never throws.
    virtual void Ready() = 0;

  private:
    friend class SocketEvents;
    std::shared_ptr<SocketUser> whileWaiting;  // itself, so that it lives until then
    // Orders what the thread that waits has done before what the thread that is told does: the
    // system's own order is none that the language or its tools know.
    std::atomic<bool> isHandedOver = false;
};

class SocketEvents {
  public:
    enum class Event : std::uint32_t {
        Read = EPOLLIN,
        Write = EPOLLOUT,
        Any = EPOLLIN | EPOLLOUT,
    };

    // Throws std::system_error.
    SocketEvents();

    // Calls user->Ready() once, on a thread that runs, when `socket` can be read or written. The
    // user may be at work there before this returns. Throws std::system_error, and Ready is not
    // called then.
    void Await(int socket, Event event, std::shared_ptr<SocketUser> user);

    // Handles events on this thread until the stop.
    void Run();

    // Lets all threads return from Run.
    void Stop();

  private:
    const Descriptor epoll;
    const Descriptor stop;
};

}  // namespace Quorvalen::Companions::Network::Host

#endif
