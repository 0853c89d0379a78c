#include "vessa2/Plugin.h"

#include <new>

#include "common/MessageFormat.h"
#include "common/NormalizePath.h"
#include "common/SyncPoint.h"
#include "tova.h"
#include "vessa/vessa.h"
#include "vessa2/ModuleCall.h"

namespace {

// The result of a module that throws.
constexpr int kThrown = -1;

constexpr const char* kEntryNames[] = {TARNET_ENTRY_V2, TARNET_ENTRY_V2_DECORATED, TARNET_ENTRY_V1,
                                       TARNET_ENTRY_V1_DECORATED};
constexpr int kEntryNamesOfVersion2 = 2;

void CopyTable(const tarnet_export_table_v2& table, tarnet_export_interface_t2& ops) {
    ops.Init = table.Init;
    ops.Uninit = table.Uninit;
    ops.CreateInstance = nullptr;
    ops.CreateInstance_V2 = table.CreateInstance_V2;
    ops.DestroyInstance = table.DestroyInstance;
    ops.QueryInterface = table.QueryInterface;
    ops.GetAllInterfaceIkeys = table.GetAllInterfaceIkeys;
    ops.GetFileVersion = table.GetFileVersion;
    ops.GetPluginMapFkeys = table.GetPluginMapFkeys;
}

// GetPluginMapFkeys keeps what it was.
void CopyTable(const tarnet_export_table_v1& table, tarnet_export_interface_t2& ops) {
    ops.Init = table.Init;
    ops.Uninit = table.Uninit;
    ops.CreateInstance = table.CreateInstance;
    ops.DestroyInstance = table.DestroyInstance;
    ops.QueryInterface = table.QueryInterface;
    ops.GetAllInterfaceIkeys = table.GetAllInterfaceIkeys;
    ops.GetFileVersion = table.GetFileVersion;
    ops.CreateInstance_V2 = nullptr;
}

// Calls the entry and copies the table it returns; false if it returns none.
template <class Table>
bool ReadTable(void* symbol, tarnet_export_interface_t2& ops) {
    using Entry = const Table* (*)();
    const auto entry = reinterpret_cast<Entry>(symbol);
    const Table* const table =
        CallModule<const Table*>(nullptr, [&]() -> const Table* { return entry(); });
    if (table == nullptr) return false;
    CopyTable(*table, ops);
    return true;
}

// 0, or the code for the first mandatory operation that is missing.
int CheckOperations(void* plugin_handle, const tarnet_export_interface_t2& ops) {
    if (ops.Init == nullptr) {
        LOG_FORMAT(kError, "no func Init in plugin export interface, plugin_handle {0:X}",
                   plugin_handle);
    } else if (ops.Uninit == nullptr) {
        LOG_FORMAT(kError, "no func Uninit in plugin export interface, plugin_handle {0:X}",
                   plugin_handle);
    } else if (ops.CreateInstance == nullptr && ops.CreateInstance_V2 == nullptr) {
        LOG_FORMAT(kError,
                   "no func CreateInstance/CreateInstance_V2 in plugin export interface, "
                   "plugin_handle {0:X}",
                   plugin_handle);
    } else if (ops.DestroyInstance == nullptr) {
        LOG_FORMAT(kError,
                   "no func DestroyInstance in plugin export interface, plugin_handle {0:X}",
                   plugin_handle);
    } else if (ops.QueryInterface == nullptr) {
        LOG_FORMAT(kError, "no func QueryInterface in plugin export interface, plugin_handle {0:X}",
                   plugin_handle);
    } else {
        return VESSA_OK;
    }
    return VESSA_ERR_NO_INTERFACE;
}

void WarnOfMissingOperations(void* plugin_handle, const tarnet_export_interface_t2& ops) {
    if (ops.GetAllInterfaceIkeys == nullptr)
        LOG_FORMAT(kWarning,
                   "no func GetAllInterfaceIkeys in plugin export interface, plugin_handle {0:X}",
                   plugin_handle);
    if (ops.GetFileVersion == nullptr)
        LOG_FORMAT(kWarning,
                   "no func GetFileVersion in plugin export interface, plugin_handle {0:X}",
                   plugin_handle);
}

}  // namespace

