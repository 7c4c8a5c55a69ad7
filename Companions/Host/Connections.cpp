#include "Companions/Host/Connections.h"

#include <spdlog/spdlog.h>
#include <sys/socket.h>

#include <utility>

namespace Quorvalen::Companions::Network::Host {

void Connection::CutOffIfLate(Clock::time_point now) {
    Clock::time_point seen = deadline;
    if (seen > now) return;
    // A connection that has just got on has set another one.
    if (!deadline.compare_exchange_strong(seen, Clock::time_point::max())) return;
    const std::string lateness = Lateness();
    if (!lateness.empty()) spdlog::info(lateness);
    wasEndedHere = true;
    shutdown(Descriptor(), SHUT_RDWR);
}

void Connection::EndInput() {
    wasEndedHere = true;
    shutdown(Descriptor(), SHUT_RD);
}

bool Connections::HasRoom() const {
    const std::lock_guard lock(mutex);
    return open.size() < maximum;
}

void Connections::Add(Connection& connection) {
    const std::lock_guard lock(mutex);
    open.insert(&connection);
    ++total;
    if (onEmpty) connection.EndInput();
}

void Connections::Remove(Connection& connection) {
    std::function<void()> call;
    {
        const std::lock_guard lock(mutex);
        open.erase(&connection);
        if (open.empty()) call = onEmpty;
    }
    if (call) call();
}

void Connections::CutOffLateOnes() {
    const std::lock_guard lock(mutex);
    const Clock::time_point now = Clock::now();
    for (Connection* connection : open) connection->CutOffIfLate(now);
}

void Connections::Drain(std::function<void()> whenEmpty) {
    const std::lock_guard lock(mutex);
    onEmpty = std::move(whenEmpty);
    for (Connection* connection : open) connection->EndInput();
    if (open.empty()) onEmpty();
}

std::size_t Connections::Total() const {
    const std::lock_guard lock(mutex);
    return total;
}

}  // namespace Quorvalen::Companions::Network::Host
