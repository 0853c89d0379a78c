#include "vessa2/PluginCoordinator.h"

#include <new>

#include "common/Contain.h"
#include "common/MessageFormat.h"
#include "common/NormalizePath.h"

namespace {

std::string RegistrationKey(const PluginConfigItem& item) {
    return item.fkey + "_" + item.config_file_path;
}

bool StartsWith(const std::string& text, const char* prefix) {
    return text.rfind(prefix, 0) == 0;
}

// A path that begins with "./" or "../" against a folder that ends in "/". Empty when it climbs
// above the first folder.
std::string ResolvePath(const std::string& folder, const std::string& relative) {
    std::string base = folder.substr(0, folder.size() - 1);
    size_t at = StartsWith(relative, "./") ? 2 : 0;
    for (; relative.compare(at, 3, "../") == 0; at += 3) {
        const size_t slash = base.rfind('/');
        if (slash == std::string::npos) return std::string();
        base.resize(slash);
    }
    return base + "/" + relative.substr(at);
}

}  // namespace

bool PluginCoordinator::Run() {
    LOG_PLAIN(kInformation, "invode Run func");
    if (plugin_root_.empty()) {
        LOG_PLAIN(kError, "plugin_root_ should not be empty");
        return false;
    }
    if (config_filename_.empty()) {
        LOG_PLAIN(kError, "config_filename_ should not be empty");
        return false;
    }
    // Before any lock: a module that is loaded by the first scan may start the library again.
    if (running_.load()) {
        LOG_PLAIN(kWarning, "already run");
        return true;
    }
    TOVA_MutexGuard run_guard(run_mutex_);
    TOVA_MutexGuard guard(mutex_);
    if (running_.load()) {
        LOG_PLAIN(kWarning, "already run");
        return true;
    }
    // Set before the monitor starts, so that the first scan's changes are accepted; taken back
    // also when the thread is cancelled in a module meanwhile.
    struct Undo {
        std::atomic<bool>& running;
        bool started;
        ~Undo() {
            if (!started) running.store(false);
        }
    } run{running_, false};
    running_.store(true);
    Contain([&] { run.started = StartMonitor(); });
    if (!run.started) {
        running_.store(false);
        LOG_FORMAT(kError, "start config monitor failed, plugin root {0}, config filename {1}",
                   plugin_root_, config_filename_);
        return false;
    }
    LOG_FORMAT(kInformation,
               "run PluginCoordinator succeeded, plugin root {0}, config filename {1}",
               plugin_root_, config_filename_);
    return true;
}

bool PluginCoordinator::StartMonitor() {
    using Target = ClassDelegate<void (PluginCoordinator::*)(
        const ConfigMonitor&, const std::list<ConfigMonitor::NotifyInfo>&)>;
    auto* const fresh = new Target(&PluginCoordinator::ConfigFileChanged, this);
    ConfigMonitor::Receiver::Target target;
    target.Reset(fresh);
    if (target.IsNull()) {
        delete fresh;
        return false;
    }
    ConfigMonitor::Receiver receiver;
    receiver.Set(target);
    return monitor_.Start(plugin_root_, config_filename_, receiver);
}

bool PluginCoordinator::Shutdown() {
    LOG_PLAIN(kInformation, "invoke Shutdown func");
    if (!running_.load()) {
        LOG_PLAIN(kWarning, "already shutdown");
        return true;
    }
    TOVA_MutexGuard run_guard(run_mutex_);
    if (!running_.load()) {
        LOG_PLAIN(kWarning, "already shutdown");
        return true;
    }
    {
        TOVA_MutexGuard guard(mutex_);
        running_.store(false);
    }
    // The scanning thread takes the mutex, finds that nothing runs any more, and ends.
    const bool stopped = monitor_.Stop();
    TOVA_MutexGuard guard(mutex_);
    if (!stopped) {
        running_.store(true);
        LOG_FORMAT(kError, "stop config monitor failed, plugin root {0}, config filename {1}",
                   plugin_root_, config_filename_);
        return false;
    }
    {
        // Modules may ask for their attributes until the last one is unloaded.
        struct ForgetLists {
            PluginCoordinator& coordinator;
            ~ForgetLists() {
                TOVA_MutexGuard config_guard(coordinator.config_mutex_);
                coordinator.config_collection_.clear();
            }
        } const forget{*this};
        UnregisterAll();
    }
    LOG_FORMAT(kInformation,
               "shutdown PluginCoordinator succeeded, plugin root {0}, config filename {1}",
               plugin_root_, config_filename_);
    return true;
}

