// Counts the calls that are inside the interpreter and lets one of them, when it is the only one,
// shut the gate to restart the interpreter. Calls that arrive meanwhile wait; the restarting thread
// itself passes freely. One gate per launcher; any thread. Passing an open gate costs one atomic
// addition.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

class InterpreterGate {
  public:
    // Being inside, from construction to destruction.
    class Pass {
      public:
        explicit Pass(InterpreterGate& entered) : gate(entered) { gate.Enter(); }
        ~Pass() { gate.Leave(); }
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;

      private:
        InterpreterGate& gate;
    };

    // Shuts the gate from construction to destruction, unless a call other than the one that asks
    // is inside. REQUIRES: the calling thread holds exactly one Pass for the call that asks.
    class Closure {
      public:
        explicit Closure(InterpreterGate& asked) : gate(asked), shut(gate.TryShut()) {}
        ~Closure() {
            if (shut) gate.Open();
        }
        Closure(const Closure&) = delete;
        Closure& operator=(const Closure&) = delete;

        bool IsShut() const { return shut; }

      private:
        InterpreterGate& gate;
        const bool shut;
    };

  private:
    static constexpr std::uint32_t kShut = 0x80000000;

    // The way through an open gate is short and part of every command.
    void Enter() {
        if ((inside.fetch_add(1, std::memory_order_acquire) & kShut) != 0) EnterShut();
    }
    void Leave() { inside.fetch_sub(1, std::memory_order_release); }
    void EnterShut();
    bool TryShut();
    void Open();
    void WaitUntilOpen();

    std::atomic<std::uint32_t> inside{0};  // the count, with kShut added during a restart
    std::atomic<std::thread::id> restartingThread{};
};
