#include "common/SpreadCounter.h"

#include <new>

#include "common/AsymmetricFence.h"

// Null: no memory for them.
SpreadCounter::LoneCell* SpreadCounter::MakeCells() {
    auto* const made = new (std::nothrow) LoneCell[kCells];
    LoneCell* known = nullptr;
    if (made == nullptr || cells_.compare_exchange_strong(known, made)) return made;
    delete[] made;
    return known;
}

// Null: the shared one.
SpreadCounter::Cell* SpreadCounter::OwnCell(const ThreadState& thread) {
    if (thread.place >= kCells) return nullptr;
    LoneCell* cells = cells_.load(std::memory_order_acquire);
    if (cells == nullptr) cells = MakeCells();
    return cells != nullptr ? &cells[thread.place] : nullptr;
}

void SpreadCounter::Raise(const ThreadState& thread) {
    if (Cell* const own = OwnCell(thread))
        own->raised.store(own->raised.load(std::memory_order_relaxed) + 1,
                          std::memory_order_release);
    else
        shared_.raised.fetch_add(1);
}

void SpreadCounter::Lower(const ThreadState& thread) {
    if (Cell* const own = OwnCell(thread))
        own->lowered.store(own->lowered.load(std::memory_order_relaxed) + 1,
                           std::memory_order_release);
    else
        shared_.lowered.fetch_add(1);
    AsymmetricFence::Light();
}

bool SpreadCounter::IsZero() const {
    AsymmetricFence::Full();
    return Value() == 0;
}

int32_t SpreadCounter::Value() const {
    const LoneCell* cells = cells_.load();
    uint32_t lowered = shared_.lowered.load();
    for (int32_t i = 0; cells != nullptr && i < kCells; ++i) lowered += cells[i].lowered.load();
    // Cells that were made meanwhile count: what was lowered in shared_ may have been raised there.
    cells = cells_.load();
    uint32_t raised = shared_.raised.load();
    for (int32_t i = 0; cells != nullptr && i < kCells; ++i) raised += cells[i].raised.load();
    return static_cast<int32_t>(raised - lowered);
}
