// The coordinator's change handling: what one scan of the monitor found becomes registrations
// and unregistrations.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>

#include "common/Contain.h"
#include "common/MessageFormat.h"
#include "vessa/vessa.h"
#include "vessa2/PluginCoordinator.h"

namespace {

struct FreeMemory {
    void operator()(void* memory) const { std::free(memory); }
};
using FkeyEntry = char[TARNET_FKEY_SIZE];

std::string FkeyOf(const FkeyEntry& entry) {
    const void* const zero = std::memchr(entry, '\0', sizeof entry);
    const size_t length = zero != nullptr
                              ? static_cast<size_t>(static_cast<const char*>(zero) - entry)
                              : sizeof entry;
    return std::string(entry, length);
}

// The first item of each fkey.
std::map<std::string, const PluginConfigItem*> IndexByFkey(const PluginConfigList& list) {
    std::map<std::string, const PluginConfigItem*> index;
    for (const PluginConfigItem& item : list) index.emplace(item.fkey, &item);
    return index;
}

}  // namespace

void PluginCoordinator::ConfigFileChanged(const ConfigMonitor&,
                                          const std::list<ConfigMonitor::NotifyInfo>& changes) {
    LOG_PLAIN(kTrace, "config file changed begin");
    if (!running_.load()) {
        LOG_PLAIN(kInformation, "plugin coordinator already shutdown, config change igored");
        return;
    }
    PluginConfigList to_register;
    PluginConfigList to_unregister;
    for (const ConfigMonitor::NotifyInfo& change : changes) {
        if (Contain([&] { CollectChange(change, to_register, to_unregister); })) continue;
        LOG_FORMAT(kWarning,
                   "read plugin list config failed, ignored, file path {0}, notify type {1}",
                   change.path, change.notify_type);
    }
    TOVA_MutexGuard guard(mutex_);
    if (!running_.load()) {
        LOG_PLAIN(kInformation, "plugin coordinator already shutdown, config change igored");
        return;
    }
    TakeUpLeftOvers(to_register, to_unregister);
    ApplyChanges(to_register, to_unregister);
    LOG_PLAIN(kTrace, "config file changed end");
}

// One change of a list file, without the coordinator's mutex: files are read here.
void PluginCoordinator::CollectChange(const ConfigMonitor::NotifyInfo& change,
                                      PluginConfigList& to_register,
                                      PluginConfigList& to_unregister) {
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
        to_unregister.splice(to_unregister.end(), stored);
        TOVA_MutexGuard guard(config_mutex_);
        config_collection_.erase(change.path);
        return;
    }
    CollectList(change.path, type, stored, to_register, to_unregister);
}

// Reads an added or changed list file; of an added one nothing is stored. What cannot be read
// leaves everything as it was.
void PluginCoordinator::CollectList(const std::string& path, int32_t type,
                                    const PluginConfigList& stored, PluginConfigList& to_register,
                                    PluginConfigList& to_unregister) {
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
    StoreList(path, current);
    to_register.splice(to_register.end(), added);
    to_unregister.splice(to_unregister.end(), removed);
}

bool PluginCoordinator::FindStoredList(const std::string& path, PluginConfigList& list) {
    TOVA_MutexGuard guard(config_mutex_);
    const auto found = config_collection_.find(path);
    if (found == config_collection_.end()) return false;
    list = found->second;
    return true;
}

// Swaps the list in, so that the former one is destroyed outside the mutex.
void PluginCoordinator::StoreList(const std::string& path, PluginConfigList& list) {
    TOVA_MutexGuard guard(config_mutex_);
    config_collection_[path].swap(list);
}

