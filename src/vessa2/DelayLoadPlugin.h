#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "common/CallContext.h"
#include "common/KeyText.h"
#include "common/LockOrder.h"
#include "common/SpreadCounter.h"
#include "common/Sync.h"
#include "common/TextRef.h"
#include "vessa/tarnet.h"
#include "vessa2/Plugin.h"

// One registered plug-in's use of its module: obtains it from the loader, at once or with the
// first instance, forwards instance operations to it, counts instances, and gives it back.
//
// Thread safety: every operation on any thread; whoever unloads keeps users of instances away.
// Threads outside of modules load one at a time and wait for each other; a thread that is
// inside a module never waits here, since the one it would wait for may wait for it. It loads
// on its own, and whoever comes second gives the reference back.
// Invariants: fkey_ and file_path_ are constant. In state 3 plugin_ is set. In another state it
// is set only while a module uses its own plug-in from its Init, and after that if the Init
// failed and the use was under another fkey: this object then holds a reference to a module
// that is no longer loaded. The instance counter is independent of the state. The locks are made
// once, before state or plugin_ change for the first time.
class alignas(kPlaceAlignment / 2) DelayLoadPlugin {
  public:
    DelayLoadPlugin(const std::string& fkey, const std::string& file_path, bool delay_load);
    ~DelayLoadPlugin() { delete locks_.load(); }
    DelayLoadPlugin(const DelayLoadPlugin&) = delete;
    DelayLoadPlugin& operator=(const DelayLoadPlugin&) = delete;

    // 0, or a code of vessa.h.
    VESSA_COLD int LoadPlugin();
    int UnloadPlugin();
    // UnloadPlugin, with a warning when instances live.
    int Unload();

    // plugin_error receives the module's own result, 0 when it was not reached. On failure
    // instance and iface are null.
    int CreateInstance(const CallContext& context, TextRef fkey, void*& instance,
                       int& plugin_error);
    int DestroyInstance(const CallContext& context, void* instance, int& plugin_error);
    int QueryInterface(const CallContext& context, void* instance, TextRef ikey, void*& iface,
                       int& plugin_error);
    // The same for a caller without a context.
    int CreateInstance(TextRef fkey, void*& instance, int& plugin_error);
    int DestroyInstance(void* instance, int& plugin_error);
    int QueryInterface(void* instance, TextRef ikey, void*& iface, int& plugin_error);
    int GetPluginMapFkeys(char (*fkeys)[TARNET_FKEY_SIZE], int* count);

    TextRef fkey() const { return fkey_.ref(); }
    const std::string& file_path() const { return file_path_; }
    bool delay_load() const { return delay_load_.load(); }
    void set_delay_load(bool delay_load) { delay_load_.store(delay_load); }
    int32_t instance_count() const { return instance_counter_.Value(); }
    bool HasInstances() const { return !instance_counter_.IsZero(); }
    // Whether there was ever an instance.
    bool HadInstances() const { return instance_counter_.WasUsed(); }
    // A mark of the registry's: set while an unregistration has run with instances alive.
    bool IsUnregistered() const { return unregistered_.load(); }
    void SetUnregistered(bool unregistered) { unregistered_.store(unregistered); }

    enum State : int8_t { kConflict = 1, kNotLoaded = 2, kLoaded = 3 };
    State state() const { return static_cast<State>(state_.load()); }

  private:
    // Made with the first load: most plug-ins that a list declares are never asked for.
    struct Locks {
        // Held across loads and unloads by threads that are outside of modules.
        TOVA_Mutex loading ACQUIRED_AFTER(lock_order::record) ACQUIRED_BEFORE(lock_order::loader);
        // Guards the change of plugin_ and state_ together; a leaf.
        TOVA_Mutex state ACQUIRED_AFTER(lock_order::leaf);
    };

    bool IsLoaded() const { return state_.load() == kLoaded; }
    int LoadFromLoader(Locks& locks);
    int KeepLoaded(Locks& locks, Plugin* plugin);
    int FailLoad(Locks& locks, int code);
    int UnloadToLoader(Locks& locks);
    Plugin* RequirePlugin(LogView& log) const;
    Plugin* LoadedPlugin(const CallContext& context, int& code);
    Locks* MakeLocks();

    // What every create reads stands together on the first line of the object, and the cells that
    // it writes to on the next ones.
    const KeyText fkey_;
    std::atomic<int8_t> state_{kNotLoaded};
    std::atomic<bool> unregistered_{false};
    std::atomic<Plugin*> plugin_{nullptr};
    SpreadCounter instance_counter_;
    CountingCells cells_;
    const std::string file_path_;
    std::atomic<bool> delay_load_;
    std::atomic<bool> is_nested_{false};  // plugin_ comes from a load inside the module's Init
    std::atomic<Locks*> locks_{nullptr};
};
