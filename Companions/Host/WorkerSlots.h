// Limits how many commands are executed at the same time. There are no worker threads: whoever has
// a command executes it on its own thread, in one of the slots; when all are taken, the command
// waits in a queue until a thread that finished one takes it over. Any thread may call.
#ifndef QUORVALEN_COMPANIONS_HOST_WORKERSLOTS_H
#define QUORVALEN_COMPANIONS_HOST_WORKERSLOTS_H

#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>

namespace Quorvalen::Companions::Network::Host {

class Job {
  public:
    virtual ~Job() = default;

    // Executes one command. Returns true when it has another one at hand. Never throws.
    virtual bool Execute() = 0;
};

class WorkerSlots {
  public:
    explicit WorkerSlots(std::size_t count) : freeSlots(count) {}

    // Executes `job` here and now, and then what waits in the queue meanwhile; or puts it into the
    // queue. After each command of a job those that wait have their turn.
    void Run(std::shared_ptr<Job> job);

  private:
    bool TakeSlotFor(std::shared_ptr<Job>& job);
    std::shared_ptr<Job> NextOrRelease();
    std::shared_ptr<Job> NextAfter(std::shared_ptr<Job> job);

    std::mutex mutex;  // guards the members below
    std::size_t freeSlots;
    std::deque<std::shared_ptr<Job>> queue;
};

}  // namespace Quorvalen::Companions::Network::Host

#endif
