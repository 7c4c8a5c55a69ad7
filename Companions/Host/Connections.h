// The connections that are open. Each is added by the listener that accepted it and removed by the
// thread that ends it; between these two, and only then, a sweep over all of them may cut one off
// from another thread. Any thread may call.
#ifndef QUORVALEN_COMPANIONS_HOST_CONNECTIONS_H
#define QUORVALEN_COMPANIONS_HOST_CONNECTIONS_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_set>

namespace Quorvalen::Companions::Network::Host {

using Clock = std::chrono::steady_clock;

class Connection {
  public:
    virtual ~Connection() = default;

    // Begins to serve the client.
    virtual void Start() = 0;

    // Wakes the connection with an end of its stream when its deadline is over.
    void CutOffIfLate(Clock::time_point now);

    // Lets the connection see the end of its stream behind what has come already.
    void EndInput();

  protected:
    // By when something has to happen; not set again by a thread that waits for nobody.
    void SetDeadline(Clock::duration fromNow) { deadline = Clock::now() + fromNow; }
    void ClearDeadline() { deadline = Clock::time_point::max(); }

    // True when the end of the stream was brought about here and not by the client.
    bool WasEndedHere() const { return wasEndedHere; }

  private:
    virtual int Descriptor() const = 0;

    // What did not happen in time, for the log.
    virtual std::string Lateness() const = 0;

    std::atomic<Clock::time_point> deadline = Clock::time_point::max();
    std::atomic<bool> wasEndedHere = false;
};

class Connections {
  public:
    explicit Connections(std::size_t most) : maximum(most) {}

    // False when there are as many connections as there may be.
    bool HasRoom() const;

    void Add(Connection& connection);
    void Remove(Connection& connection);

    void CutOffLateOnes();

    // Ends all input; calls `whenEmpty` on the thread that removes the last connection, or at once
    // on this one. Called once.
    void Drain(std::function<void()> whenEmpty);

    // How many were added altogether.
    std::size_t Total() const;

  private:
    const std::size_t maximum;
    mutable std::mutex mutex;  // guards the members below
    std::unordered_set<Connection*> open;
    std::size_t total = 0;
    std::function<void()> onEmpty;  // empty until the drain
};

}  // namespace Quorvalen::Companions::Network::Host

#endif