Plugin::Plugin(const std::string& file_path) {
    LOG_FORMAT(kInformation, "param file_path = {0}", file_path);
    file_path_ = NormalizePath(file_path);
    if (file_path_.empty()) {
        LOG_PLAIN(kError, "file_path_ should not be empty.");
        return;
    }
    filename_ = FileNameOf(file_path_);
    if (filename_.empty()) {
        LOG_PLAIN(kError, "filename_ should not be empty.");
        file_path_.clear();
        return;
    }
    folder_path_ = FolderOf(file_path_);
    if (folder_path_.empty()) folder_path_ = ".";
    LOG_FORMAT(kInformation, "filename_ = {0}, folder_path_ = {1}, file_path_ = {2}", filename_,
               folder_path_, file_path_);
}

int Plugin::LoadDso(const std::string& filename, const std::string& folder_path,
                    void*& dso_handle) {
    LOG_FORMAT(kInformation, "param filename = {0}, folder_path = {1}", filename, folder_path);
    if (filename.empty()) {
        LOG_PLAIN(kError, "param filename should not be empty.");
        return VESSA_ERR_ARGUMENT;
    }
    if (folder_path.empty()) {
        LOG_PLAIN(kError, "param folder_path should not be empty.");
        return VESSA_ERR_ARGUMENT;
    }
    const std::string path = folder_path + "/" + filename;
    LOG_FORMAT(kInformation, "plugin file path {0}", path);
    if (TOVA_AccessFile(path.c_str(), 0) != 0) {
        LOG_FORMAT(kError, "plugin file does not exist, file path {0}", path);
        return VESSA_ERR_NO_MODULE_FILE;
    }
    int result = VESSA_OK;
    dso_handle = TOVA_LoadDSo(path.c_str());  // calls out: the module's constructors
    if (dso_handle == nullptr) {
        const int error = TOVA_GetSystemLastError();
        LOG_FORMAT(kError, "TOVA_LoadDso failed, error {0}/{0:X}, plugin path {1}", error, path);
        result = VESSA_ERR_MODULE_LOAD;
    }
    LOG_FORMAT(kInformation, "load plugin rlt {0}/{0:X}, plugin dso handle {1:X}", result,
               dso_handle);
    return result;
}

int Plugin::UnloadDso(void* dso_handle) {
    LOG_FORMAT(kInformation, "param dso_handle = {0:X}", dso_handle);
    if (dso_handle == nullptr || TOVA_UnloadDSo(dso_handle) == 0) return VESSA_OK;
    const int error = TOVA_GetSystemLastError();
    LOG_FORMAT(kError, "TOVA_UnloadDso failed, plugin dso handle {0:X}, error {1}/{1:X}",
               dso_handle, error);
    return VESSA_ERR_MODULE_UNLOAD;
}

