#include "common/SpreadCounter.h"

#include <new>

#include "common/AsymmetricFence.h"
#include "common/SyncPoint.h"

// Null: no memory for them.
LoneCell* SpreadCounter::MakeFurther() {
    LoneCell* known = further_.load();
    if (known != nullptr) return known;
    auto* const made = new (std::nothrow) LoneCell[kCells];
    VESSA_SYNC_POINT("counter.cells.made", this);
    if (made == nullptr || further_.compare_exchange_strong(known, made)) return made;
    delete[] made;
    return known;
}

// The cell of a place that has none of the first two, of which one or none is free. Null: the
// shared one.
CountingCell* SpreadCounter::FirstCell(int32_t place) {
    if (place >= kCells) return nullptr;
    for (int32_t i = 0; i < CountingCells::kOwn; ++i) {
        int16_t owner = owners_[i].load();
        // Nothing is written to the line that everybody reads once both have an owner.
        if (owner == kNobody &&
            owners_[i].compare_exchange_strong(owner, static_cast<int16_t>(place)))
            return &cells_->own[i];
    }
    LoneCell* const further = MakeFurther();
    return further != nullptr ? &further[place] : nullptr;
}

CountingCell* SpreadCounter::OwnCell(const ThreadState& thread) {
    for (int32_t i = 0; i < CountingCells::kOwn; ++i) {
        if (owners_[i].load(std::memory_order_acquire) == thread.place) return &cells_->own[i];
    }
    return FirstCell(thread.place);
}

void SpreadCounter::Raise(const ThreadState& thread) {
    if (CountingCell* const own = OwnCell(thread))
        own->raised.store(own->raised.load(std::memory_order_relaxed) + 1,
                          std::memory_order_release);
    else
        cells_->shared().raised.fetch_add(1);
    VESSA_SYNC_POINT("counter.value.raised", this);
}

void SpreadCounter::Lower(const ThreadState& thread) {
    if (CountingCell* const own = OwnCell(thread))
        own->lowered.store(own->lowered.load(std::memory_order_relaxed) + 1,
                           std::memory_order_release);
    else
        cells_->shared().lowered.fetch_add(1);
    AsymmetricFence::Light();
    VESSA_SYNC_POINT("counter.value.lowered", this);
}

bool SpreadCounter::IsZero() const {
    AsymmetricFence::Full();
    return Value() == 0;
}

int32_t SpreadCounter::Value() const {
    uint32_t lowered = cells_->shared().lowered.load();
    for (const LoneCell& cell : cells_->own) lowered += cell.lowered.load();
    const LoneCell* further = further_.load();
    for (int32_t i = 0; further != nullptr && i < kCells; ++i) lowered += further[i].lowered.load();
    VESSA_SYNC_POINT("counter.look.half_way", this);
    // Cells that were made meanwhile count: what was lowered in another was perhaps raised there.
    further = further_.load();
    uint32_t raised = cells_->shared().raised.load();
    for (const LoneCell& cell : cells_->own) raised += cell.raised.load();
    for (int32_t i = 0; further != nullptr && i < kCells; ++i) raised += further[i].raised.load();
    return static_cast<int32_t>(raised - lowered);
}
