#include "Companions/Host/SocketEvents.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace Quorvalen::Companions::Network::Host {

namespace {

int Checked(int result, const char* what) {
    if (result < 0) throw std::system_error(errno, std::generic_category(), what);
    return result;
}

}  // namespace

SocketEvents::SocketEvents()
    : epoll(Checked(epoll_create1(EPOLL_CLOEXEC), "epoll_create1")),
      stop(Checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")) {
    epoll_event event = {EPOLLIN, {nullptr}};
    Checked(epoll_ctl(epoll.Number(), EPOLL_CTL_ADD, stop.Number(), &event), "epoll_ctl");
}

// The event is told once: only the thread that is told may use the socket until it waits again.
void SocketEvents::Await(int socket, Event event, std::shared_ptr<SocketUser> user) {
    SocketUser* const awaiting = user.get();
    epoll_event wanted = {static_cast<std::uint32_t>(event) | EPOLLONESHOT, {awaiting}};
    awaiting->whileWaiting = std::move(user);
    awaiting->isHandedOver.store(true, std::memory_order_release);
    int result = epoll_ctl(epoll.Number(), EPOLL_CTL_MOD, socket, &wanted);
    if (result < 0 && errno == ENOENT) {
        result = epoll_ctl(epoll.Number(), EPOLL_CTL_ADD, socket, &wanted);
    }
    if (result == 0) return;
    const int error = errno;
    user = std::move(awaiting->whileWaiting);
    errno = error;
    Checked(result, "epoll_ctl");
}

void SocketEvents::Run() {
    for (;;) {
        epoll_event event = {};
        const int count = epoll_wait(epoll.Number(), &event, 1, -1);
        if (count < 0 && errno == EINTR) continue;
        Checked(count, "epoll_wait");
        auto* const awaiting = static_cast<SocketUser*>(event.data.ptr);
        if (awaiting == nullptr) return;
        awaiting->isHandedOver.exchange(false, std::memory_order_acquire);
        const std::shared_ptr<SocketUser> user = std::move(awaiting->whileWaiting);
        user->Ready();
    }
}

void SocketEvents::Stop() {
    const std::uint64_t once = 1;
    Checked(static_cast<int>(write(stop.Number(), &once, sizeof once)), "write");
}

}  // namespace Quorvalen::Companions::Network::Host
