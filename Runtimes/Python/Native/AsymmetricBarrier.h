// A pair of memory barriers for two sides of which one is passed by every command and the other
// almost never: between a store and a later load on each side, so that at least one side sees what
// the other has stored. The light one costs next to nothing because the heavy one makes every other
// processor take a barrier. Any thread.
#pragma once

#include <emmintrin.h>

#include <atomic>

class AsymmetricBarrier {
  public:
    static void Light() {
        if (heavyOneIsEnough) [[likely]] {
            std::atomic_signal_fence(std::memory_order_seq_cst);
        } else {
            _mm_mfence();
        }
    }

    // Takes as long as it takes every processor to change threads: milliseconds. False when the
    // system refused it, as a process may ask it to at any time; then nothing is sure.
    static bool Heavy();

  private:
    // False where the system does not offer the call that the heavy one makes.
    static const bool heavyOneIsEnough;
};
