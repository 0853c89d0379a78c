#include "common/InstanceTable.h"

#include <memory>

#include "common/SpinWait.h"
#include "process/Process.h"

namespace {

constexpr int kSpins = 100;

}  // namespace

void InstanceTable::Change::WaitForStripe() {
    VESSA_SYNC_POINT("instances.change.waits", &stripe_);
    int spins = 0;
    unsigned rounds = 0;
    for (;;) {
        version_ = stripe_.version.load(std::memory_order_relaxed);
        if (version_ % 2 == 0 && stripe_.version.compare_exchange_weak(version_, version_ + 1))
            return;
        if (++spins < kSpins)
            SpinWait();
        else
            process::GiveWay(rounds++);
    }
}

InstanceTable::~InstanceTable() {
    for (Stripe& stripe : stripes_) {
        for (Slots* slots = stripe.slots.load(); slots != nullptr;) {
            Slots* const former = slots->former;
            delete slots;
            slots = former;
        }
    }
}

InstanceTable::Slot& InstanceTable::FreeSlot(Slots* slots, const void* instance) {
    size_t at = Home(instance);
    while (slots->slots[at & slots->mask].instance.load(std::memory_order_relaxed) != nullptr) ++at;
    return slots->slots[at & slots->mask];
}

void InstanceTable::Put(Slot& slot, void* instance, uintptr_t word) {
    slot.record.store(word, std::memory_order_release);
    VESSA_SYNC_POINT("instances.entry.half_put", instance);
    slot.instance.store(instance, std::memory_order_release);
}

void InstanceTable::MoveTo(Slots* from, Slots* to) {
    for (size_t i = 0; from != nullptr && i <= from->mask; ++i) {
        void* const instance = from->slots[i].instance.load(std::memory_order_relaxed);
        if (instance != nullptr)
            Put(FreeSlot(to, instance), instance,
                from->slots[i].record.load(std::memory_order_relaxed));
    }
    to->former = from;
}

InstanceTable::Entered InstanceTable::Enter(Stripe& stripe, void* instance, Record record) {
    const Change change(stripe);
    Slots* const slots = stripe.slots.load(std::memory_order_relaxed);
    if (slots == nullptr) return kFull;
    for (size_t at = Home(instance);; ++at) {
        Slot& slot = slots->slots[at & slots->mask];
        void* const there = slot.instance.load(std::memory_order_relaxed);
        if (there == instance) return kPresent;
        if (there != nullptr) continue;
        if (stripe.entries >= slots->limit) return kFull;
        Put(slot, instance, reinterpret_cast<uintptr_t>(record));
        ++stripe.entries;
        return kEntered;
    }
}

// Doubles the stripe's slots unless another thread has done it meanwhile. Nobody is kept waiting
// for the memory.
void InstanceTable::Grow(Stripe& stripe) {
    Slots* const outgrown = stripe.slots.load();
    auto room =
        std::make_unique<Slots>(outgrown != nullptr ? 2 * (outgrown->mask + 1) : kFirstSlots);
    VESSA_SYNC_POINT("instances.grow.made", &stripe);
    const Change change(stripe);
    if (stripe.slots.load(std::memory_order_relaxed) != outgrown) return;
    MoveTo(outgrown, room.get());
    VESSA_SYNC_POINT("instances.grow.moved", &stripe);
    stripe.slots.store(room.release(), std::memory_order_release);
}

bool InstanceTable::Insert(void* instance, Record record) {
    Stripe& stripe = stripes_[StripeOf(instance)];
    for (;;) {
        const Entered entered = Enter(stripe, instance, record);
        if (entered != kFull) return entered == kEntered;
        Grow(stripe);
    }
}

InstanceTable::Found InstanceTable::Look(Stripe& stripe, uint64_t version, const void* instance) {
    Found found;
    found.stripe = &stripe;
    found.version = version;
    const Slot* const slot = Search(stripe.slots.load(std::memory_order_acquire), instance);
    if (slot != nullptr) {
        found.is_there = true;
        found.record = RecordOf(slot->record.load(std::memory_order_acquire));
    }
    return found;
}

InstanceTable::Found InstanceTable::Find(const void* instance) const {
    Stripe& stripe = stripes_[StripeOf(instance)];
    for (int looks = 0; looks < kSpins; ++looks) {
        const uint64_t version = stripe.version.load();
        VESSA_SYNC_POINT("instances.find.has_version", &stripe);
        if (version % 2 == 0) {
            const Found found = Look(stripe, version, instance);
            VESSA_SYNC_POINT("instances.find.looked", &stripe);
            if (IsCurrent(found)) return found;
        }
        SpinWait();
    }
    VESSA_SYNC_POINT("instances.find.locks", &stripe);
    // Others change the stripe without a pause: a look between two changes might never come.
    const Change change(stripe);
    return Look(stripe, change.NextVersion(), instance);
}

// Closes the gap: an entry behind it that would not be found across it moves into it.
void InstanceTable::Remove(Stripe& stripe, Slot* slot) {
    Slots* const slots = stripe.slots.load(std::memory_order_relaxed);
    auto gap = static_cast<size_t>(slot - slots->slots);
    for (size_t at = gap + 1;; ++at) {
        Slot& next = slots->slots[at & slots->mask];
        void* const instance = next.instance.load(std::memory_order_relaxed);
        if (instance == nullptr) break;
        const size_t distance = (at - Home(instance)) & slots->mask;
        const size_t across = (at - gap) & slots->mask;
        if (distance < across) continue;
        Slot& free = slots->slots[gap & slots->mask];
        free.record.store(next.record.load(std::memory_order_relaxed), std::memory_order_release);
        free.instance.store(instance, std::memory_order_release);
        gap = at;
    }
    slots->slots[gap & slots->mask].instance.store(nullptr, std::memory_order_release);
    --stripe.entries;
}

bool InstanceTable::Hold(void* instance, Record& record, bool& was_held) {
    Stripe& stripe = stripes_[StripeOf(instance)];
    const Change change(stripe);
    Slot* const slot = Search(stripe.slots.load(std::memory_order_relaxed), instance);
    if (slot == nullptr) return false;
    const uintptr_t word = slot->record.load(std::memory_order_relaxed);
    slot->record.store(word | kHeldBit, std::memory_order_release);
    record = RecordOf(word);
    was_held = (word & kHeldBit) != 0;
    return true;
}

bool InstanceTable::LetGo(void* instance) {
    Stripe& stripe = stripes_[StripeOf(instance)];
    const Change change(stripe);
    Slot* const slot = Search(stripe.slots.load(std::memory_order_relaxed), instance);
    if (slot == nullptr) return false;
    const uintptr_t word = slot->record.load(std::memory_order_relaxed);
    slot->record.store(word & ~kHeldBit, std::memory_order_release);
    return true;
}

size_t InstanceTable::Size() {
    size_t size = 0;
    for (Stripe& stripe : stripes_) {
        const Change change(stripe);
        size += stripe.entries;
    }
    return size;
}
