#pragma once

#include <map>
#include <set>
#include <string>

#include "common/AtomicCounter.h"
#include "common/LockOrder.h"
#include "common/RefObject.h"
#include "common/RegistryGate.h"
#include "common/Sync.h"
#include "vessa2/DelayLoadPlugin.h"

// The registry: the record of each registered plug-in by fkey, and of each live instance the
// record that made it.
//
// Thread safety: every operation on any thread, from inside every plug-in call. Registrations
// and unregistrations wait for the instance operations that look plug-ins up and keep new ones
// out meanwhile; no module is called by a writer, only by readers.
// Invariants: a record is destroyed with the last pointer to it and never unloads its module
// itself. Every entry of collection_ that has a record is in by_filename_ under the record's
// file name; every entry without one is in invalid_. All records with one file name have one
// file path.
class PluginProvider {
  public:
    class PluginData;
    using PluginDataPtr = ObjectPtrT<PluginData>;

    PluginProvider() = default;
    PluginProvider(const PluginProvider&) = delete;
    PluginProvider& operator=(const PluginProvider&) = delete;

    // 0, or a code of vessa.h. A plug-in whose module cannot be loaded is registered all the
    // same; a load is tried again with its first instance.
    int RegisterPlugin(const std::string& fkey, const std::string& file_path, bool delay_load);
    // 0 also when live instances put the unload off, and when the unload fails.
    int UnregisterPlugin(const std::string& fkey);

    // The out values are cleared first. On an instance conflict instance holds the pointer that
    // was destroyed again.
    int CreateInstance(const std::string& fkey, void*& instance, int& plugin_error);
    int DestroyInstance(void* instance, int& plugin_error);
    int QueryInterface(void* instance, const std::string& ikey, void*& iface, int& plugin_error);
    // -1 for every refusal; fkeys and count are touched by the module alone.
    int GetPluginMapFkeys(const std::string& fkey, char (*fkeys)[TARNET_FKEY_SIZE], int* count);

    // Whether nothing is registered and no instance lives.
    bool IsEmpty();

  private:
    int CheckRegistration(const std::string& fkey, const std::string& file_path,
                          std::string& filename);
    int EnterAndLoad(const std::string& fkey, const std::string& file_path,
                     const std::string& filename, bool delay_load);
    int FindConflict(const std::string& fkey, const std::string& file_path,
                     const std::string& filename) REQUIRES(gate_);
    int CheckEntry(const std::string& key, const PluginDataPtr& entry, const std::string& fkey,
                   const std::string& file_path) REQUIRES(gate_);
    int EnterRecord(const std::string& fkey, const std::string& file_path,
                    const std::string& filename, bool delay_load, PluginDataPtr& data)
        REQUIRES(gate_);
    int AddRecord(const std::string& fkey, const std::string& file_path,
                  const std::string& filename, bool delay_load, PluginDataPtr& data)
        REQUIRES(gate_);
    void Erase(const std::string& fkey, const std::string& filename) REQUIRES(gate_);

    int FindRegistered(const std::string& fkey, PluginDataPtr& data) REQUIRES_SHARED(gate_);
    int KeepInstance(const std::string& fkey, void* instance, const PluginDataPtr& data,
                     int& plugin_error);
    int RefuseInstance(const std::string& fkey, void* instance, const PluginDataPtr& data,
                       const PluginDataPtr& owner, int& plugin_error) REQUIRES(instance_mutex_);
    int TakeInstance(void* instance, PluginDataPtr& data);
    int FindInstance(void* instance, const std::string& ikey, PluginDataPtr& data);
    void UnloadAfterLastInstance(const PluginDataPtr& data);
    void UnloadPutOff(const PluginDataPtr& data);

    std::map<std::string, PluginDataPtr> collection_ GUARDED_BY(gate_);
    std::map<std::string, std::set<std::string>> by_filename_ GUARDED_BY(gate_);
    std::set<std::string> invalid_ GUARDED_BY(gate_);
    RegistryGate gate_;
    std::map<void*, PluginDataPtr> instances_ GUARDED_BY(instance_mutex_);
    TOVA_Mutex instance_mutex_ ACQUIRED_AFTER(lock_order::instances)
        ACQUIRED_BEFORE(lock_order::record);

    friend struct PluginProviderAccess;  // tests put entries without a record into the tables
};

// The record of one registered plug-in.
//
// Thread safety: as DelayLoadPlugin; the flag is atomic, because it is read outside the gate.
// Invariants: filename_ is constant. At most one thread at a time has put the unload off.
class PluginProvider::PluginData : public DelayLoadPlugin {
  public:
    PluginData(const std::string& fkey, const std::string& file_path, const std::string& filename,
               bool delay_load)
        : DelayLoadPlugin(fkey, file_path, delay_load), filename_(filename) {
        put_off_.run = &RunPutOff;
    }

    const std::string& filename() const { return filename_; }

    // Set while UnregisterPlugin has run for this record with instances alive.
    bool IsUnregistered() const { return unregistered_.Get() == 1; }
    void SetUnregistered(bool unregistered) { unregistered_.Set(unregistered ? 1 : 0); }
    bool IsDueForUnload() const { return instance_count() < 1 && IsUnregistered(); }

    // Puts the unload off to the end of the thread's outermost read of the gate; nothing is
    // allocated. If another thread has put it off already that one carries it out.
    void PutOffUnload(PluginProvider& provider, RegistryGate& gate, const PluginDataPtr& self);

  private:
    struct PutOff : GateTask {
        PluginData* data = nullptr;
    };
    static void RunPutOff(GateTask* task);

    const std::string filename_;
    AtomicCounter unregistered_;
    AtomicCounter is_put_off_;
    PutOff put_off_;
    PluginProvider* provider_ = nullptr;
    PluginDataPtr self_;  // while it is put off
};
