// Finds an object by its key: a hash table of pointers to objects that hold their keys.
//
//   key        Add                  Find          Take
//   absent     present              null          null
//   present    refused, the object  the object    the object; absent
//
//   Its order is nobody's business: where an order shows, whoever needs it sorts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "common/TextHash.h"

// Thread safety: none for changes; Find and Size on any threads while nobody changes it.
// Invariants: at most seven eighths of the slots are in use, and an object is in the first free
// slot from its hash on at the time it was added, or nearer. The objects belong to somebody else,
// and their keys do not change while they are in.
// KeyOf is a function object that gives an object's key.
template <class Object, class KeyOf>
class KeyIndex {
  public:
    KeyIndex() = default;
    KeyIndex(const KeyIndex&) = delete;
    KeyIndex& operator=(const KeyIndex&) = delete;

    Object* Find(std::string_view key) const {
        return slots_ != nullptr ? slots_[Search(key, HashOfText(key))].object : nullptr;
    }

    // Null, or the object that has the key already. Without memory std::bad_alloc, and the index is
    // as it was.
    Object* Add(Object* object) {
        if (8 * (size_ + 1) > 7 * count_) Grow();
        const std::string_view key = KeyOfObject(*object);
        const size_t hash = HashOfText(key);
        Slot& slot = slots_[Search(key, hash)];
        if (slot.object != nullptr) return slot.object;
        slot = Slot{hash, object};
        ++size_;
        return nullptr;
    }

    // Null: there is none.
    Object* Take(std::string_view key) {
        if (slots_ == nullptr) return nullptr;
        const size_t at = Search(key, HashOfText(key));
        Object* const object = slots_[at].object;
        if (object != nullptr) Remove(at);
        return object;
    }

    size_t Size() const { return size_; }

    template <class Visit>
    void ForEach(Visit&& visit) const {
        for (size_t i = 0; i < count_; ++i)
            if (slots_[i].object != nullptr) visit(*slots_[i].object);
    }

    // Takes everything out and gives the memory back.
    void Clear() {
        slots_.reset();
        count_ = 0;
        size_ = 0;
    }

  private:
    struct Slot {
        size_t hash = 0;
        Object* object = nullptr;
    };
    static constexpr size_t kFirstCount = 16;

    static std::string_view KeyOfObject(const Object& object) { return KeyOf()(object); }

    // The key's slot, or the free one where it would be.
    size_t Search(std::string_view key, size_t hash) const {
        size_t at = hash & (count_ - 1);
        while (slots_[at].object != nullptr &&
               (slots_[at].hash != hash || KeyOfObject(*slots_[at].object) != key))
            at = (at + 1) & (count_ - 1);
        return at;
    }

    void Grow() {
        const size_t count = count_ != 0 ? 2 * count_ : kFirstCount;
        auto slots = std::make_unique<Slot[]>(count);
        for (size_t i = 0; i < count_; ++i) {
            if (slots_[i].object == nullptr) continue;
            size_t at = slots_[i].hash & (count - 1);
            while (slots[at].object != nullptr) at = (at + 1) & (count - 1);
            slots[at] = slots_[i];
        }
        slots_ = std::move(slots);
        count_ = count;
    }

    // Closes the gap: what is behind it and would not be found across it moves into it.
    void Remove(size_t gap) {
        const size_t mask = count_ - 1;
        for (size_t at = (gap + 1) & mask; slots_[at].object != nullptr; at = (at + 1) & mask) {
            if (((at - slots_[at].hash) & mask) < ((at - gap) & mask)) continue;
            slots_[gap] = slots_[at];
            gap = at;
        }
        slots_[gap] = Slot{};
        --size_;
    }

    std::unique_ptr<Slot[]> slots_;
    size_t count_ = 0;
    size_t size_ = 0;
};
