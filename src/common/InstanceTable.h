// The live instances: a hash table from an instance's pointer to its record, in stripes.
//
//   entry         Insert             Find      Take               Hold       LetGo
//   absent        plain              absent    absent             absent     absent
//   plain         refused, record    found     absent             held       plain
//   held          refused, record    found     refused, or,       held       plain
//                                              if told so, absent
//
//   An entry is held while the module that handed its pointer out twice destroys the second one;
//   what that takes is the business of whoever holds it.
//
// A stripe's version is odd while one thread changes the stripe, and another one after it. Find
// takes no lock: it reads the version, the entry, and the version again, and when that has not
// been the same a hundred times it locks the stripe as a change does. What it found stays in the
// table at least until the version is another one, which IsCurrent tells. A change waits for
// the thread that makes one, which does nothing but move entries meanwhile; the functions given
// to Take and WithEntry run then and must do as little.
//
// The arrays that a stripe has grown out of are kept for readers that are still in them: as much
// again, at the most, as the array in use.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "common/SyncPoint.h"
#include "common/ThreadScope.h"

// Thread safety: every operation on any thread; destruction by the owner alone.
// Invariants: each stripe has more slots than entries, and an entry is in the first free slot from
// its hash on at the time of its insertion, or nearer.
class InstanceTable {
  public:
    InstanceTable() = default;
    ~InstanceTable();
    InstanceTable(const InstanceTable&) = delete;
    InstanceTable& operator=(const InstanceTable&) = delete;

    // A record's address, which is even, or null.
    using Record = void*;

    struct Found {
        bool is_there = false;
        Record record = nullptr;
        const void* stripe = nullptr;
        uint64_t version = 0;
    };

    // False: the instance is in the table already. Without memory std::bad_alloc, and the table is
    // as it was. instance is not null.
    bool Insert(void* instance, Record record);
    Found Find(const void* instance) const;
    // Whether what Find found is certain to be in the table still.
    static bool IsCurrent(const Found& found);

    enum Taken { kAbsent, kTaken, kHeld };
    // Takes the entry out. use is called with its record first.
    template <class Use>
    Taken Take(void* instance, bool even_if_held, Use&& use);
    // Calls use with the entry's record. False: there is no entry.
    template <class Use>
    bool WithEntry(void* instance, Use&& use);

    // Both give false when there is no entry. was_held tells of a hold before this one.
    bool Hold(void* instance, Record& record, bool& was_held);
    bool LetGo(void* instance);

    size_t Size();

  private:
    struct Slot {
        std::atomic<void*> instance{nullptr};
        std::atomic<uintptr_t> record{0};  // the lowest bit: held
    };
    struct Slots {
        explicit Slots(size_t count)
            : mask(count - 1), limit(count / 4 * 3), slots(new Slot[count]) {}
        ~Slots() { delete[] slots; }
        const size_t mask;
        const size_t limit;  // of entries: three quarters of the slots
        Slot* const slots;
        Slots* former = nullptr;
    };
    struct alignas(kPlaceAlignment) Stripe {
        std::atomic<uint64_t> version{0};
        std::atomic<Slots*> slots{nullptr};
        size_t entries = 0;  // changed by whoever changes the stripe
    };
    // The stretch in which one thread changes a stripe.
    class Change {
      public:
        explicit Change(Stripe& stripe)
            : stripe_(stripe), version_(stripe.version.load(std::memory_order_relaxed)) {
            if (version_ % 2 != 0 ||
                !stripe_.version.compare_exchange_strong(version_, version_ + 1))
                WaitForStripe();
            VESSA_SYNC_POINT("instances.change.begins", &stripe);
        }
        ~Change() { stripe_.version.store(NextVersion(), std::memory_order_release); }
        Change(const Change&) = delete;
        Change& operator=(const Change&) = delete;

        // The stripe's version from the end of the change on.
        uint64_t NextVersion() const { return version_ + 2; }

      private:
        VESSA_COLD void WaitForStripe();

        Stripe& stripe_;
        uint64_t version_;
    };

    static constexpr size_t kStripeBits = 6;
    static constexpr size_t kStripes = size_t{1} << kStripeBits;
    static constexpr size_t kFirstSlots = 8;
    static constexpr uintptr_t kHeldBit = 1;

    static uint64_t Hash(const void* instance);
    static size_t Home(const void* instance) { return static_cast<size_t>(Hash(instance)); }
    static size_t StripeOf(const void* instance) {
        return static_cast<size_t>(Hash(instance) >> (64 - kStripeBits));
    }
    static Record RecordOf(uintptr_t word) { return reinterpret_cast<Record>(word & ~kHeldBit); }
    static Found Look(Stripe& stripe, uint64_t version, const void* instance);
    static Slot* Search(Slots* slots, const void* instance);
    enum Entered { kEntered, kPresent, kFull };
    static Entered Enter(Stripe& stripe, void* instance, Record record);
    VESSA_COLD static void Grow(Stripe& stripe);
    static void MoveTo(Slots* from, Slots* to);
    static Slot& FreeSlot(Slots* slots, const void* instance);
    static void Put(Slot& slot, void* instance, uintptr_t word);
    static void Remove(Stripe& stripe, Slot* slot);

    mutable Stripe stripes_[kStripes];
};

inline uint64_t InstanceTable::Hash(const void* instance) {
    // The lower half of a product knows nothing of the factor's upper bits, so they are folded in.
    uint64_t value = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(instance));
    value *= 0x9E3779B97F4A7C15u;
    return value ^ (value >> 32);
}

inline InstanceTable::Slot* InstanceTable::Search(Slots* slots, const void* instance) {
    if (slots == nullptr) return nullptr;
    for (size_t at = Home(instance);; ++at) {
        Slot& slot = slots->slots[at & slots->mask];
        void* const there = slot.instance.load(std::memory_order_acquire);
        if (there == instance) return &slot;
        if (there == nullptr) return nullptr;
    }
}

inline bool InstanceTable::IsCurrent(const Found& found) {
    return static_cast<const Stripe*>(found.stripe)->version.load() == found.version;
}

template <class Use>
InstanceTable::Taken InstanceTable::Take(void* instance, bool even_if_held, Use&& use) {
    Stripe& stripe = stripes_[StripeOf(instance)];
    const Change change(stripe);
    Slot* const slot = Search(stripe.slots.load(std::memory_order_relaxed), instance);
    if (slot == nullptr) return kAbsent;
    const uintptr_t word = slot->record.load(std::memory_order_relaxed);
    if ((word & kHeldBit) != 0 && !even_if_held) return kHeld;
    use(RecordOf(word));
    VESSA_SYNC_POINT("instances.entry.goes", instance);
    Remove(stripe, slot);
    return kTaken;
}

template <class Use>
bool InstanceTable::WithEntry(void* instance, Use&& use) {
    Stripe& stripe = stripes_[StripeOf(instance)];
    const Change change(stripe);
    Slot* const slot = Search(stripe.slots.load(std::memory_order_relaxed), instance);
    if (slot == nullptr) return false;
    use(RecordOf(slot->record.load(std::memory_order_relaxed)));
    return true;
}