// Empties the tables first: modules run meanwhile and may come back in here, and nothing may
// be left if the thread is cancelled in one of them. A stop allocates nothing.
void PluginCoordinator::UnregisterAll() {
    std::map<std::string, RegisteredRecord> records;
    records.swap(registered_);
    unregistered_.clear();
    not_entered_.clear();
    not_taken_out_.clear();
    for (const auto& entry : records) {
        if (!entry.second.registered) continue;
        const PluginConfigItem& item = entry.second.item;
        int failure = 0;
        if (!Contain([&] { failure = provider_.UnregisterPlugin(item.fkey); })) continue;
        if (failure != 0)
            LOG_FORMAT(
                kWarning,
                "unregister plugin failed {0}/{0:X}, fkey {1}, file path {2}, delay load {3}",
                failure, item.fkey, item.file_path, item.delay_load);
        else
            LOG_FORMAT(kInformation,
                       "unregister plugin succeeded, fkey {0}, file path {1}, delay load {2}",
                       item.fkey, item.file_path, item.delay_load);
    }
}

bool PluginCoordinator::ReadPluginList(const std::string& config_file_path,
                                       PluginConfigList& list) {
    LOG_FORMAT(kDebug, "param config_file_path = {0}", config_file_path);
    if (!list.ParseXmlFile(config_file_path)) {
        LOG_FORMAT(kError, "read plugin list failed, config file path {0}", config_file_path);
        return false;
    }
    const std::string folder = FolderOf(NormalizePath(config_file_path)) + "/";
    for (PluginConfigItem& item : list) {
        // Kept: every other relative form is relative to the working folder.
        if (StartsWith(item.file_path, "./") || StartsWith(item.file_path, "../")) {
            item.file_path = ResolvePath(folder, item.file_path);
            LOG_FORMAT(kTrace, "Absolute_path={0}, current_path={1}", item.file_path, folder);
        }
        item.file_path = NormalizePath(item.file_path);
        item.config_file_path = config_file_path;
    }
    LOG_FORMAT(kDebug, "read plugin list succeeded", config_file_path, list);
    return true;
}

void PluginCoordinator::RegisterPluginList(const PluginConfigList& list) {
    PluginConfigList own = list;
    PluginConfigList left_over;
    RegisterItems(own, left_over);
}

// What there is no memory for goes from the list to left_over.
void PluginCoordinator::RegisterItems(PluginConfigList& list, PluginConfigList& left_over) {
    TOVA_MutexGuard guard(mutex_);
    for (auto next = list.begin(); next != list.end();) {
        const auto item = next++;
        try {
            EnterItem(*item);
        } catch (const std::bad_alloc&) {
            left_over.splice(left_over.end(), list, item);
        }
    }
    RegisterPending();
}

void PluginCoordinator::EnterItem(const PluginConfigItem& item) {
    const std::string key = RegistrationKey(item);
    const auto found = registered_.find(key);
    if (found != registered_.end()) {
        const PluginConfigItem& stored = found->second.item;
        LOG_FORMAT(
            kWarning,
            "plugin config conflict, fkey {0}, file path {1}, config file path {2}, registered "
            "fkey {3}, registered file path {4}, config file path {5}",
            item.fkey, item.file_path, item.config_file_path, stored.fkey, stored.file_path,
            stored.config_file_path);
        return;
    }
    const RegisteredRecord record{item, false};
    unregistered_.insert(key);
    try {
        registered_.emplace(key, record);
    } catch (const std::bad_alloc&) {
        unregistered_.erase(key);
        throw;
    }
}

