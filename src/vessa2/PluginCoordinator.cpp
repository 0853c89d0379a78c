#include "vessa2/PluginCoordinator.h"

#include <new>

#include "common/Contain.h"
#include "common/MessageFormat.h"
#include "common/SyncPoint.h"
#include "vessa2/PluginListOrigin.h"

namespace {

// The texts are those of the list: items have only what became of them.
void LogResolvedPaths(const PluginConfigList& list, const PluginListOrigin& origin) {
    for (const PluginConfigItem& item : list) {
        const std::string_view file = StripBlanks(item.FindAttribute("file"));
        if (!PluginListOrigin::IsRelative(file)) continue;
        LOG_FORMAT(kTrace, "Absolute_path={0}, current_path={1}", origin.Resolve(file),
                   origin.folder());
    }
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
    VESSA_SYNC_POINT("coordinator.run.asks", this);
    TOVA_MutexGuard run_guard(run_mutex_);
    TOVA_MutexGuard guard(mutex_);
    VESSA_SYNC_POINT("coordinator.run.has_mutexes", this);
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
    VESSA_SYNC_POINT("coordinator.run.says_so", this);
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
    VESSA_SYNC_POINT("coordinator.shutdown.asks", this);
    TOVA_MutexGuard run_guard(run_mutex_);
    VESSA_SYNC_POINT("coordinator.shutdown.has_run_mutex", this);
    if (!running_.load()) {
        LOG_PLAIN(kWarning, "already shutdown");
        return true;
    }
    {
        TOVA_MutexGuard guard(mutex_);
        running_.store(false);
    }
    VESSA_SYNC_POINT("coordinator.shutdown.says_so", this);
    // The scanning thread takes the mutex, finds that nothing runs any more, and ends.
    const bool stopped = monitor_.Stop();
    VESSA_SYNC_POINT("coordinator.shutdown.stopped", this);
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
        VESSA_SYNC_POINT("coordinator.shutdown.unregistered", this);
    }
    LOG_FORMAT(kInformation,
               "shutdown PluginCoordinator succeeded, plugin root {0}, config filename {1}",
               plugin_root_, config_filename_);
    return true;
}

// Empties the tables first: modules run meanwhile and may come back in here, and nothing may
// be left if the thread is cancelled in one of them. A stop allocates nothing.
void PluginCoordinator::UnregisterAll() {
    const std::vector<RegistrationTable::Record> records = registered_.TakeAll();
    PluginConfigList().swap(not_entered_);
    for (const RegistrationTable::Record& record : records) {
        if (record.state != RegistrationTable::Record::kRegistered) continue;
        const PluginConfigItem& item = record.item;
        int failure = 0;
        if (!Contain([&] { failure = provider_.UnregisterPlugin(item.fkey()); })) continue;
        if (failure != 0)
            LOG_FORMAT(
                kWarning,
                "unregister plugin failed {0}/{0:X}, fkey {1}, file path {2}, delay load {3}",
                failure, item.fkey(), item.file_path(), item.delay_load());
        else
            LOG_FORMAT(kInformation,
                       "unregister plugin succeeded, fkey {0}, file path {1}, delay load {2}",
                       item.fkey(), item.file_path(), item.delay_load());
    }
}

bool PluginCoordinator::ReadPluginList(const std::string& config_file_path,
                                       PluginConfigList& list) {
    LOG_FORMAT(kDebug, "param config_file_path = {0}", config_file_path);
    PluginListOrigin origin(config_file_path);
    if (!list.ParseXmlFile(config_file_path, &origin)) {
        LOG_FORMAT(kError, "read plugin list failed, config file path {0}", config_file_path);
        return false;
    }
    if (LogEnabled(kTrace)) LogResolvedPaths(list, origin);
    LOG_FORMAT(kDebug, "read plugin list succeeded", config_file_path, list);
    return true;
}

void PluginCoordinator::RegisterPluginList(const PluginConfigList& list) {
    TOVA_MutexGuard guard(mutex_);
    EnterItems(list);
    RegisterPending();
}

// False: there is no memory for it, and nothing was entered.
bool PluginCoordinator::EnterItems(const PluginConfigList& list) {
    const auto report = [](const PluginConfigItem& item, const PluginConfigItem& stored) {
        LOG_FORMAT(
            kWarning,
            "plugin config conflict, fkey {0}, file path {1}, config file path {2}, registered "
            "fkey {3}, registered file path {4}, config file path {5}",
            item.fkey(), item.file_path(), item.config_file_path(), stored.fkey(),
            stored.file_path(), stored.config_file_path());
    };
    try {
        registered_.Enter(list, report);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

// Every record that is not registered, in key order; one that is refused again stays, and so
// does one that there is no memory for.
void PluginCoordinator::RegisterPending() {
    RegistrationTable::Place place;
    while (registered_.Next(place)) {
        try {
            RegisterRecord(place);
        } catch (...) {
            LetForcedUnwindingPass();
        }
    }
}

void PluginCoordinator::RegisterRecord(const RegistrationTable::Place& place) {
    const PluginConfigItem& item = place.item;
    const int failure = provider_.RegisterPlugin(item.fkey(), item.file_path(), item.delay_load());
    if (failure != 0) {
        LOG_FORMAT(
            kError,
            "register plugin failed {0}/{0:X}, fkey {1}, file path {2}, delay load {3}, config "
            "file path {4}",
            failure, item.fkey(), item.file_path(), item.delay_load(), item.config_file_path());
        return;
    }
    LOG_FORMAT(
        kInformation,
        "register plugin succeeded, fkey {0}, file path {1}, delay load {2}, config file path "
        "{3}",
        item.fkey(), item.file_path(), item.delay_load(), item.config_file_path());
    VESSA_SYNC_POINT("coordinator.item.registered", this);
    registered_.MarkRegistered(place);
}

void PluginCoordinator::UnregisterPluginList(const PluginConfigList& list) {
    TOVA_MutexGuard guard(mutex_);
    for (const PluginConfigItem& item : list) {
        try {
            UnregisterItem(item);
        } catch (...) {
            LetForcedUnwindingPass();
        }
    }
    registered_.Tidy();
}

void PluginCoordinator::UnregisterItem(const PluginConfigItem& listed) {
    PluginConfigItem item;
    bool was_registered = false;
    if (!registered_.TakeOut(listed, item, was_registered) || !was_registered) return;
    if (const int failure = provider_.UnregisterPlugin(item.fkey()))
        LOG_FORMAT(kError,
                   "unregister plugin failed {0}/{0:X}, fkey {1}, file path {2}, config file path "
                   "{3}",
                   failure, item.fkey(), item.file_path(), item.config_file_path());
    else
        LOG_FORMAT(kInformation,
                   "unregister plugin succeeded, fkey {0}, file path {1}, delay load {2}, config "
                   "file path {3}",
                   item.fkey(), item.file_path(), item.delay_load(), item.config_file_path());
}

bool PluginCoordinator::FindPluginConfig(const char* fkey, PluginConfigItem& item) {
    TOVA_MutexGuard guard(config_mutex_);
    VESSA_SYNC_POINT("coordinator.query.has_mutex", this);
    for (const auto& entry : config_collection_) {
        for (const PluginConfigItem& candidate : entry.second) {
            if (candidate.fkey() != fkey) continue;
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
        for (const PluginConfigItem& item : entry.second) fkeys.push_back(item.fkey());
    }
}
