#include "vessa2/PluginLoader.h"

#include <atomic>
#include <new>

#include "common/MessageFormat.h"
#include "common/NormalizePath.h"
#include "common/SyncPoint.h"
#include "vessa/vessa.h"

namespace {

// Kept apart from the loader's own guard variable, so that its destruction can tell whether
// there is one.
std::atomic<PluginLoader*> the_loader{nullptr};

PluginLoader* MakeLoader() {
    auto* const loader = new PluginLoader;
    the_loader.store(loader);
    return loader;
}

int RefuseForMemory(const std::string& file_path) {
    LOG_FORMAT(kError, "create PluginData failed, out of memory, plugin file path {0}", file_path);
    return VESSA_ERR_OUT_OF_MEMORY;
}

}  // namespace

PluginLoader& PluginLoader::Instance() {
    static PluginLoader* const loader = MakeLoader();
    return *loader;
}

void PluginLoader::DestroyInstance() {
    PluginLoader* const loader = the_loader.load();
    if (loader == nullptr) return;
    {
        TOVA_MutexGuard guard(loader->mutex_);
        if (!loader->collection_.empty()) return;
    }
    the_loader.store(nullptr);
    delete loader;
}

PluginLoader::~PluginLoader() {
    // Modules that are still referenced stay loaded.
    TOVA_MutexGuard guard(mutex_);
    for (const auto& entry : collection_) delete entry.second;
}

int PluginLoader::LoadPlugin(const std::string& file_path, Plugin*& plugin) {
    LOG_FORMAT(kInformation, "param file_path = {0}", file_path);
    plugin = nullptr;
    if (file_path.empty()) {
        LOG_PLAIN(kError, "param file_path should not be empty");
        return VESSA_ERR_ARGUMENT;
    }
    Plugin* shared = nullptr;
    try {
        if (const int refusal = Acquire(file_path, shared)) return refusal;
    } catch (const std::bad_alloc&) {
        return RefuseForMemory(file_path);
    }

    // A thread that is cancelled inside the module gives its reference back.
    struct Undo {
        PluginLoader& loader;
        Plugin* plugin;
        ~Undo() {
            if (plugin != nullptr) loader.Release(plugin);
        }
    } undo{*this, shared};
    VESSA_SYNC_POINT("loader.load.referenced", shared);
    const int code = shared->LoadPlugin();
    if (code != VESSA_OK) {
        LOG_FORMAT(kError, "load plugin failed {0}/{0:X}, plugin file path {1}", code,
                   shared->file_path());
        return code;
    }
    undo.plugin = nullptr;
    LOG_FORMAT(kInformation,
               "load plugin succeeded, plugin filename {0}, reference counter {1}, plugin path {2}",
               shared->filename(), shared->reference_counter().Get(), shared->file_path());
    plugin = shared;
    return VESSA_OK;
}

// Finds or makes the object for the path and takes a reference before anything is loaded.
int PluginLoader::Acquire(const std::string& file_path, Plugin*& plugin) {
    const std::string path = NormalizePath(file_path);
    const std::string filename = FileNameOf(path);
    if (filename.empty()) {
        LOG_FORMAT(kError, "plugin filename is empty, param file_path = {0}", file_path);
        return VESSA_ERR_ARGUMENT;
    }
    VESSA_SYNC_POINT("loader.load.asks", this);
    TOVA_MutexGuard guard(mutex_);
    VESSA_SYNC_POINT("loader.load.has_mutex", this);
    auto found = collection_.find(filename);
    if (found != collection_.end() && found->second == nullptr) {
        LOG_FORMAT(kWarning,
                   "unexpected, plugin collection contains NULL pointer, plugin filename {0}",
                   filename);
        collection_.erase(found);
        found = collection_.end();
    }
    if (found == collection_.end()) {
        plugin = AddPlugin(filename, file_path);
        if (plugin == nullptr) return RefuseForMemory(file_path);
    } else if (found->second->file_path() != path) {
        LOG_FORMAT(kError, "plugin conflict, plugin file path {0}, loaded plugin file path {1}",
                   file_path, found->second->file_path());
        return VESSA_ERR_PLUGIN_CONFLICT;
    } else {
        plugin = found->second;
    }
    plugin->reference_counter().Add(1);
    return VESSA_OK;
}

// Null: out of memory, and the collection is as it was.
Plugin* PluginLoader::AddPlugin(const std::string& filename, const std::string& file_path) {
    Plugin* plugin = nullptr;
    try {
        plugin = new Plugin(file_path);
        collection_[filename] = plugin;
        return plugin;
    } catch (const std::bad_alloc&) {
        delete plugin;
        return nullptr;
    }
}

// Takes the reference of a failed load back, and the object with the last.
void PluginLoader::Release(Plugin* plugin) {
    VESSA_SYNC_POINT("loader.load.gives_back", plugin);
    TOVA_MutexGuard guard(mutex_);
    if (plugin->reference_counter().Add(-1) > 1) return;
    collection_.erase(plugin->filename());
    delete plugin;
}

int PluginLoader::UnloadPlugin(Plugin* plugin) {
    if (plugin == nullptr) {
        LOG_PLAIN(kError, "param plugin should not be NULL");
        return VESSA_ERR_ARGUMENT;
    }
    if (const int refusal = CheckHeld(plugin)) return refusal;
    VESSA_SYNC_POINT("loader.unload.checked", plugin);
    const int code = plugin->UnloadPlugin();
    if (code != VESSA_OK) {
        // Kept: the reference is not given back, so the file name stays taken.
        LOG_FORMAT(kError, "unload plugin failed {0}/{0:X}, plugin {1}, plugin filename {2}", code,
                   plugin, plugin->filename());
        return code;
    }
    VESSA_SYNC_POINT("loader.unload.unloaded", plugin);
    // Said before the object goes, or anybody else can let it go: a copy of its names could
    // fail, and an unload must not.
    TOVA_MutexGuard guard(mutex_);
    const int32_t references = plugin->reference_counter().Add(-1) - 1;
    VESSA_SYNC_POINT("loader.unload.unreferenced", plugin);
    if (references < 1) collection_.erase(plugin->filename());
    LOG_FORMAT(kInformation,
               "unload plugin succeeded, plugin {0}, plugin reference {1}, plugin filename {2}, "
               "plugin file path {3}",
               plugin, references, plugin->filename(), plugin->file_path());
    if (references < 1) delete plugin;
    return VESSA_OK;
}

// Whether the collection holds this very object.
int PluginLoader::CheckHeld(const Plugin* plugin) {
    TOVA_MutexGuard guard(mutex_);
    const std::string& filename = plugin->filename();
    const auto found = collection_.find(filename);
    if (found == collection_.end()) {
        LOG_FORMAT(kError, "unexpected, plugin not found, plugin filename {0}, param plugin {1}",
                   filename, plugin);
        return VESSA_FAILED;
    }
    if (found->second == nullptr) {
        LOG_FORMAT(
            kError,
            "unexpected, plugin collection contains NULL pointer, plugin filename {0}, plugin "
            "{1}",
            filename, plugin);
        return VESSA_FAILED;
    }
    if (found->second != plugin) {
        LOG_FORMAT(
            kError,
            "unexpected, plugin not matched, param plugin {0}, collection contains {1}, plugin "
            "filename {2}",
            plugin, found->second, filename);
        return VESSA_FAILED;
    }
    return VESSA_OK;
}
