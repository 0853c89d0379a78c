// The coordinator's change handling: what one scan of the monitor found becomes registrations
// and unregistrations.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <string_view>
#include <vector>

#include "common/Contain.h"
#include "common/MessageFormat.h"
#include "common/RunSort.h"
#include "common/SyncPoint.h"
#include "vessa/vessa.h"
#include "vessa2/PluginCoordinator.h"

namespace {

struct FreeMemory {
    void operator()(void* memory) const { std::free(memory); }
};
using FkeyEntry = char[TARNET_FKEY_SIZE];

std::string_view FkeyOf(const FkeyEntry& entry) {
    const void* const zero = std::memchr(entry, '\0', sizeof entry);
    const size_t length = zero != nullptr
                              ? static_cast<size_t>(static_cast<const char*>(zero) - entry)
                              : sizeof entry;
    return std::string_view(entry, length);
}

// The first item of each fkey of a list that outlives it. What is looked for in the order of
// the fkeys is found without a search.
class FkeyIndex {
  public:
    explicit FkeyIndex(const PluginConfigList& list) {
        items_.reserve(list.size());
        for (const PluginConfigItem& item : list) items_.push_back(&item);
        SortByRuns(items_, [](const PluginConfigItem* left, const PluginConfigItem* right) {
            return left->fkey() < right->fkey();
        });
    }

    // Null: there is none.
    const PluginConfigItem* Find(const std::string& fkey) {
        const auto is_below = [](const PluginConfigItem* item, const std::string& key) {
            return item->fkey() < key;
        };
        const bool is_next = next_ < items_.size() && items_[next_]->fkey() == fkey &&
                             (next_ == 0 || items_[next_ - 1]->fkey() != fkey);
        const auto found = is_next ? items_.begin() + static_cast<std::ptrdiff_t>(next_)
                                   : std::lower_bound(items_.begin(), items_.end(), fkey, is_below);
        if (found == items_.end() || (*found)->fkey() != fkey) return nullptr;
        next_ = static_cast<size_t>(found - items_.begin()) + 1;
        return *found;
    }

  private:
    std::vector<const PluginConfigItem*> items_;
    size_t next_ = 0;
};

void MoveTo(PluginConfigList& list, PluginConfigList& items) {
    list.insert(list.end(), std::make_move_iterator(items.begin()),
                std::make_move_iterator(items.end()));
    items.clear();
}

}  // namespace

void PluginCoordinator::ConfigFileChanged(const ConfigMonitor&,
                                          const std::list<ConfigMonitor::NotifyInfo>& changes) {
    LOG_PLAIN(kTrace, "config file changed begin");
    if (!running_.load()) {
        LOG_PLAIN(kInformation, "plugin coordinator already shutdown, config change igored");
        return;
    }
    VESSA_SYNC_POINT("coordinator.round.begins", this);
    Round round;
    round.left_over = CountLeftOvers();
    for (const ConfigMonitor::NotifyInfo& change : changes) {
        if (Contain([&] { CollectChange(change, round); })) continue;
        LOG_FORMAT(kWarning,
                   "read plugin list config failed, ignored, file path {0}, notify type {1}",
                   change.path, change.notify_type);
    }
    VESSA_SYNC_POINT("coordinator.round.asks", this);
    TOVA_MutexGuard guard(mutex_);
    VESSA_SYNC_POINT("coordinator.round.has_mutex", this);
    if (!running_.load()) {
        LOG_PLAIN(kInformation, "plugin coordinator already shutdown, config change igored");
        return;
    }
    TakeUpLeftOvers(round);
    ApplyChanges(round);
    VESSA_SYNC_POINT("coordinator.round.done", this);
    LOG_PLAIN(kTrace, "config file changed end");
}

// One change of a list file, without the coordinator's mutex: files are read here.
void PluginCoordinator::CollectChange(const ConfigMonitor::NotifyInfo& change, Round& round) {
    PluginConfigList stored;
    const bool known = FindStoredList(change.path, stored);
    int32_t type = change.notify_type;
    if (!known && type == ConfigMonitor::kDeleted) {
        LOG_FORMAT(kWarning,
                   "config collection does not contains config file, but notify type is delete, "
                   "config file path {0}",
                   change.path);
        return;
    }
    if (!known && type == ConfigMonitor::kChanged) {
        LOG_FORMAT(kWarning,
                   "config collection does not contains config file, but notify type is changed, "
                   "config file path {0}",
                   change.path);
        type = ConfigMonitor::kAdded;
    }
    if (known && type == ConfigMonitor::kAdded) {
        LOG_FORMAT(kWarning,
                   "config collection contains config file, but notify type is added, config file "
                   "path {0}",
                   change.path);
        type = ConfigMonitor::kChanged;
    }
    if (type == ConfigMonitor::kDeleted) {
        round.to_unregister.MakeRoom(stored.size());
        MoveTo(round.to_unregister, stored);
        TOVA_MutexGuard guard(config_mutex_);
        config_collection_.erase(change.path);
        return;
    }
    CollectList(change.path, type, stored, round);
}

// Reads an added or changed list file; of an added one nothing is stored. What cannot be read
// leaves everything as it was.
void PluginCoordinator::CollectList(const std::string& path, int32_t type,
                                    const PluginConfigList& stored, Round& round) {
    PluginConfigList current;
    if (!ReadPluginList(path, current)) {
        LOG_FORMAT(kWarning,
                   "read plugin list config failed, ignored, file path {0}, notify type {1}", path,
                   type);
        return;
    }
    PluginConfigList added;
    PluginConfigList removed;
    FindPluginChangedInConfig(current, stored, added, removed);
    // Once the list is stored nothing of the change may be lost.
    round.to_register.MakeRoom(added.size() + round.left_over);
    round.to_unregister.MakeRoom(removed.size());
    StoreList(path, current);
    MoveTo(round.to_register, added);
    MoveTo(round.to_unregister, removed);
}

