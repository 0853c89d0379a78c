// A counter that several threads raise and lower without getting in each other's way.
//
//   the place            Raise, Lower
//   has a cell           in its own cell
//   has none, and one    takes it; its own cell
//   of the two is free
//   has none, below      makes the further cells; without memory in the shared one
//   kCells
//   any other            in the shared cell
//
//   A cell counts what was raised and what was lowered, and neither ever goes back. IsZero adds up
//   everything that was lowered, and after that everything that was raised: what it finds is at
//   least the value at a moment in between, so that it never says zero of a counter that was not.
//   Of threads that lower it to zero and ask, the last one finds it zero, because a fence is
//   between the two.
#pragma once

#include <atomic>
#include <cstdint>

#include "common/ThreadScope.h"

// What a counter counts in. The lone ones stand on lines of their own, away from what is only read.
struct CountingCell {
    std::atomic<uint32_t> raised{0};
    std::atomic<uint32_t> lowered{0};
};
struct alignas(kPlaceAlignment / 2) LoneCell : CountingCell {
    CountingCell spare;  // of the second own cell: the shared one
};
struct CountingCells {
    static constexpr int32_t kOwn = 2;
    LoneCell own[kOwn];  // of the first places that come
    CountingCell& shared() { return own[kOwn - 1].spare; }
};

// Thread safety: every operation on any thread; the state is the calling thread's own.
// Invariants: what a cell other than the shared one shows is written by the owner of one place
// alone. The counter is never below zero.
class SpreadCounter {
  public:
    // The cells live as long as the counter.
    explicit SpreadCounter(CountingCells* cells) : cells_(cells) {}
    ~SpreadCounter() { delete[] further_.load(); }
    SpreadCounter(const SpreadCounter&) = delete;
    SpreadCounter& operator=(const SpreadCounter&) = delete;

    void Raise(const ThreadState& thread);
    // What the thread looks at afterwards is in order with that by AsymmetricFence.
    void Lower(const ThreadState& thread);

    // Whether it was zero at some moment of the call.
    VESSA_COLD bool IsZero() const;
    // Its value; with others at work a value that is at least what it was at some moment of the
    // call.
    VESSA_COLD int32_t Value() const;
    // Whether it was ever raised.
    bool WasUsed() const {
        return owners_[0].load() != kNobody || cells_->shared().raised.load() != 0;
    }

    static constexpr int32_t kCells = 8;

  private:
    static constexpr int16_t kNobody = -1;

    CountingCell* OwnCell(const ThreadState& thread);
    CountingCell* FirstCell(int32_t place);
    LoneCell* MakeFurther();

    CountingCells* const cells_;
    std::atomic<LoneCell*> further_{nullptr};
    std::atomic<int16_t> owners_[CountingCells::kOwn] = {kNobody, kNobody};
};
