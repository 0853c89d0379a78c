#include "vessa2/DelayLoadPlugin.h"

#include <new>

#include "common/MessageFormat.h"
#include "common/ThreadScope.h"
#include "vessa/vessa.h"
#include "vessa2/PluginLoader.h"

DelayLoadPlugin::DelayLoadPlugin(const std::string& fkey, const std::string& file_path,
                                 bool delay_load)
    : fkey_(fkey), file_path_(file_path), delay_load_(delay_load) {}

int DelayLoadPlugin::LoadPlugin() {
    if (IsLoaded()) return VESSA_OK;
    if (ThreadScope::InPluginCall()) return LoadFromLoader();
    TOVA_MutexGuard guard(mutex_);
    if (IsLoaded()) return VESSA_OK;
    Plugin* const left_over = plugin_.load();
    if (left_over != nullptr && !is_nested_.load())
        LOG_FORMAT(kWarning, "unexpected, plugin_ should be NULL, plugin_ {0}", left_over);
    return LoadFromLoader();
}

int DelayLoadPlugin::LoadFromLoader() {
    Plugin* plugin = nullptr;
    int code = VESSA_ERR_OUT_OF_MEMORY;
    try {
        code = PluginLoader::Instance().LoadPlugin(file_path_, plugin);
    } catch (const std::bad_alloc&) {
        // There was no memory for the loader itself.
    }
    return code == VESSA_OK ? KeepLoaded(plugin) : FailLoad(code);
}

// Keeps the loaded module, or gives the reference back if another load was first: one nested
// in the module's own Init, or one on another thread.
int DelayLoadPlugin::KeepLoaded(Plugin* plugin) {
    bool second = false;
    {
        TOVA_MutexGuard guard(state_mutex_);
        second = plugin_.load() != nullptr;
        if (!second) plugin_.store(plugin);
        is_nested_.store(plugin->IsInitialising());
        if (!is_nested_.load()) state_.store(kLoaded);
    }
    LOG_FORMAT(kInformation, "load plugin succeeded, plugin {0}, plugin file path {1}", plugin,
               file_path_);
    if (second) PluginLoader::Instance().UnloadPlugin(plugin);
    return VESSA_OK;
}

int DelayLoadPlugin::FailLoad(int code) {
    Plugin* nested = nullptr;
    {
        TOVA_MutexGuard guard(state_mutex_);
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
    if (ThreadScope::InPluginCall()) return UnloadToLoader();
    TOVA_MutexGuard guard(mutex_);
    return UnloadToLoader();
}

int DelayLoadPlugin::UnloadToLoader() {
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
    TOVA_MutexGuard guard(state_mutex_);
    state_.store(kNotLoaded);
    plugin_.store(nullptr);
    return VESSA_OK;
}

int DelayLoadPlugin::Unload() {
    const int32_t instances = instance_counter_.Get();
    if (instances > 0)
        LOG_FORMAT(
            kWarning,
            "some plugin instance not destroyed before unload plugin, plugin instance number "
            "{0}",
            instances);
    return UnloadPlugin();
}

// The module for an instance operation; null, with the reason in the log, without one.
Plugin* DelayLoadPlugin::RequirePlugin() const {
    Plugin* const plugin = plugin_.load();
    if (plugin == nullptr)
        LOG_FORMAT(kError, "unexpected, plugin_ should not be NULL, plugin file path {0}",
                   file_path_);
    return plugin;
}

int DelayLoadPlugin::CreateInstance(const std::string& fkey, void*& instance, int& plugin_error) {
    instance = nullptr;
    plugin_error = 0;
    if (!IsLoaded()) {
        const int code = LoadPlugin();
        if (code != VESSA_OK) {
            LOG_FORMAT(kError, "load plugin failed {0}/{0:X}, plugin file path {1}", code,
                       file_path_);
            return code;
        }
    }
    Plugin* const plugin = RequirePlugin();
    if (plugin == nullptr) return VESSA_FAILED;
    void* created = nullptr;
    plugin_error = plugin->CreateInstance(fkey, created);
    if (plugin_error != 0) {
        LOG_FORMAT(kError,
                   "create plugin instance failed {0}/{0:X}, plugin {1}, plugin file path {2}",
                   plugin_error, plugin, file_path_);
        return VESSA_FAILED;
    }
    instance = created;
    const int32_t instances = instance_counter_.Add(1) + 1;
    LOG_FORMAT(kDebug,
               "create tarnet instance succeeded, instance {0}, plugin {1}, instance counter {2}, "
               "plugin file path {3}",
               instance, plugin, instances, file_path_);
    return VESSA_OK;
}

int DelayLoadPlugin::DestroyInstance(void* instance, int& plugin_error) {
    LOG_FORMAT(kDebug, "param instance = {0}", instance);
    plugin_error = 0;
    Plugin* const plugin = RequirePlugin();
    if (plugin == nullptr) return VESSA_FAILED;
    plugin_error = plugin->DestroyInstance(instance);
    if (plugin_error != 0) {
        LOG_FORMAT(kError,
                   "destroy plugin instance failed {0}/{0:X}, plugin {1}, plugin file path {2}",
                   plugin_error, plugin, file_path_);
        return VESSA_FAILED;
    }
    const int32_t instances = instance_counter_.Add(-1) - 1;
    LOG_FORMAT(kDebug,
               "destroy tarnet instance succeeded, instance {0}, plugin {1}, instance counter {2}, "
               "plugin file path {3}",
               instance, plugin, instances, file_path_);
    return VESSA_OK;
}

int DelayLoadPlugin::QueryInterface(void* instance, const std::string& ikey, void*& iface,
                                    int& plugin_error) {
    LOG_FORMAT(kDebug, "param instance = {0}, ikey = {1}", instance, ikey);
    iface = nullptr;
    plugin_error = 0;
    Plugin* const plugin = RequirePlugin();
    if (plugin == nullptr) return VESSA_FAILED;
    void* found = nullptr;
    plugin_error = plugin->QueryInterface(instance, ikey, found);
    if (plugin_error != 0) {
        LOG_FORMAT(kError,
                   "query plugin interface failed {0}/{0:X}, instance {1}, ikey {2}, plugin {3}, "
                   "plugin file path {4}",
                   plugin_error, instance, ikey, plugin, file_path_);
        return VESSA_FAILED;
    }
    iface = found;
    LOG_FORMAT(
        kDebug,
        "query plugin interface succeeded, interface {0}, instance {1}, ikey {2}, plugin {3}, "
        "plugin file path {4}",
        iface, instance, ikey, plugin, file_path_);
    return VESSA_OK;
}

int DelayLoadPlugin::GetPluginMapFkeys(char (*fkeys)[TARNET_FKEY_SIZE], int* count) {
    Plugin* const plugin = RequirePlugin();
    if (plugin == nullptr) return VESSA_FAILED;
    return plugin->GetPluginMapFkeys(fkeys, count);
}