int Plugin::GetPluginOps(void* plugin_handle, tarnet_export_interface_t2& ops) {
    LOG_FORMAT(kInformation, "param plugin_handle = {0:X}", plugin_handle);
    if (plugin_handle == nullptr) {
        LOG_PLAIN(kError, "param plugin_handle should not be invalid handle.");
        return VESSA_ERR_ARGUMENT;
    }
    void* symbol = nullptr;
    int error = 0;
    int position = -1;
    for (const char* const name : kEntryNames) {
        ++position;
        symbol = TOVA_GetDsoSym(plugin_handle, name);
        if (symbol != nullptr) break;
        error = TOVA_GetSystemLastError();
    }
    if (symbol == nullptr) {
        LOG_FORMAT(kError,
                   "no tarnet export entry, e.g. Tarnet_GetPluginInterface, plugin_handle {0:X}, "
                   "error {1}/{1:X}",
                   plugin_handle, error);
        return VESSA_ERR_NO_INTERFACE;
    }
    if (position < kEntryNamesOfVersion2) {
        if (!ReadTable<tarnet_export_table_v2>(symbol, ops)) {
            LOG_FORMAT(kError, "unable to get plugin export interface2, plugin_handle {0:X}",
                       plugin_handle);
            return VESSA_ERR_NO_INTERFACE;
        }
    } else if (!ReadTable<tarnet_export_table_v1>(symbol, ops)) {
        LOG_FORMAT(kError, "unable to get plugin export interface, plugin_handle {0:X}",
                   plugin_handle);
        return VESSA_ERR_NO_INTERFACE;
    }
    if (const int missing = CheckOperations(plugin_handle, ops)) return missing;
    WarnOfMissingOperations(plugin_handle, ops);
    // Kept: labels 4 to 8 do not match their values; readers of the log parse the line as it is.
    LOG_FORMAT(kInformation,
               "tarnet_handle {0:X},Init {1:X}, Unint {2:X}, CreateInstance {3:X}, "
               "CreateInstance_V2 {4:X},DestroyInstance {5:X}, QueryInterface {6:X}, "
               "GetAllInterfaceIkeys {7:X}, GetFileVersion {8:X},",
               plugin_handle, ops.Init, ops.Uninit, ops.CreateInstance, ops.DestroyInstance,
               ops.QueryInterface, ops.GetAllInterfaceIkeys, ops.GetFileVersion,
               ops.CreateInstance_V2);
    return VESSA_OK;
}

int Plugin::LoadPlugin() {
    if (filename_.empty()) {
        LOG_PLAIN(kError, "plugin filename should not be empty");
        return VESSA_ERR_ARGUMENT;
    }
    if (folder_path_.empty()) {
        LOG_PLAIN(kError, "plugin folder path should not be empty");
        return VESSA_ERR_ARGUMENT;
    }
    VESSA_SYNC_POINT("module.load.asks", this);
    TOVA_MutexGuard guard(mutex_);
    if (unloading_) return RefuseWhileUnloading();
    const int32_t load_counter_value = load_counter_.Add(1) + 1;
    VESSA_SYNC_POINT("module.load.counted", this);
    if (load_counter_value >= 2 && dso_handle_.load() != nullptr) {
        LOG_FORMAT(kInformation, "plugin already loaded, load_counter_value = {0}",
                   load_counter_value);
        return VESSA_OK;
    }
    // A thread that is cancelled inside the module leaves nothing loaded or counted either.
    struct Undo {
        Plugin* plugin;
        ~Undo() NO_THREAD_SAFETY_ANALYSIS {
            if (plugin == nullptr) return;
            plugin->initialising_.store(false);
            plugin->FailLoad(VESSA_FAILED);
        }
    } undo{this};
    initialising_.store(true);
    const int code = LoadFirst();
    VESSA_SYNC_POINT("module.load.tried", this);
    initialising_.store(false);
    undo.plugin = nullptr;
    return code == VESSA_OK ? VESSA_OK : FailLoad(code);
}

// Loads the file, reads its table and initialises the module. What a failure leaves is taken
// back by FailLoad.
int Plugin::LoadFirst() {
    int code = VESSA_OK;
    void* handle = nullptr;
    try {
        code = LoadDso(filename_, folder_path_, handle);
    } catch (const std::bad_alloc&) {
        code = VESSA_ERR_OUT_OF_MEMORY;
    }
    if (code != VESSA_OK) {
        SayLoadDsoFailed(code);
        return code;
    }
    dso_handle_.store(handle);
    code = GetPluginOps(handle, operation_record_);
    if (code != VESSA_OK) {
        LOG_FORMAT(kError,
                   "get plugin ops failed, error {0}/{0:X}, plugin handle {1:X}, filename {2}",
                   code, handle, filename_);
        return code;
    }
    operations_.store(&operation_record_);
    VESSA_SYNC_POINT("module.load.before_init", this);
    return InitModule();
}

