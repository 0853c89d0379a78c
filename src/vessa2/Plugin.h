#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "common/AtomicCounter.h"
#include "common/CallContext.h"
#include "common/LockOrder.h"
#include "common/Sync.h"
#include "vessa/tarnet.h"

// Every operation that either table of a module can carry. A null slot means that the module
// does not offer it.
struct tarnet_export_interface_t2 {
    tarnet_init_t Init;
    tarnet_uninit_t Uninit;
    tarnet_create_instance_t CreateInstance;
    tarnet_destroy_instance_t DestroyInstance;
    tarnet_query_interface_t QueryInterface;
    tarnet_get_all_interface_ikeys_t GetAllInterfaceIkeys;
    tarnet_get_file_version_t GetFileVersion;
    tarnet_create_instance_v2_t CreateInstance_V2;
    tarnet_get_plugin_map_fkeys_t GetPluginMapFkeys;
};

// One module file: loads and unloads it, counted, and forwards instance operations to it. Only
// the first load loads the file and calls Init, only the last unload calls Uninit and unloads.
//
// Thread safety: every operation on any thread. Loads and unloads run one at a time under the
// object's mutex, the module's Init and Uninit included. The forwarders take no lock: their
// callers see to it that the module is loaded meanwhile.
// Invariants: the names are constant after construction. A module is loaded exactly when
// dso_handle_ is set; operations_ points to operation_record_ then and is null otherwise.
// load_counter_ counts the loads that have not been given back; it is above 0 without a handle
// only between the failure of a load in whose Init others were nested and their unloads.
class Plugin {
  public:
    explicit Plugin(const std::string& file_path);
    Plugin(const Plugin&) = delete;
    Plugin& operator=(const Plugin&) = delete;

    // 0, or a code of vessa.h.
    int LoadDso(const std::string& filename, const std::string& folder_path, void*& dso_handle);
    int UnloadDso(void* dso_handle);
    int GetPluginOps(void* plugin_handle, tarnet_export_interface_t2& ops);
    int LoadPlugin();
    int UnloadPlugin();

    // 0, -1 for a missing operation, or the module's own result; -1 for one that throws.
    int CreateInstance(const CallContext& context, TextRef fkey, void*& instance);
    int DestroyInstance(const CallContext& context, void* instance);
    int QueryInterface(const CallContext& context, void* instance, TextRef ikey, void*& iface);
    // The same for a caller without a context.
    int CreateInstance(TextRef fkey, void*& instance);
    int DestroyInstance(void* instance);
    int QueryInterface(void* instance, TextRef ikey, void*& iface);
    // A module without the operation has no further fkeys: 0, and *count is left alone.
    int GetPluginMapFkeys(char (*fkeys)[TARNET_FKEY_SIZE], int* count);

    const std::string& filename() const { return filename_; }
    const std::string& folder_path() const { return folder_path_; }
    const std::string& file_path() const { return file_path_; }

    // Whether the first load is under way, the module's entry and Init included. To a caller
    // that has just loaded the module this can only be on its own thread: its load is nested in
    // that one and falls with it.
    bool IsInitialising() const { return initialising_.load(); }

    // Kept by the loader.
    AtomicCounter& reference_counter() { return reference_counter_; }

  private:
    int LoadFirst() REQUIRES(mutex_);
    int InitModule() REQUIRES(mutex_);
    void ReadDescription() REQUIRES(mutex_);
    int FailLoad(int code) REQUIRES(mutex_);
    int RefuseWhileUnloading() const REQUIRES(mutex_);
    void SayLoadDsoFailed(int code) const;
    void SayLoadFailed(int code) const;
    int UnloadLast() REQUIRES(mutex_);
    void ClearOperations() REQUIRES(mutex_);
    template <class Slot>
    Slot Operation(Slot tarnet_export_interface_t2::*slot) const;

    std::string filename_;
    std::string folder_path_;
    std::string file_path_;
    TOVA_Mutex mutex_ ACQUIRED_AFTER(lock_order::module) ACQUIRED_BEFORE(lock_order::leaf);
    std::atomic<void*> dso_handle_{nullptr};
    AtomicCounter load_counter_;
    tarnet_export_interface_t2 operation_record_ = {};
    std::atomic<const tarnet_export_interface_t2*> operations_{nullptr};
    std::string file_version_ GUARDED_BY(mutex_);
    std::vector<std::string> interface_ikeys_ GUARDED_BY(mutex_);
    std::atomic<bool> initialising_{false};
    bool unloading_ GUARDED_BY(mutex_) = false;
    AtomicCounter reference_counter_;
};
