#include "vessa2/DelayLoadPlugin.h"

#include <new>

#include "common/MessageFormat.h"
#include "common/SyncPoint.h"
#include "common/ThreadScope.h"
#include "vessa/vessa.h"
#include "vessa2/PluginLoader.h"

DelayLoadPlugin::DelayLoadPlugin(const std::string& fkey, const std::string& file_path,
                                 bool delay_load)
    : fkey_(fkey), instance_counter_(&cells_), file_path_(file_path), delay_load_(delay_load) {}

// Null: no memory for them.
DelayLoadPlugin::Locks* DelayLoadPlugin::MakeLocks() {
    Locks* known = locks_.load();
    if (known != nullptr) return known;
    Locks* made = nullptr;
    try {
        made = new Locks;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    if (locks_.compare_exchange_strong(known, made)) return made;
    delete made;
    return known;
}

int DelayLoadPlugin::LoadPlugin() {
    if (IsLoaded()) return VESSA_OK;
    Locks* const locks = MakeLocks();
    if (locks == nullptr) {
        const int code = VESSA_ERR_OUT_OF_MEMORY;
        LOG_FORMAT(kError, "load plugin failed {0}/{0:X}, plugin file path {1}", code, file_path_);
        return code;
    }
    VESSA_SYNC_POINT("record.load.asks", this);
    if (ThreadScope::InPluginCall()) return LoadFromLoader(*locks);
    TOVA_MutexGuard guard(locks->loading);
    VESSA_SYNC_POINT("record.load.has_mutex", this);
    if (IsLoaded()) return VESSA_OK;
    Plugin* const left_over = plugin_.load();
    if (left_over != nullptr && !is_nested_.load())
        LOG_FORMAT(kWarning, "unexpected, plugin_ should be NULL, plugin_ {0}", left_over);
    return LoadFromLoader(*locks);
}

int DelayLoadPlugin::LoadFromLoader(Locks& locks) {
    Plugin* plugin = nullptr;
    int code = VESSA_ERR_OUT_OF_MEMORY;
    try {
        code = PluginLoader::Instance().LoadPlugin(file_path_, plugin);
    } catch (const std::bad_alloc&) {
        // There was no memory for the loader itself.
    }
    return code == VESSA_OK ? KeepLoaded(locks, plugin) : FailLoad(locks, code);
}

// Keeps the loaded module, or gives the reference back if another load was first: one nested
// in the module's own Init, or one on another thread.
int DelayLoadPlugin::KeepLoaded(Locks& locks, Plugin* plugin) {
    VESSA_SYNC_POINT("record.load.loaded", this);
    bool second = false;
    {
        TOVA_MutexGuard guard(locks.state);
        second = plugin_.load() != nullptr;
        if (!second) plugin_.store(plugin);
        is_nested_.store(plugin->IsInitialising());
        if (!is_nested_.load()) state_.store(kLoaded);
    }
    LOG_FORMAT(kInformation, "load plugin succeeded, plugin {0}, plugin file path {1}", plugin,
               file_path_);
    VESSA_SYNC_POINT("record.load.kept", this);
    if (second) PluginLoader::Instance().UnloadPlugin(plugin);
    return VESSA_OK;
}

int DelayLoadPlugin::FailLoad(Locks& locks, int code) {
    VESSA_SYNC_POINT("record.load.failed", this);
    Plugin* nested = nullptr;
    {
        TOVA_MutexGuard guard(locks.state);
        if (!IsLoaded()) {
            nested = plugin_.exchange(nullptr);
            state_.store(code == VESSA_ERR_PLUGIN_CONFLICT ? kConflict : kNotLoaded);
        }
    }
    if (code == VESSA_ERR_PLUGIN_CONFLICT)
        LOG_FORMAT(kError, "load plugin failed, conflict, plugin file path {0}", file_path_);
    else
        LOG_FORMAT(kError, "load plugin failed {0}/{0:X}, plugin file path {1}", code, file_path_);
    if (nested != nullptr) PluginLoader::Instance().UnloadPlugin(nested);
    return code;
}

int DelayLoadPlugin::UnloadPlugin() {
    if (!IsLoaded() && plugin_.load() == nullptr) return VESSA_OK;
    VESSA_SYNC_POINT("record.unload.asks", this);
    Locks& locks = *locks_.load();
    if (ThreadScope::InPluginCall()) return UnloadToLoader(locks);
    TOVA_MutexGuard guard(locks.loading);
    return UnloadToLoader(locks);
}

int DelayLoadPlugin::UnloadToLoader(Locks& locks) {
    Plugin* const plugin = plugin_.load();
    if (plugin == nullptr) {
        if (state_.exchange(kNotLoaded) == kLoaded)
            LOG_PLAIN(kWarning, "unexpected, plugin_ should not be NULL");
        return VESSA_OK;
    }
    const int code = PluginLoader::Instance().UnloadPlugin(plugin);
    if (code != VESSA_OK) {
        LOG_FORMAT(kError, "unload plugin failed, plugin {0}, plugin file path {1}", plugin,
                   file_path_);
        return code;
    }
    LOG_FORMAT(kInformation, "unload plugin succeeded, plugin {0}, plugin file path {1}", plugin,
               file_path_);
    VESSA_SYNC_POINT("record.unload.unloaded", this);
    TOVA_MutexGuard guard(locks.state);
    state_.store(kNotLoaded);
    plugin_.store(nullptr);
    return VESSA_OK;
}

int DelayLoadPlugin::Unload() {
    const int32_t instances = instance_counter_.Value();
    if (instances > 0)
        LOG_FORMAT(
            kWarning,
            "some plugin instance not destroyed before unload plugin, plugin instance number "
            "{0}",
            instances);
    return UnloadPlugin();
}

// The module for an instance operation; null, with the reason in the log, without one.
Plugin* DelayLoadPlugin::RequirePlugin(LogView& log) const {
    Plugin* const plugin = plugin_.load();
    if (plugin == nullptr)
        LOG_FORMAT_IN(log, kError, "unexpected, plugin_ should not be NULL, plugin file path {0}",
                      file_path_);
    return plugin;
}

// The module, loaded if it was not; null with a code if that fails.
Plugin* DelayLoadPlugin::LoadedPlugin(const CallContext& context, int& code) {
    if (!IsLoaded()) {
        code = LoadPlugin();
        context.log.Renew();
        if (code != VESSA_OK) {
            LOG_FORMAT_IN(context.log, kError, "load plugin failed {0}/{0:X}, plugin file path {1}",
                          code, file_path_);
            return nullptr;
        }
    }
    code = VESSA_FAILED;
    return RequirePlugin(context.log);
}

int DelayLoadPlugin::CreateInstance(const CallContext& context, TextRef fkey, void*& instance,
                                    int& plugin_error) {
    instance = nullptr;
    plugin_error = 0;
    int code = VESSA_OK;
    Plugin* const plugin = LoadedPlugin(context, code);
    if (plugin == nullptr) return code;
    void* created = nullptr;
    plugin_error = plugin->CreateInstance(context, fkey, created);
    if (plugin_error != 0) {
        LOG_FORMAT_IN(context.log, kError,
                      "create plugin instance failed {0}/{0:X}, plugin {1}, plugin file path {2}",
                      plugin_error, plugin, file_path_);
        return VESSA_FAILED;
    }
    instance = created;
    VESSA_SYNC_POINT("record.instance.made", this);
    instance_counter_.Raise(context.thread);
    LOG_FORMAT_IN(context.log, kDebug,
                  "create tarnet instance succeeded, instance {0}, plugin {1}, instance counter "
                  "{2}, plugin file path {3}",
                  instance, plugin, instance_count(), file_path_);
    return VESSA_OK;
}

int DelayLoadPlugin::DestroyInstance(const CallContext& context, void* instance,
                                     int& plugin_error) {
    LOG_FORMAT_IN(context.log, kDebug, "param instance = {0}", instance);
    plugin_error = 0;
    Plugin* const plugin = RequirePlugin(context.log);
    if (plugin == nullptr) return VESSA_FAILED;
    plugin_error = plugin->DestroyInstance(context, instance);
    if (plugin_error != 0) {
        LOG_FORMAT_IN(context.log, kError,
                      "destroy plugin instance failed {0}/{0:X}, plugin {1}, plugin file path {2}",
                      plugin_error, plugin, file_path_);
        return VESSA_FAILED;
    }
    VESSA_SYNC_POINT("record.instance.destroyed", this);
    instance_counter_.Lower(context.thread);
    LOG_FORMAT_IN(context.log, kDebug,
                  "destroy tarnet instance succeeded, instance {0}, plugin {1}, instance counter "
                  "{2}, plugin file path {3}",
                  instance, plugin, instance_count(), file_path_);
    return VESSA_OK;
}

int DelayLoadPlugin::QueryInterface(const CallContext& context, void* instance, TextRef ikey,
                                    void*& iface, int& plugin_error) {
    LOG_FORMAT_IN(context.log, kDebug, "param instance = {0}, ikey = {1}", instance, ikey);
    iface = nullptr;
    plugin_error = 0;
    Plugin* const plugin = RequirePlugin(context.log);
    if (plugin == nullptr) return VESSA_FAILED;
    void* found = nullptr;
    plugin_error = plugin->QueryInterface(context, instance, ikey, found);
    if (plugin_error != 0) {
        LOG_FORMAT_IN(context.log, kError,
                      "query plugin interface failed {0}/{0:X}, instance {1}, ikey {2}, plugin "
                      "{3}, plugin file path {4}",
                      plugin_error, instance, ikey, plugin, file_path_);
        return VESSA_FAILED;
    }
    iface = found;
    LOG_FORMAT_IN(
        context.log, kDebug,
        "query plugin interface succeeded, interface {0}, instance {1}, ikey {2}, plugin {3}, "
        "plugin file path {4}",
        iface, instance, ikey, plugin, file_path_);
    return VESSA_OK;
}

int DelayLoadPlugin::CreateInstance(TextRef fkey, void*& instance, int& plugin_error) {
    return OwnContext().Run([&](const CallContext& context) {
        return CreateInstance(context, fkey, instance, plugin_error);
    });
}

int DelayLoadPlugin::DestroyInstance(void* instance, int& plugin_error) {
    return OwnContext().Run([&](const CallContext& context) {
        return DestroyInstance(context, instance, plugin_error);
    });
}

int DelayLoadPlugin::QueryInterface(void* instance, TextRef ikey, void*& iface, int& plugin_error) {
    return OwnContext().Run([&](const CallContext& context) {
        return QueryInterface(context, instance, ikey, iface, plugin_error);
    });
}

int DelayLoadPlugin::GetPluginMapFkeys(char (*fkeys)[TARNET_FKEY_SIZE], int* count) {
    LogView log;
    Plugin* const plugin = RequirePlugin(log);
    return plugin != nullptr ? plugin->GetPluginMapFkeys(fkeys, count) : VESSA_FAILED;
}
