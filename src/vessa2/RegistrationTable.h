#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "vessa2/PluginConfigList.h"

// What was accepted for registration, in the order of the registration keys, and which of it is
// not registered yet.
//
//              Enter      MarkRegistered  TakeOut
// absent       pending    -               -
// pending      conflict   registered      absent
// registered   conflict   -               absent
//
// Thread safety: none; the coordinator's mutex guards it. Whoever walks through it by a Place
// may let it be changed or emptied meanwhile by what it calls.
// Invariants: records_ is ordered by key, each key once; pending_ of them are pending. A record
// that was taken out stays as a gap until Tidy; its item is there for its key alone. version_
// changes whenever a record moves.
class RegistrationTable {
  public:
    struct Record {
        enum State : uint8_t { kPending, kRegistered, kGone };

        PluginConfigItem item;
        State state = kPending;
    };

    // Where a walk through the pending records stands: at a copy of one's item.
    struct Place {
        PluginConfigItem item;
        size_t index = 0;
        uint64_t version = 0;
        bool begun = false;
    };

    size_t pending() const { return pending_; }

    // Enters the items, in their order, as pending: all of them or, when memory runs out,
    // none. conflict is called with each item whose key is in the table already, or was in the
    // list before it, and with the record of that key.
    template <class Conflict>
    void Enter(const PluginConfigList& list, Conflict conflict) {
        const std::vector<const PluginConfigItem*> refused = EnterAll(list);
        for (const PluginConfigItem* const item : refused) conflict(*item, *Find(*item));
    }

    // Goes on to the next pending record by key, first to the first one. False: there is none.
    bool Next(Place& place) const;
    // The record of the place, if it is still there.
    void MarkRegistered(const Place& place);

    // Takes the record of the item's key out and gives its item and whether it was registered.
    // False: there is none.
    bool TakeOut(const PluginConfigItem& item, PluginConfigItem& taken, bool& was_registered);
    // Closes the gaps. Nothing is allocated.
    void Tidy();

    // Every record in the order of the keys, taken out without an allocation. Gaps may be there.
    std::vector<Record> TakeAll();

  private:
    // One item to be entered, and before which record.
    struct Entry {
        const PluginConfigItem* item = nullptr;
        size_t before = 0;
    };

    std::vector<const PluginConfigItem*> EnterAll(const PluginConfigList& list);
    void Insert(const std::vector<Entry>& entries);
    size_t LowerBound(const PluginConfigItem& item, size_t from) const;
    bool Holds(size_t index, const PluginConfigItem& item) const;
    const PluginConfigItem* Find(const PluginConfigItem& item) const;

    std::vector<Record> records_;
    size_t pending_ = 0;
    size_t gaps_ = 0;
    size_t next_out_ = 0;  // where the next record to be taken out probably is
    uint64_t version_ = 0;

    friend struct PluginCoordinatorAccess;  // tests look into the registered table
};