void PluginCoordinator::FindPluginChangedInConfig(const PluginConfigList& current,
                                                  const PluginConfigList& cached,
                                                  PluginConfigList& added,
                                                  PluginConfigList& removed) {
    const auto cached_index = IndexByFkey(cached);
    const auto current_index = IndexByFkey(current);
    for (const PluginConfigItem& item : current) {
        const auto found = cached_index.find(item.fkey);
        if (found == cached_index.end()) {
            added.push_back(item);
        } else if (found->second->file_path != item.file_path) {
            // Kept: the plug-in stays registered with its old module.
            LOG_FORMAT(
                kWarning,
                "config file changed, but not fkey, fkey {0}, cur file path {1}, cached file "
                "path {2}",
                item.fkey, item.file_path, found->second->file_path);
        }
    }
    for (const PluginConfigItem& item : cached) {
        if (current_index.count(item.fkey) == 0) removed.push_back(item);
    }
}

// What an earlier round had no memory for comes first; an item that goes now is not entered.
void PluginCoordinator::TakeUpLeftOvers(PluginConfigList& to_register,
                                        PluginConfigList& to_unregister) {
    for (const PluginConfigItem& gone : to_unregister) {
        not_entered_.remove_if([&](const PluginConfigItem& item) {
            return item.fkey == gone.fkey && item.config_file_path == gone.config_file_path;
        });
    }
    to_register.splice(to_register.begin(), not_entered_);
    to_unregister.splice(to_unregister.begin(), not_taken_out_);
}

// What goes, goes first; further fkeys go before the plug-ins that announce them and come
// after them. Each step stands for itself.
void PluginCoordinator::ApplyChanges(PluginConfigList& to_register,
                                     PluginConfigList& to_unregister) {
    PluginConfigList not_entered;
    PluginConfigList not_taken_out;
    Contain([&] {
        PluginConfigList mapped_out;
        StatisticsLoadFkeys(to_unregister, mapped_out);
        UnregisterItems(mapped_out, not_taken_out);
    });
    Contain([&] { UnregisterItems(to_unregister, not_taken_out); });
    Contain([&] { RegisterItems(to_register, not_entered); });
    Contain([&] {
        PluginConfigList mapped_in;
        StatisticsLoadFkeys(to_register, mapped_in);
        // Announced again when their plug-in is registered again, not before.
        PluginConfigList dropped;
        RegisterItems(mapped_in, dropped);
    });
    not_entered_.splice(not_entered_.end(), not_entered);
    not_taken_out_.splice(not_taken_out_.end(), not_taken_out);
}

void PluginCoordinator::StatisticsLoadFkeys(const PluginConfigList& list,
                                            PluginConfigList& mapped) {
    for (const PluginConfigItem& item : list) {
        if (item.delay_load || !item.load_fkeys) continue;
        Contain([&] { AppendMappedFkeys(item, mapped); });
    }
}

// Asks the module for the further fkeys of one item. Nothing that it says is trusted.
void PluginCoordinator::AppendMappedFkeys(const PluginConfigItem& item, PluginConfigList& mapped) {
    int announced = 0;
    if (const int failure = provider_.GetPluginMapFkeys(item.fkey, nullptr, &announced))
        LOG_FORMAT(kError, "get plugin map fkeys failed {0}/{0:X}, fkey {1} ", failure, item.fkey);
    if (announced < 1) return;
    const auto entries = std::unique_ptr<FkeyEntry, FreeMemory>(
        static_cast<FkeyEntry*>(std::calloc(static_cast<size_t>(announced), sizeof(FkeyEntry))));
    if (entries == nullptr) {
        const int failure = VESSA_ERR_OUT_OF_MEMORY;
        LOG_FORMAT(kError, "get plugin map fkeys failed {0}/{0:X}, fkey {1} ", failure, item.fkey);
        return;
    }
    int filled = announced;
    provider_.GetPluginMapFkeys(item.fkey, entries.get(), &filled);
    const int usable = std::min(filled, announced);
    for (int i = 0; i < usable; ++i) {
        PluginConfigItem further = item;
        further.fkey = FkeyOf(entries.get()[i]);
        further.load_fkeys = false;
        mapped.push_back(further);
    }
}
