#include "vessa2/RegistrationTable.h"

#include <algorithm>

#include "common/RunSort.h"

bool RegistrationTable::Holds(size_t index, const PluginConfigItem& item) const {
    return index < records_.size() && CompareRegistrationKeys(records_[index].item, item) == 0;
}

// The first record whose key is not below the item's, none of those before from being it.
// Looks near there first: what comes in order is found at once.
size_t RegistrationTable::LowerBound(const PluginConfigItem& item, size_t from) const {
    const auto below = [&](size_t index) {
        return CompareRegistrationKeys(records_[index].item, item) < 0;
    };
    size_t low = from;
    size_t high = from;
    for (size_t step = 1; high < records_.size() && below(high); step *= 2) {
        low = high + 1;
        high += step;
    }
    high = std::min(high, records_.size());
    while (low < high) {
        const size_t middle = low + (high - low) / 2;
        if (below(middle))
            low = middle + 1;
        else
            high = middle;
    }
    return low;
}

const PluginConfigItem* RegistrationTable::Find(const PluginConfigItem& item) const {
    const size_t index = LowerBound(item, 0);
    return Holds(index, item) && records_[index].state != Record::kGone ? &records_[index].item
                                                                        : nullptr;
}

// Gives the refused items in the order of the list.
std::vector<const PluginConfigItem*> RegistrationTable::EnterAll(const PluginConfigList& list) {
    std::vector<const PluginConfigItem*> refused;
    if (list.empty()) return refused;
    std::vector<Entry> entries;
    entries.reserve(list.size());
    for (const PluginConfigItem& item : list) entries.push_back({&item, 0});
    SortByRuns(entries, [](const Entry& left, const Entry& right) {
        return CompareRegistrationKeys(*left.item, *right.item) < 0;
    });
    Tidy();
    // Of what is declared once and for the first time, the last record is a bound.
    size_t before = 0;
    if (!records_.empty() &&
        CompareRegistrationKeys(records_.back().item, *entries.front().item) < 0)
        before = records_.size();
    size_t kept = 0;
    for (const Entry& entry : entries) {
        before = LowerBound(*entry.item, before);
        const bool repeated =
            kept != 0 && CompareRegistrationKeys(*entries[kept - 1].item, *entry.item) == 0;
        if (repeated || Holds(before, *entry.item))
            refused.push_back(entry.item);
        else
            entries[kept++] = {entry.item, before};
    }
    entries.resize(kept);
    std::sort(refused.begin(), refused.end());
    Insert(entries);
    return refused;
}

// Moves what is behind each new record to its place, from the back.
void RegistrationTable::Insert(const std::vector<Entry>& entries) {
    if (entries.empty()) return;
    size_t from = records_.size();
    size_t to = from + entries.size();
    if (records_.capacity() < to) records_.reserve(std::max(to, from * 2));
    records_.resize(to);
    for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
        while (from > entry->before) records_[--to] = std::move(records_[--from]);
        records_[--to] = Record{*entry->item, Record::kPending};
    }
    pending_ += entries.size();
    ++version_;
}

bool RegistrationTable::Next(Place& place) const {
    size_t index = 0;
    if (pending_ == 0) return false;
    if (place.begun) {
        index = place.version == version_ ? place.index : LowerBound(place.item, 0);
        if (Holds(index, place.item)) ++index;
    }
    while (index < records_.size() && records_[index].state != Record::kPending) ++index;
    if (index == records_.size()) return false;
    place = Place{records_[index].item, index, version_, true};
    return true;
}

void RegistrationTable::MarkRegistered(const Place& place) {
    const size_t index = place.version == version_ ? place.index : LowerBound(place.item, 0);
    if (!Holds(index, place.item) || records_[index].state != Record::kPending) return;
    records_[index].state = Record::kRegistered;
    --pending_;
}

bool RegistrationTable::TakeOut(const PluginConfigItem& item, PluginConfigItem& taken,
                                bool& was_registered) {
    size_t index = next_out_;
    if (!Holds(index, item)) index = LowerBound(item, 0);
    if (!Holds(index, item) || records_[index].state == Record::kGone) return false;
    Record& record = records_[index];
    taken = record.item;
    was_registered = record.state == Record::kRegistered;
    if (!was_registered) --pending_;
    record.state = Record::kGone;
    ++gaps_;
    next_out_ = index + 1;
    return true;
}

void RegistrationTable::Tidy() {
    next_out_ = 0;
    if (gaps_ == 0) return;
    records_.erase(
        std::remove_if(records_.begin(), records_.end(),
                       [](const Record& record) { return record.state == Record::kGone; }),
        records_.end());
    gaps_ = 0;
    ++version_;
}

std::vector<RegistrationTable::Record> RegistrationTable::TakeAll() {
    std::vector<Record> all;
    all.swap(records_);
    pending_ = 0;
    gaps_ = 0;
    next_out_ = 0;
    ++version_;
    return all;
}
