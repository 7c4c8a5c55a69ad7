// Knows which calls are inside the interpreter and lets one of them, when it is the only one, shut
// the gate to restart the interpreter. Calls that arrive meanwhile wait; the restarting thread
// itself passes freely. All gates are one, because all launchers share the interpreter; any thread.
// Every thread counts its own calls, so that passing an open gate takes no locked instruction;
// shutting it takes milliseconds.
#pragma once

#include <atomic>
#include <cstdint>

#include "Runtimes/Python/Native/AsymmetricBarrier.h"
#include "Runtimes/Python/Native/ThreadRecord.h"

class InterpreterGate {
  public:
    // Being inside, from construction to destruction. `own` is the calling thread's record.
    class Pass {
      public:
        Pass(InterpreterGate& gate, ThreadRecord& own) : thread(own) { gate.Enter(thread); }
        ~Pass() { Leave(thread); }
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;

      private:
        ThreadRecord& thread;
    };

    // Shuts the gate from construction to destruction, unless a call other than the one that asks
    // is inside. REQUIRES: the calling thread holds exactly one Pass for the call that asks.
    class Closure {
      public:
        explicit Closure(InterpreterGate& asked) : gate(asked), isShut(gate.TryShut()) {}
        ~Closure() {
            if (isShut) gate.Open();
        }
        Closure(const Closure&) = delete;
        Closure& operator=(const Closure&) = delete;

        bool IsShut() const { return isShut; }

      private:
        InterpreterGate& gate;
        const bool isShut;
    };

  private:
    // The way through an open gate is short and part of every command. Who shuts the gate either
    // sees this call counted or is seen here.
    void Enter(ThreadRecord& thread) {
        ThreadRecord::Add(thread.callsInside, 1);
        AsymmetricBarrier::Light();
        if (shut.load(std::memory_order_acquire)) [[unlikely]]
            EnterShut(thread);
    }
    static void Leave(ThreadRecord& thread) { ThreadRecord::Add(thread.callsInside, -1); }
    void EnterShut(ThreadRecord& thread);
    bool TryShut();
    void Open();

    static constinit std::atomic<bool> shut;
    static constinit std::atomic<std::uint64_t> restartingThread;
};