int Plugin::InitModule() {
    const int result = CallModule(kThrown, [this] { return operation_record_.Init(); });
    if (result != 0) {
        // Kept: the text asks for a third value that it is not given.
        LOG_FORMAT(kError, "init plugin failed, error {0}/{0:X}, filename {2}", result, filename_);
        return VESSA_ERR_MODULE_INIT;
    }
    ReadDescription();
    LOG_FORMAT(
        kInformation,
        "load plugin succeeded, plugin handle {0:X}, plugin folder {1}, plugin filename {2}, "
        "plugin file version {3}, interface ikeys {4}",
        dso_handle_.load(), folder_path_, filename_, file_version_, interface_ikeys_);
    return VESSA_OK;
}

// Copies the module's version and ikeys, which only the log shows: without memory for them it
// shows none.
void Plugin::ReadDescription() {
    const auto& ops = operation_record_;
    try {
        if (ops.GetFileVersion != nullptr) {
            const char* const version =
                CallModule<const char*>(nullptr, [&] { return ops.GetFileVersion(); });
            if (version != nullptr) file_version_ = version;
        }
        if (ops.GetAllInterfaceIkeys == nullptr) return;
        const char** ikey =
            CallModule<const char**>(nullptr, [&] { return ops.GetAllInterfaceIkeys(); });
        for (; ikey != nullptr && *ikey != nullptr && **ikey != '\0'; ++ikey)
            interface_ikeys_.emplace_back(*ikey);
    } catch (const std::bad_alloc&) {
        file_version_.clear();
        interface_ikeys_.clear();
    }
}

// The module is being unloaded by this very thread: its Uninit asked for it again.
int Plugin::RefuseWhileUnloading() const {
    SayLoadDsoFailed(VESSA_ERR_MODULE_LOAD);
    SayLoadFailed(VESSA_ERR_MODULE_LOAD);
    return VESSA_ERR_MODULE_LOAD;
}

void Plugin::SayLoadDsoFailed(int code) const {
    // Kept: the file name stands in both places.
    LOG_FORMAT(kError, "load plugin dso failed, error {0}/{0:X}, filename {1}, folder path {1}",
               code, filename_, folder_path_);
}

void Plugin::SayLoadFailed(int code) const {
    LOG_FORMAT(kError,
               "load plugin failed, error {0}/{0:X}, plugin filename {1}, plugin folder path {2}",
               code, filename_, folder_path_);
}

// Takes a failed load back and gives its code.
int Plugin::FailLoad(int code) {
    if (void* const handle = dso_handle_.load()) {
        ClearOperations();
        const int unloaded = UnloadDso(handle);
        if (unloaded != VESSA_OK)
            LOG_FORMAT(kWarning, "unload plugin dso failed, error {0}/{0:X}, plugin handle {1:X}",
                       unloaded, handle);
    }
    dso_handle_.store(nullptr);
    // Loads that the module made of itself in its Init stay counted for their owners, who give
    // them back; without a handle the next load starts from the beginning all the same.
    load_counter_.Add(-1);
    SayLoadFailed(code);
    return code;
}

int Plugin::UnloadPlugin() {
    VESSA_SYNC_POINT("module.unload.asks", this);
    TOVA_MutexGuard guard(mutex_);
    if (load_counter_.Get() < 1) {
        LOG_PLAIN(kWarning, "plugin already unloaded");
        return VESSA_OK;
    }
    const int32_t load_counter_value = load_counter_.Add(-1) - 1;
    VESSA_SYNC_POINT("module.unload.counted", this);
    if (load_counter_value >= 1) {
        LOG_FORMAT(kInformation, "plugin will not be unloaded, load_counter_value = {0}",
                   load_counter_value);
        return VESSA_OK;
    }
    return UnloadLast();
}