bool PluginCoordinator::FindStoredList(const std::string& path, PluginConfigList& list) {
    TOVA_MutexGuard guard(config_mutex_);
    // A first scan comes mostly in the order of the paths.
    if (config_collection_.empty() || config_collection_.rbegin()->first < path) return false;
    const auto found = config_collection_.find(path);
    if (found == config_collection_.end()) return false;
    list = found->second;
    return true;
}

// Swaps the list in, so that the former one is destroyed outside the mutex.
void PluginCoordinator::StoreList(const std::string& path, PluginConfigList& list) {
    TOVA_MutexGuard guard(config_mutex_);
    config_collection_.try_emplace(config_collection_.end(), path)->second.swap(list);
}

size_t PluginCoordinator::CountLeftOvers() {
    TOVA_MutexGuard guard(mutex_);
    return not_entered_.size();
}

void PluginCoordinator::FindPluginChangedInConfig(const PluginConfigList& current,
                                                  const PluginConfigList& cached,
                                                  PluginConfigList& added,
                                                  PluginConfigList& removed) {
    if (cached.empty()) {
        added.insert(added.end(), current.begin(), current.end());
        return;
    }
    FkeyIndex cached_index(cached);
    FkeyIndex current_index(current);
    for (const PluginConfigItem& item : current) {
        const PluginConfigItem* const found = cached_index.Find(item.fkey());
        if (found == nullptr) {
            added.push_back(item);
        } else if (found->file_path() != item.file_path()) {
            // Kept: the plug-in stays registered with its old module.
            LOG_FORMAT(
                kWarning,
                "config file changed, but not fkey, fkey {0}, cur file path {1}, cached file "
                "path {2}",
                item.fkey(), item.file_path(), found->file_path());
        }
    }
    for (const PluginConfigItem& item : cached) {
        if (current_index.Find(item.fkey()) == nullptr) removed.push_back(item);
    }
}

// What an earlier round had no memory for comes first; an item that goes now is not entered.
// Nothing is allocated: to_register is empty or has the room.
void PluginCoordinator::TakeUpLeftOvers(Round& round) {
    if (not_entered_.empty()) return;
    for (const PluginConfigItem& gone : round.to_unregister) {
        const auto is_gone = [&](const PluginConfigItem& item) {
            return item.fkey() == gone.fkey() && item.config_file_path() == gone.config_file_path();
        };
        not_entered_.erase(std::remove_if(not_entered_.begin(), not_entered_.end(), is_gone),
                           not_entered_.end());
    }
    if (round.to_register.empty()) {
        round.to_register.swap(not_entered_);
        return;
    }
    round.to_register.insert(round.to_register.begin(),
                             std::make_move_iterator(not_entered_.begin()),
                             std::make_move_iterator(not_entered_.end()));
    not_entered_.clear();
}

// What goes, goes first; further fkeys go before the plug-ins that announce them and come
// after them. Each step stands for itself.
void PluginCoordinator::ApplyChanges(Round& round) {
    Contain([&] {
        PluginConfigList mapped_out;
        StatisticsLoadFkeys(round.to_unregister, mapped_out);
        UnregisterPluginList(mapped_out);
    });
    UnregisterPluginList(round.to_unregister);
    if (!EnterItems(round.to_register)) round.to_register.swap(not_entered_);
    RegisterPending();
    // Announced again when their plug-in is registered again, not before.
    Contain([&] {
        PluginConfigList mapped_in;
        StatisticsLoadFkeys(round.to_register, mapped_in);
        RegisterPluginList(mapped_in);
    });
}

void PluginCoordinator::StatisticsLoadFkeys(const PluginConfigList& list,
                                            PluginConfigList& mapped) {
    for (const PluginConfigItem& item : list) {
        if (item.delay_load() || !item.load_fkeys()) continue;
        Contain([&] { AppendMappedFkeys(item, mapped); });
    }
}

// Asks the module for the further fkeys of one item. Nothing that it says is trusted.
void PluginCoordinator::AppendMappedFkeys(const PluginConfigItem& item, PluginConfigList& mapped) {
    int announced = 0;
    if (const int failure = provider_.GetPluginMapFkeys(item.fkey(), nullptr, &announced))
        LOG_FORMAT(kError, "get plugin map fkeys failed {0}/{0:X}, fkey {1} ", failure,
                   item.fkey());
    if (announced < 1) return;
    const auto entries = std::unique_ptr<FkeyEntry, FreeMemory>(
        static_cast<FkeyEntry*>(std::calloc(static_cast<size_t>(announced), sizeof(FkeyEntry))));
    if (entries == nullptr) {
        const int failure = VESSA_ERR_OUT_OF_MEMORY;
        LOG_FORMAT(kError, "get plugin map fkeys failed {0}/{0:X}, fkey {1} ", failure,
                   item.fkey());
        return;
    }
    int filled = announced;
    provider_.GetPluginMapFkeys(item.fkey(), entries.get(), &filled);
    const int usable = std::min(filled, announced);
    for (int i = 0; i < usable; ++i) mapped.push_back(item.WithFkey(FkeyOf(entries.get()[i])));
}
