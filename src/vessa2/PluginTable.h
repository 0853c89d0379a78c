#pragma once

#include <set>
#include <string>
#include <string_view>

#include "common/KeyIndex.h"
#include "vessa2/PluginRecord.h"

// The registered plug-ins, by fkey and by the file name of their module. Entries that ought to
// have a record and have none are possible and kept apart.
//
// Thread safety: none for changes; Find on any threads while nobody changes it.
// Invariants: it owns its records. Every record is in by_key_ under its fkey, and in the chain of
// its file name; no key is both in by_key_ and in without_record_. A chain is not empty, and in the
// order of its keys while it says so.
class PluginTable {
  public:
    PluginTable() = default;
    ~PluginTable() { Clear(); }
    PluginTable(const PluginTable&) = delete;
    PluginTable& operator=(const PluginTable&) = delete;

    PluginRecord* Find(std::string_view fkey) const { return by_key_.Find(fkey); }
    bool HasEntryWithoutRecord(std::string_view fkey) const {
        return !without_record_.empty() && without_record_.count(std::string(fkey)) != 0;
    }

    // Takes the record, whose fkey has none yet. Without memory std::bad_alloc, and the table is as
    // it was and the record the caller's.
    void Add(PluginRecord* record);
    // Gives a record back to the caller.
    void Take(PluginRecord* record);
    // Both for entries without a record.
    void AddWithoutRecord(const std::string& fkey) { without_record_.insert(fkey); }
    void EraseWithoutRecord(const std::string& fkey) { without_record_.erase(fkey); }

    bool IsEmpty() const { return by_key_.Size() == 0 && without_record_.empty(); }
    size_t Records() const { return by_key_.Size(); }
    size_t FileNames() const { return by_filename_.Size(); }
    bool HasEntriesWithoutRecord() const { return !without_record_.empty(); }

    // One record with this file name; null: there is none.
    const PluginRecord* AnyWithFileName(std::string_view filename) const;

    // Calls visit(key, record) in key order for the entry of fkey, every entry without a record,
    // for which record is null, and every record with this file name, until visit gives other than
    // 0, which is the result. Without memory to sort std::bad_alloc.
    template <class Visit>
    int VisitInKeyOrder(TextRef fkey, std::string_view filename, Visit&& visit);

    // Deletes everything.
    void Clear();

  private:
    friend struct PluginProviderAccess;  // tests look at every record

    struct Chain {
        explicit Chain(std::string_view name) : filename(name) {}
        const std::string filename;
        PluginRecord* first = nullptr;
        PluginRecord* last = nullptr;
        bool is_in_order = true;
    };

    static void Append(Chain& chain, PluginRecord* record);
    static void Unlink(Chain& chain, PluginRecord* record);
    static void Sort(Chain& chain);
    static PluginRecord* NextOf(const PluginRecord* record) { return record->next_; }

    struct KeyOfRecord {
        std::string_view operator()(const PluginRecord& record) const {
            return record.fkey().view();
        }
    };
    struct NameOfChain {
        std::string_view operator()(const Chain& chain) const { return chain.filename; }
    };

    KeyIndex<PluginRecord, KeyOfRecord> by_key_;
    KeyIndex<Chain, NameOfChain> by_filename_;
    std::set<std::string> without_record_;
};

template <class Visit>
int PluginTable::VisitInKeyOrder(TextRef fkey, std::string_view filename, Visit&& visit) {
    Chain* const chain = by_filename_.Find(filename);
    if (chain != nullptr && !chain->is_in_order) Sort(*chain);
    PluginRecord* own = by_key_.Find(fkey.view());
    PluginRecord* named = chain != nullptr ? chain->first : nullptr;
    auto without = without_record_.begin();
    for (;;) {
        PluginRecord* record = own;
        if (named != nullptr && (record == nullptr || named->fkey() < record->fkey()))
            record = named;
        const bool is_without = without != without_record_.end() &&
                                (record == nullptr || TextRef(*without) < record->fkey());
        if (!is_without && record == nullptr) return 0;
        if (const int result =
                is_without ? visit(TextRef(*without), nullptr) : visit(record->fkey(), record))
            return result;
        if (is_without) {
            ++without;
            continue;
        }
        if (record == named) named = NextOf(named);
        if (record == own) own = nullptr;
    }
}