int Plugin::UnloadLast() {
    // Whatever happens, also the cancellation of the thread inside Uninit, nothing stays loaded.
    struct Finish {
        Plugin& plugin;
        void* handle;
        ~Finish() NO_THREAD_SAFETY_ANALYSIS {
            if (handle != nullptr) plugin.UnloadDso(handle);
            plugin.ClearOperations();
            plugin.file_version_.clear();
            plugin.interface_ikeys_.clear();
            plugin.dso_handle_.store(nullptr);
            plugin.unloading_ = false;
        }
    } finish{*this, dso_handle_.load()};
    unloading_ = true;
    VESSA_SYNC_POINT("module.unload.before_uninit", this);
    int result = VESSA_OK;
    if (operation_record_.Uninit != nullptr) {
        const int failure = CallModule(kThrown, [this] { return operation_record_.Uninit(); });
        if (failure != 0) {
            LOG_FORMAT(kWarning,
                       "uninit plugin failed, error {0}/{0:X}, plugin folder path {1}, plugin "
                       "filename {2}",
                       failure, folder_path_, filename_);
            result = VESSA_ERR_MODULE_UNINIT;
        }
    }
    void* const handle = finish.handle;
    finish.handle = nullptr;
    if (handle == nullptr) return result;
    VESSA_SYNC_POINT("module.unload.before_close", this);
    const int unloaded = UnloadDso(handle);
    VESSA_SYNC_POINT("module.unload.closed", this);
    if (unloaded == VESSA_OK) return result;
    LOG_FORMAT(kWarning,
               "unload plugin dso file failed, error {0}/{0:X}, plugin handle {1:X}, plugin folder "
               "path {2}, plugin filename {3}",
               unloaded, handle, folder_path_, filename_);
    return unloaded;
}

void Plugin::ClearOperations() {
    operations_.store(nullptr);
    operation_record_ = {};
}

// One operation of the module; null without it, or without a module.
template <class Slot>
Slot Plugin::Operation(Slot tarnet_export_interface_t2::*slot) const {
    const tarnet_export_interface_t2* const operations = operations_.load();
    return operations != nullptr ? operations->*slot : nullptr;
}

int Plugin::CreateInstance(const CallContext& context, TextRef fkey, void*& instance) {
    if (const auto create = Operation(&tarnet_export_interface_t2::CreateInstance_V2))
        return CallModule(context, kThrown, [&] { return create(fkey.c_str(), &instance); });
    if (const auto create = Operation(&tarnet_export_interface_t2::CreateInstance))
        return CallModule(context, kThrown, [&] { return create(&instance); });
    LOG_PLAIN_IN(context.log, kError, "plugin ops CreateInstance should not be NULL");
    instance = nullptr;
    return VESSA_FAILED;
}

int Plugin::DestroyInstance(const CallContext& context, void* instance) {
    if (const auto destroy = Operation(&tarnet_export_interface_t2::DestroyInstance))
        return CallModule(context, kThrown, [&] { return destroy(instance); });
    LOG_PLAIN_IN(context.log, kError, "plugin ops DestroyInstance should not be NULL");
    return VESSA_FAILED;
}

int Plugin::QueryInterface(const CallContext& context, void* instance, TextRef ikey, void*& iface) {
    if (const auto query = Operation(&tarnet_export_interface_t2::QueryInterface))
        return CallModule(context, kThrown, [&] { return query(instance, ikey.c_str(), &iface); });
    LOG_PLAIN_IN(context.log, kError, "plugin ops QueryInterface should not be NULL");
    return VESSA_FAILED;
}

int Plugin::CreateInstance(TextRef fkey, void*& instance) {
    return OwnContext().Run(
        [&](const CallContext& context) { return CreateInstance(context, fkey, instance); });
}

int Plugin::DestroyInstance(void* instance) {
    return OwnContext().Run(
        [&](const CallContext& context) { return DestroyInstance(context, instance); });
}

int Plugin::QueryInterface(void* instance, TextRef ikey, void*& iface) {
    return OwnContext().Run(
        [&](const CallContext& context) { return QueryInterface(context, instance, ikey, iface); });
}

int Plugin::GetPluginMapFkeys(char (*fkeys)[TARNET_FKEY_SIZE], int* count) {
    if (const auto map = Operation(&tarnet_export_interface_t2::GetPluginMapFkeys))
        return CallModule(kThrown, [&] { return map(fkeys, count); });
    LOG_PLAIN(kError, "plugin ops GetPluginMapFkeys should not be NULL");
    return VESSA_OK;
}
