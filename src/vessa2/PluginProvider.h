#pragma once

#include <memory>
#include <string>

#include "common/CallContext.h"
#include "common/InstanceTable.h"
#include "common/LockOrder.h"
#include "common/RegistryGate.h"
#include "common/Sync.h"
#include "common/TextRef.h"
#include "vessa2/PluginRecord.h"
#include "vessa2/PluginTable.h"

// The registry: the record of each registered plug-in by fkey, and of each live instance the
// record that made it.
//
// Thread safety: every operation on any thread, from inside every plug-in call. Registrations
// and unregistrations wait for the instance operations that look plug-ins up and keep new ones
// out meanwhile; no module is called by a writer, only by readers.
// Invariants: a record leaves the table only without instances, and never unloads its module
// itself. A thread that comes to a record through the table reads the gate while it uses it; one
// that comes to it through an instance has it guarded or pinned before the instance can go. All
// records with one file name have one file path.
class PluginProvider {
  public:
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
    int CreateInstance(const CallContext& context, TextRef fkey, void*& instance,
                       int& plugin_error);
    int DestroyInstance(const CallContext& context, void* instance, int& plugin_error);
    int QueryInterface(const CallContext& context, void* instance, TextRef ikey, void*& iface,
                       int& plugin_error);
    // The same for a caller without a context.
    int CreateInstance(TextRef fkey, void*& instance, int& plugin_error);
    int DestroyInstance(void* instance, int& plugin_error);
    int QueryInterface(void* instance, TextRef ikey, void*& iface, int& plugin_error);
    // -1 for every refusal; fkeys and count are touched by the module alone.
    int GetPluginMapFkeys(const std::string& fkey, char (*fkeys)[TARNET_FKEY_SIZE], int* count);

    // Whether nothing is registered and no instance lives.
    bool IsEmpty();

  private:
    friend class PluginRecord;
    class RecordUse;
    class Burial;

    int CheckRegistration(const std::string& fkey, const std::string& file_path,
                          std::string& filename);
    int EnterAndLoad(const std::string& fkey, const std::string& file_path,
                     const std::string& filename, bool delay_load);
    int FindConflict(const PluginRecord* known, const std::string& fkey,
                     const std::string& file_path, const std::string& filename) REQUIRES(gate_);
    bool CanMeetNothing(const PluginRecord* own, const std::string& file_path,
                        const std::string& filename) REQUIRES(gate_);
    PluginRecord* EnterRecord(std::unique_ptr<PluginRecord>& fresh) REQUIRES(gate_);

    int FindRegistered(LogView& log, TextRef fkey, PluginRecord*& record) REQUIRES_SHARED(gate_);
    int KeepInstance(const CallContext& context, TextRef fkey, void* instance, PluginRecord& record,
                     int& plugin_error);
    VESSA_COLD int SettleConflict(const CallContext& context, TextRef fkey, void* instance,
                                  PluginRecord& record, int& plugin_error);
    void RefuseInstance(const CallContext& context, TextRef fkey, void* instance,
                        PluginRecord& record, const PluginRecord* owner, int& plugin_error)
        REQUIRES(instance_mutex_);
    int TakeInstance(const CallContext& context, void* instance, RecordUse& use);
    bool GuardInstance(void* instance, RecordUse& use, bool& is_there);
    int FindInstance(const CallContext& context, void* instance, TextRef ikey, RecordUse& use);
    VESSA_COLD void UnloadAfterLastInstance(PluginRecord& record);
    void UnloadPutOff(PluginRecord& record);

    PluginGraveyard graveyard_;
    PluginTable plugins_ GUARDED_BY(gate_);
    RegistryGate gate_;
    InstanceTable instances_;  // the records are PluginRecords
    // Held across the destroy of an instance that is live already; see SettleConflict.
    TOVA_Mutex instance_mutex_ ACQUIRED_AFTER(lock_order::instances)
        ACQUIRED_BEFORE(lock_order::record);

    friend struct PluginProviderAccess;  // tests put entries without a record into the tables
};

// Deletes a record that left the table, when its block ends: after the pass that took it out.
class PluginProvider::Burial {
  public:
    explicit Burial(PluginGraveyard& graveyard) : graveyard_(graveyard) {}
    ~Burial() {
        if (record_ != nullptr) graveyard_.Bury(record_);
    }
    Burial(const Burial&) = delete;
    Burial& operator=(const Burial&) = delete;

    void Take(PluginRecord* record) { record_ = record; }

  private:
    PluginGraveyard& graveyard_;
    PluginRecord* record_ = nullptr;
};

// One thread's use of a record that it came to through an instance. The outermost use of a thread
// guards the record in the thread's place; uses inside of that pin it.
class PluginProvider::RecordUse {
  public:
    RecordUse(PluginProvider& provider, ThreadState& thread)
        : provider_(provider), thread_(thread) {}
    ~RecordUse();
    RecordUse(const RecordUse&) = delete;
    RecordUse& operator=(const RecordUse&) = delete;

    PluginRecord* record() const { return record_; }
    // Whether the record can be guarded, which needs no lock: Guard it and look again. Otherwise
    // it is pinned with its entry locked.
    bool CanGuard() const { return thread_.guarded.load(std::memory_order_relaxed) == nullptr; }
    void Guard(PluginRecord* record);
    // While the entry is locked. Null is kept as it is.
    void Keep(PluginRecord* record);

  private:
    void GiveUp();

    PluginProvider& provider_;
    ThreadState& thread_;
    PluginRecord* record_ = nullptr;
    bool is_guarded_ = false;
};
