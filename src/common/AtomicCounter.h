#pragma once

#include <cstdint>

#include "tova.h"

// A 32-bit counter or flag that is changed and read only by the runtime's sequentially
// consistent atomic operations.
//
// Thread safety: every operation on any thread.
class AtomicCounter {
  public:
    explicit AtomicCounter(int32_t value = 0) : value_(value) {}
    AtomicCounter(const AtomicCounter&) = delete;
    AtomicCounter& operator=(const AtomicCounter&) = delete;

    // Both give the value before the change.
    int32_t Add(int32_t delta) { return TOVA_AtomicAdd(&value_, delta); }
    int32_t CompareExchange(int32_t comparand, int32_t exchange) {
        return TOVA_AtomicCas(&value_, exchange, comparand);
    }

    // A read is a compare-and-swap of 0 with 0: a plain load would let "set the flag, read
    // the counter" on one thread and "lower the counter, read the flag" on another both miss
    // what the other wrote.
    int32_t Get() const { return TOVA_AtomicCas(&value_, 0, 0); }

    void Set(int32_t value) {
        int32_t seen = Get();
        for (;;) {
            const int32_t before = CompareExchange(seen, value);
            if (before == seen) return;
            seen = before;
        }
    }

  private:
    mutable volatile int32_t value_;
};
