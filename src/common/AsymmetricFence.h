// Orders "show something, then look" on one thread against "change something, then look" on
// another, where the first happens millions of times as often as the second.
//
// Between a store and a later load of other memory a processor needs a full fence, which costs as
// much as all the rest of a short operation. Where the system can run a fence on every thread of
// the process at once, whoever shows runs none (Light only keeps the compiler in order), and
// whoever changes asks for that (Heavy). Elsewhere both sides run a full fence.
#pragma once

#include <atomic>

// Thread safety: every operation on any thread.
class AsymmetricFence {
  public:
    // Asks the system, once, before any thread uses the other two. It is quick while the process
    // has one thread.
    static void Prepare();

    static void Light() {
        if (is_asymmetric_.load(std::memory_order_relaxed))
            std::atomic_signal_fence(std::memory_order_seq_cst);
        else
            Full();
    }
    // What any thread stored before its last Light is seen after this, or that thread sees what
    // was stored before this.
    static void Heavy();
    static void Full() { std::atomic_thread_fence(std::memory_order_seq_cst); }

  private:
    friend struct AsymmetricFenceAccess;  // tests want both kinds

    static std::atomic<bool> is_asymmetric_;
};
