#pragma once

#include <map>
#include <string>

#include "common/LockOrder.h"
#include "common/Sync.h"
#include "vessa2/Plugin.h"

// Shares one Plugin object for each module file name, and refuses a second module with the
// same file name from another folder.
//
// Thread safety: every operation on any thread. The mutex is released around the loads and
// unloads themselves; a Plugin has a lock of its own for those.
// Invariants: collection_ maps a file name to an object that the loader owns; the object's
// reference counter is the number of LoadPlugin calls that are under way or have succeeded and
// not been given back.
class PluginLoader {
  public:
    PluginLoader() = default;
    ~PluginLoader();
    PluginLoader(const PluginLoader&) = delete;
    PluginLoader& operator=(const PluginLoader&) = delete;

    // The process's loader, made with the first call and never destroyed while the process
    // lives: late users find it at work.
    static PluginLoader& Instance();
    // Destroys it, if it exists and holds nothing. Only when nobody can call any more.
    static void DestroyInstance();

    // 0: plugin is the shared, loaded module and the caller holds one reference. Otherwise
    // plugin is null and the result a code of vessa.h.
    int LoadPlugin(const std::string& file_path, Plugin*& plugin);
    // Gives one reference back. plugin comes from LoadPlugin.
    int UnloadPlugin(Plugin* plugin);

  private:
    int Acquire(const std::string& file_path, Plugin*& plugin);
    Plugin* AddPlugin(const std::string& filename, const std::string& file_path) REQUIRES(mutex_);
    void Release(Plugin* plugin);
    int CheckHeld(const Plugin* plugin);

    std::map<std::string, Plugin*> collection_ GUARDED_BY(mutex_);
    TOVA_Mutex mutex_ ACQUIRED_AFTER(lock_order::loader) ACQUIRED_BEFORE(lock_order::module);

    friend struct PluginLoaderAccess;  // tests put null and foreign entries into the collection
};