// Every record that is not registered, in key order; one that is refused again stays.
void PluginCoordinator::RegisterPending() {
    std::string key;
    for (auto next = unregistered_.begin(); next != unregistered_.end();
         next = unregistered_.upper_bound(key)) {
        key = *next;
        try {
            RegisterRecord(key);
        } catch (const std::bad_alloc&) {
            // It stays unregistered and is tried again with the next change.
        }
    }
}

void PluginCoordinator::RegisterRecord(const std::string& key) {
    const PluginConfigItem item = registered_.at(key).item;
    const int failure = provider_.RegisterPlugin(item.fkey, item.file_path, item.delay_load);
    if (failure != 0) {
        LOG_FORMAT(
            kError,
            "register plugin failed {0}/{0:X}, fkey {1}, file path {2}, delay load {3}, config "
            "file path {4}",
            failure, item.fkey, item.file_path, item.delay_load, item.config_file_path);
        return;
    }
    LOG_FORMAT(
        kInformation,
        "register plugin succeeded, fkey {0}, file path {1}, delay load {2}, config file path "
        "{3}",
        item.fkey, item.file_path, item.delay_load, item.config_file_path);
    const auto record = registered_.find(key);
    if (record != registered_.end()) record->second.registered = true;
    unregistered_.erase(key);
}

void PluginCoordinator::UnregisterPluginList(const PluginConfigList& list) {
    PluginConfigList own = list;
    PluginConfigList left_over;
    UnregisterItems(own, left_over);
}

// A record that there is no memory to take out stays, as its plug-in does, and its item goes
// to left_over.
void PluginCoordinator::UnregisterItems(PluginConfigList& list, PluginConfigList& left_over) {
    TOVA_MutexGuard guard(mutex_);
    for (auto next = list.begin(); next != list.end();) {
        const auto item = next++;
        try {
            UnregisterItem(*item);
        } catch (const std::bad_alloc&) {
            left_over.splice(left_over.end(), list, item);
        }
    }
}

void PluginCoordinator::UnregisterItem(const PluginConfigItem& listed) {
    const std::string key = RegistrationKey(listed);
    const auto taken = registered_.extract(key);
    if (taken.empty()) return;
    unregistered_.erase(key);
    if (taken.mapped().registered) {
        const PluginConfigItem& item = taken.mapped().item;
        const int failure = provider_.UnregisterPlugin(item.fkey);
        if (failure != 0)
            LOG_FORMAT(
                kError,
                "unregister plugin failed {0}/{0:X}, fkey {1}, file path {2}, config file path "
                "{3}",
                failure, item.fkey, item.file_path, item.config_file_path);
        else
            LOG_FORMAT(
                kInformation,
                "unregister plugin succeeded, fkey {0}, file path {1}, delay load {2}, config "
                "file path {3}",
                item.fkey, item.file_path, item.delay_load, item.config_file_path);
    }
}

bool PluginCoordinator::FindPluginConfig(const char* fkey, PluginConfigItem& item) {
    TOVA_MutexGuard guard(config_mutex_);
    for (const auto& entry : config_collection_) {
        for (const PluginConfigItem& candidate : entry.second) {
            if (candidate.fkey != fkey) continue;
            item = candidate;
            return true;
        }
    }
    return false;
}

void PluginCoordinator::GetAllPluginConfigs(PluginConfigList& all) {
    TOVA_MutexGuard guard(config_mutex_);
    for (const auto& entry : config_collection_)
        all.insert(all.end(), entry.second.begin(), entry.second.end());
}

void PluginCoordinator::GetAllFkeys(std::vector<std::string>& fkeys) {
    TOVA_MutexGuard guard(config_mutex_);
    for (const auto& entry : config_collection_) {
        for (const PluginConfigItem& item : entry.second) fkeys.push_back(item.fkey);
    }
}
