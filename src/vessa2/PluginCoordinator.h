#pragma once

#include <atomic>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "common/LockOrder.h"
#include "common/Sync.h"
#include "vessa2/ConfigMonitor.h"
#include "vessa2/PluginConfigList.h"
#include "vessa2/PluginProvider.h"
#include "vessa2/RegistrationTable.h"

// Turns list files into registrations, at the start and with every change that the monitor
// reports.
//
// Thread safety: Run and Shutdown on any thread, one at a time under the life-cycle mutex.
// ConfigFileChanged on the thread of Run, inside its first scan, and on the monitor's. The
// queries on any thread. The monitor is stopped, and its thread joined, with the coordinator's
// mutex free: a change round in progress takes it.
// Invariants: config_collection_ holds the last list that was read from each known file, and
// only there are lists shared with the queries. At most one round of changes runs at a time, so
// that what not_entered_ needs room for only shrinks from a round's begin to its end.
class PluginCoordinator {
  public:
    PluginCoordinator() = default;
    PluginCoordinator(const PluginCoordinator&) = delete;
    PluginCoordinator& operator=(const PluginCoordinator&) = delete;

    // Both are set before Run, by the thread that is about to call it.
    void SetPluginRoot(const std::string& plugin_root) { plugin_root_ = plugin_root; }
    void SetConfigFilename(const std::string& filename) { config_filename_ = filename; }

    // Every plug-in that a list file declares is registered when it returns. False: the
    // settings are empty or the monitor could not start; registrations already made stay.
    bool Run();
    bool Shutdown();

    bool ReadPluginList(const std::string& config_file_path, PluginConfigList& list);
    // Enters the items and registers every record that is not registered yet, also earlier
    // ones that were refused.
    void RegisterPluginList(const PluginConfigList& list);
    // Takes the items' records out, whatever their unregistration says.
    void UnregisterPluginList(const PluginConfigList& list);

    // The first item of that fkey, in the byte order of the files' paths; also one whose
    // registration was refused.
    bool FindPluginConfig(const char* fkey, PluginConfigItem& item);
    // Appends every item, in the same order.
    void GetAllPluginConfigs(PluginConfigList& all);
    // Only their fkeys.
    void GetAllFkeys(std::vector<std::string>& fkeys);

    void ConfigFileChanged(const ConfigMonitor& monitor,
                           const std::list<ConfigMonitor::NotifyInfo>& changes);
    void FindPluginChangedInConfig(const PluginConfigList& current, const PluginConfigList& cached,
                                   PluginConfigList& added, PluginConfigList& removed);
    void StatisticsLoadFkeys(const PluginConfigList& list, PluginConfigList& mapped);

    PluginProvider& provider() { return provider_; }
    bool IsRunning() const { return running_.load(); }

    // For the end of the process: asks the scanning thread to end and waits a bounded time.
    void AskToEnd(unsigned int wait_ms) { monitor_.AskToEnd(wait_ms); }

  private:
    // What the changes of one round come to.
    struct Round {
        PluginConfigList to_register;
        PluginConfigList to_unregister;
        size_t left_over = 0;  // items of earlier rounds that to_register has room for besides
    };

    bool StartMonitor();
    void UnregisterAll() REQUIRES(mutex_);
    bool EnterItems(const PluginConfigList& list) REQUIRES(mutex_);
    void RegisterPending() REQUIRES(mutex_);
    void RegisterRecord(const RegistrationTable::Place& place) REQUIRES(mutex_);
    void UnregisterItem(const PluginConfigItem& listed) REQUIRES(mutex_);

    size_t CountLeftOvers();
    void CollectChange(const ConfigMonitor::NotifyInfo& change, Round& round);
    void CollectList(const std::string& path, int32_t type, const PluginConfigList& stored,
                     Round& round);
    void TakeUpLeftOvers(Round& round) REQUIRES(mutex_);
    void ApplyChanges(Round& round) REQUIRES(mutex_);
    void AppendMappedFkeys(const PluginConfigItem& item, PluginConfigList& mapped);

    bool FindStoredList(const std::string& path, PluginConfigList& list);
    void StoreList(const std::string& path, PluginConfigList& list);

    std::string plugin_root_;
    std::string config_filename_;
    PluginProvider provider_;
    ConfigMonitor monitor_;
    std::map<std::string, PluginConfigList> config_collection_ GUARDED_BY(config_mutex_);
    RegistrationTable registered_ GUARDED_BY(mutex_);
    // Items that a round had no memory for. The next round begins with them.
    PluginConfigList not_entered_ GUARDED_BY(mutex_);
    std::atomic<bool> running_{false};
    TOVA_Mutex run_mutex_ ACQUIRED_AFTER(lock_order::run) ACQUIRED_BEFORE(lock_order::coordinator);
    // Re-entrant on purpose: Run holds it while the first scan's changes take it again.
    TOVA_Mutex mutex_ ACQUIRED_AFTER(lock_order::coordinator) ACQUIRED_BEFORE(lock_order::timer);
    // Held for look-ups, replacements and copies alone: a module may ask for its attributes
    // while a change round waits for that very module.
    TOVA_Mutex config_mutex_ ACQUIRED_AFTER(lock_order::leaf);

    friend struct PluginCoordinatorAccess;  // tests look into the registered table
};
