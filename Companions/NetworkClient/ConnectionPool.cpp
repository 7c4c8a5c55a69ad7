#include "Companions/NetworkClient/ConnectionPool.h"

#include <utility>

namespace Quorvalen::Companions::Network {
namespace {

constexpr std::size_t kMostIdle = 32;

}  // namespace

std::unique_ptr<Connection> ConnectionPool::Take() {
    for (;;) {
        auto connection = TakeLast();
        if (connection == nullptr || connection->IsAlive()) return connection;
    }
}

void ConnectionPool::Give(std::unique_ptr<Connection> connection) {
    const std::lock_guard lock(mutex);
    if (idle.size() < kMostIdle) idle.push_back(std::move(connection));
}

std::unique_ptr<Connection> ConnectionPool::TakeLast() {
    const std::lock_guard lock(mutex);
    DropThoseOfTheParent();
    if (idle.empty()) return nullptr;
    auto last = std::move(idle.back());
    idle.pop_back();
    return last;
}

// Two processes that used one connection would read each other's responses. Dropping closes this
// process's descriptor only, without a word on the wire.
void ConnectionPool::DropThoseOfTheParent() {
    const pid_t current = getpid();
    if (current == process) return;
    process = current;
    idle.clear();
}

}  // namespace Quorvalen::Companions::Network
