#include "OwnModel.h"

#include <algorithm>

#include "Counters.h"
#include "Random.h"

namespace vessa_random {
namespace {

const Item* FindKey(const std::vector<Item>& items, const std::string& key) {
    for (const Item& item : items) {
        if (item.key == key) return &item;
    }
    return nullptr;
}

std::string RegistrationKey(const Item& item) {
    return item.key + "_" + item.list;
}

}  // namespace

std::string FileName(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

void OwnModel::PutList(const std::string& path, const DiskList& list) {
    disk_lists_[path] = list;
    changed_lists_.insert(path);
}

void OwnModel::RemoveList(const std::string& path) {
    if (disk_lists_.erase(path) != 0) changed_lists_.insert(path);
}

void OwnModel::Round(LoadFault fault) {
    Changes changes;
    for (const std::string& path : changed_lists_) CollectList(path, fault, changes);
    changed_lists_.clear();
    // What goes, goes first; announced keys go before their plug-in, and come after it.
    Unregister(Announced(changes.go));
    Unregister(changes.go);
    Enter(changes.come);
    RegisterPending(fault);
    const std::vector<Item> announced = Announced(changes.come);
    Enter(announced);
    RegisterPending(fault);
    if (!announced.empty()) Count(kAnnounced);
}

void OwnModel::CollectList(const std::string& path, LoadFault fault, Changes& changes) {
    const auto stored = stored_.find(path);
    const bool known = stored != stored_.end();
    const auto disk = disk_lists_.find(path);
    const bool planted = TheOptions().plant == "rule" && disk != disk_lists_.end();
    if (disk == disk_lists_.end() || (planted && !disk->second.readable)) {
        if (!known) return;
        changes.go.insert(changes.go.end(), stored->second.begin(), stored->second.end());
        stored_.erase(stored);
        return;
    }
    // What cannot be read leaves what was in force.
    if (!disk->second.readable || fault == LoadFault::kAccess) return;
    const std::vector<Item>& now = disk->second.items;
    const std::vector<Item> before = known ? stored->second : std::vector<Item>();
    for (const Item& item : now) {
        if (before.empty() || FindKey(before, item.key) == nullptr) changes.come.push_back(item);
    }
    for (const Item& item : before) {
        if (FindKey(now, item.key) == nullptr) changes.go.push_back(item);
    }
    stored_[path] = now;
}

// Asks each item's key, whatever plug-in is registered under it.
std::vector<Item> OwnModel::Announced(const std::vector<Item>& items) const {
    std::vector<Item> announced;
    for (const Item& item : items) {
        if (item.delayed || !item.announces) continue;
        const Record* const record = Find(item.key);
        if (record == nullptr || record->unregistered || !record->loaded) continue;
        for (const std::string& key : loaded_.at(record->path).file.keys) {
            Item more = item;
            more.key = key;
            announced.push_back(more);
        }
    }
    return announced;
}

void OwnModel::Enter(const std::vector<Item>& items) {
    for (const Item& item : items) table_.try_emplace(RegistrationKey(item), Registration{item});
}

void OwnModel::RegisterPending(LoadFault fault) {
    for (auto& entry : table_) {
        Registration& registration = entry.second;
        if (!registration.registered) registration.registered = Register(registration.item, fault);
    }
}

bool OwnModel::IsRefused(const Item& item) const {
    for (const auto& [key, record] : records_) {
        const bool concerns = key == item.key || FileName(record.path) == FileName(item.path);
        if (concerns && record.path != item.path) return true;
    }
    return false;
}

bool OwnModel::Register(const Item& item, LoadFault fault) {
    if (IsRefused(item)) {
        Count(kConflict);
        return false;
    }
    Record& record = records_[item.key];
    if (record.unregistered) Count(kRegisteredAgain);
    record.path = item.path;
    record.unregistered = false;
    if (!item.delayed) Load(record, fault);
    return true;
}

void OwnModel::Unregister(const std::vector<Item>& items) {
    for (const Item& item : items) {
        const auto found = table_.find(RegistrationKey(item));
        if (found == table_.end()) continue;
        const bool registered = found->second.registered;
        table_.erase(found);
        if (registered) UnregisterKey(item.key);
    }
}

void OwnModel::UnregisterKey(const std::string& key) {
    const auto found = records_.find(key);
    if (found == records_.end()) return;
    found->second.unregistered = true;
    Forget(key);
}

void OwnModel::Stop() {
    for (const auto& entry : table_) {
        if (entry.second.registered) UnregisterKey(entry.second.item.key);
    }
    table_.clear();
    stored_.clear();
}

void OwnModel::Restart() {
    changed_lists_.clear();
    for (const auto& entry : disk_lists_) changed_lists_.insert(entry.first);
    Round();
}

int OwnModel::Load(Record& record, LoadFault fault) {
    if (record.loaded) return VESSA_OK;
    const auto taken = taken_names_.find(FileName(record.path));
    if (taken != taken_names_.end() && taken->second != record.path)
        return VESSA_ERR_PLUGIN_CONFLICT;
    const auto loaded = loaded_.find(record.path);
    if (loaded == loaded_.end()) {
        const ModuleFile* const file = FileAt(record.path);
        const int result = file == nullptr ? VESSA_ERR_NO_MODULE_FILE : file->LoadResult();
        if (file == nullptr || fault == LoadFault::kAccess) return VESSA_ERR_NO_MODULE_FILE;
        if (result == VESSA_ERR_MODULE_LOAD || fault == LoadFault::kLoad)
            return VESSA_ERR_MODULE_LOAD;
        if (fault == LoadFault::kSymbol) return VESSA_ERR_NO_INTERFACE;
        if (result != VESSA_OK) return result;
        loaded_[record.path].file = *file;
    }
    ++loaded_[record.path].users;
    record.loaded = true;
    return VESSA_OK;
}

void OwnModel::Unload(Record& record) {
    if (!record.loaded) return;
    record.loaded = false;
    const auto loaded = loaded_.find(record.path);
    if (--loaded->second.users > 0) return;
    if (loaded->second.file.kind == ModuleKind::kUninitFails) {
        Count(kFileNameTaken);
        taken_names_[FileName(record.path)] = record.path;
    }
    loaded_.erase(loaded);
}

bool OwnModel::WouldLoad(const std::string& key) const {
    const Record* const record = Find(key);
    return record != nullptr && !record->unregistered && !record->loaded &&
           loaded_.count(record->path) == 0;
}

int OwnModel::Reach(const std::string& key, LoadFault fault) {
    const auto found = records_.find(key);
    if (found == records_.end() || found->second.unregistered) return VESSA_ERR_NOT_REGISTERED;
    return Load(found->second, fault);
}

void OwnModel::AdoptLoad(const std::string& key, bool loaded, uint64_t serial) {
    Record& record = records_.at(key);
    if (!loaded || record.loaded) return;
    const ModuleFile* const file = FileAt(record.path);
    if (file == nullptr || file->serial != serial) return;
    Load(record, LoadFault::kNone);
}

uint64_t OwnModel::LoadedSerial(const std::string& key) const {
    const Record* const record = Find(key);
    const auto loaded = loaded_.find(record->path);
    return loaded == loaded_.end() ? 0 : loaded->second.file.serial;
}

bool OwnModel::RemoveInstance(const std::string& key) {
    Record& record = records_.at(key);
    --record.instances;
    return record.unregistered && record.instances == 0;
}

void OwnModel::Forget(const std::string& key) {
    const auto found = records_.find(key);
    if (found == records_.end() || !found->second.unregistered || found->second.instances > 0)
        return;
    Unload(found->second);
    records_.erase(found);
}

const OwnModel::Record* OwnModel::Find(const std::string& key) const {
    const auto found = records_.find(key);
    return found != records_.end() ? &found->second : nullptr;
}

bool OwnModel::HasPending() const {
    return std::any_of(table_.begin(), table_.end(),
                       [](const auto& entry) { return !entry.second.registered; });
}

const Item* OwnModel::Declared(const std::string& key) const {
    for (const auto& entry : stored_) {
        if (const Item* const item = FindKey(entry.second, key)) return item;
    }
    return nullptr;
}

std::vector<std::string> OwnModel::AllKeys() const {
    std::vector<std::string> keys;
    for (const auto& entry : stored_) {
        for (const Item& item : entry.second) keys.push_back(item.key);
    }
    return keys;
}

std::vector<std::pair<std::string, uint64_t>> OwnModel::LoadedModules() const {
    std::vector<std::pair<std::string, uint64_t>> modules;
    for (const auto& [path, loaded] : loaded_) modules.emplace_back(path, loaded.file.serial);
    return modules;
}

const ModuleFile* OwnModel::FileAt(const std::string& path) const {
    const auto found = disk_modules_.find(path);
    return found != disk_modules_.end() ? &found->second : nullptr;
}

}  // namespace vessa_random
