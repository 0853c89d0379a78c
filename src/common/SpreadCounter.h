// A counter that several threads raise and lower without getting in each other's way.
//
//   cells        Raise, Lower of a place below kCells     of another place
//   none yet     makes the cells, then its own cell;      the shared cell
//                without memory the shared cell
//   made         its own cell                             the shared cell
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

// Thread safety: every operation on any thread; the state is the calling thread's own.
// Invariants: what a cell below kCells shows is written by the owner of that place alone. The
// counter is never below zero.
class SpreadCounter {
  public:
    SpreadCounter() = default;
    ~SpreadCounter() { delete[] cells_.load(); }
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
    bool WasUsed() const { return cells_.load() != nullptr || shared_.raised.load() != 0; }

    static constexpr int32_t kCells = 8;

  private:
    struct Cell {
        std::atomic<uint32_t> raised{0};
        std::atomic<uint32_t> lowered{0};
    };
    struct alignas(kPlaceAlignment / 2) LoneCell : Cell {};

    Cell* OwnCell(const ThreadState& thread);
    VESSA_COLD LoneCell* MakeCells();

    std::atomic<LoneCell*> cells_{nullptr};
    Cell shared_;
};
