#include "vessa2/PluginTable.h"

#include <algorithm>
#include <memory>
#include <vector>

void PluginTable::Append(Chain& chain, PluginRecord* record) {
    record->previous_ = chain.last;
    record->next_ = nullptr;
    if (chain.last == nullptr) {
        chain.first = record;
    } else {
        chain.last->next_ = record;
        chain.is_in_order = chain.is_in_order && chain.last->fkey() < record->fkey();
    }
    chain.last = record;
}

void PluginTable::Unlink(Chain& chain, PluginRecord* record) {
    (record->previous_ != nullptr ? record->previous_->next_ : chain.first) = record->next_;
    (record->next_ != nullptr ? record->next_->previous_ : chain.last) = record->previous_;
}

void PluginTable::Sort(Chain& chain) {
    std::vector<PluginRecord*> records;
    for (PluginRecord* record = chain.first; record != nullptr; record = record->next_)
        records.push_back(record);
    std::sort(records.begin(), records.end(),
              [](const PluginRecord* left, const PluginRecord* right) {
                  return left->fkey() < right->fkey();
              });
    chain.first = nullptr;
    chain.last = nullptr;
    chain.is_in_order = true;
    for (PluginRecord* const record : records) Append(chain, record);
}

void PluginTable::Add(PluginRecord* record) {
    Chain* chain = by_filename_.Find(record->filename());
    std::unique_ptr<Chain> made;
    if (chain == nullptr) made = std::make_unique<Chain>(record->filename());
    by_key_.Add(record);
    if (made != nullptr) {
        try {
            by_filename_.Add(made.get());
        } catch (...) {
            by_key_.Take(record->fkey().view());
            throw;
        }
        chain = made.release();
    }
    Append(*chain, record);
}

void PluginTable::Take(PluginRecord* record) {
    by_key_.Take(record->fkey().view());
    Chain* const chain = by_filename_.Find(record->filename());
    Unlink(*chain, record);
    if (chain->first != nullptr) return;
    by_filename_.Take(chain->filename);
    delete chain;
}

const PluginRecord* PluginTable::AnyWithFileName(std::string_view filename) const {
    const Chain* const chain = by_filename_.Find(filename);
    return chain != nullptr ? chain->first : nullptr;
}

void PluginTable::Clear() {
    by_key_.ForEach([](PluginRecord& record) { delete &record; });
    by_filename_.ForEach([](Chain& chain) { delete &chain; });
    by_key_.Clear();
    by_filename_.Clear();
    without_record_.clear();
}
