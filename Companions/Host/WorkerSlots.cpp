#include "Companions/Host/WorkerSlots.h"

#include <utility>

namespace Quorvalen::Companions::Network::Host {

void WorkerSlots::Run(std::shared_ptr<Job> job) {
    if (!TakeSlotFor(job)) return;
    while (job) {
        const bool hasMore = job->Execute();
        job = hasMore ? NextAfter(std::move(job)) : NextOrRelease();
    }
}

bool WorkerSlots::TakeSlotFor(std::shared_ptr<Job>& job) {
    const std::lock_guard lock(mutex);
    if (freeSlots == 0) {
        queue.push_back(std::move(job));
        return false;
    }
    --freeSlots;
    return true;
}

std::shared_ptr<Job> WorkerSlots::NextOrRelease() {
    const std::lock_guard lock(mutex);
    if (queue.empty()) {
        ++freeSlots;
        return nullptr;
    }
    std::shared_ptr<Job> next = std::move(queue.front());
    queue.pop_front();
    return next;
}

std::shared_ptr<Job> WorkerSlots::NextAfter(std::shared_ptr<Job> job) {
    const std::lock_guard lock(mutex);
    if (queue.empty()) return job;
    queue.push_back(std::move(job));
    std::shared_ptr<Job> next = std::move(queue.front());
    queue.pop_front();
    return next;
}

}  // namespace Quorvalen::Companions::Network::Host
