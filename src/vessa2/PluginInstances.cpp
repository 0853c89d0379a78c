// The registry's instance side: creating, destroying and querying instances, and the unload
// that an unregistration put off while instances lived.
#include <new>

#include "common/AsymmetricFence.h"
#include "common/SyncPoint.h"
#include "vessa/vessa.h"
#include "vessa2/PluginProvider.h"

namespace {

PluginRecord* RecordOf(InstanceTable::Record record) {
    return static_cast<PluginRecord*>(record);
}

}  // namespace

PluginProvider::RecordUse::~RecordUse() {
    GiveUp();
    provider_.graveyard_.Sweep();
}

void PluginProvider::RecordUse::GiveUp() {
    if (record_ == nullptr) return;
    VESSA_SYNC_POINT("record.use.ends", record_);
    if (is_guarded_)
        thread_.guarded.store(nullptr, std::memory_order_release);
    else
        record_->Unpin();
    record_ = nullptr;
}

void PluginProvider::RecordUse::Guard(PluginRecord* record) {
    thread_.guarded.store(record, std::memory_order_release);
    // It is seen before the caller looks whether the instance is still there.
    AsymmetricFence::Light();
    VESSA_SYNC_POINT("record.guard.shown", record);
    record_ = record;
    is_guarded_ = true;
}

void PluginProvider::RecordUse::Keep(PluginRecord* record) {
    GiveUp();
    if (record == nullptr) return;
    is_guarded_ = CanGuard();
    if (is_guarded_)
        thread_.guarded.store(record, std::memory_order_release);
    else
        record->Pin();
    record_ = record;
}

int PluginProvider::CreateInstance(const CallContext& context, TextRef fkey, void*& instance,
                                   int& plugin_error) {
    LOG_FORMAT_IN(context.log, kDebug, "param fkey = {0}", fkey);
    instance = nullptr;
    plugin_error = 0;
    if (fkey.empty()) {
        LOG_PLAIN_IN(context.log, kError, "param fkey should not be empty");
        return VESSA_ERR_ARGUMENT;
    }
    PluginRecord* record = nullptr;
    GateRead read(gate_, context);
    if (const int refusal = FindRegistered(context.log, fkey, record)) return refusal;
    VESSA_SYNC_POINT("create.record.found", record);
    if (const int failure = record->CreateInstance(context, fkey, instance, plugin_error)) {
        // Kept: the plug-in's error stands where the text says fkey.
        LOG_FORMAT_IN(context.log, kError,
                      "create plugin instance failed {0}/{0:X}, plugin error {1}/{1:X}, fkey {1}, "
                      "plugin file path {2}",
                      failure, plugin_error, record->file_path());
        return failure;
    }
    if (instance == nullptr) {
        LOG_FORMAT_IN(context.log, kWarning,
                      "unexpected, plugin return invalid instance, fkey {0}, plugin file path {1}",
                      fkey, record->file_path());
        return VESSA_OK;
    }
    VESSA_SYNC_POINT("create.instance.made", instance);
    try {
        return KeepInstance(context, fkey, instance, *record, plugin_error);
    } catch (const std::bad_alloc&) {
        // Nobody could ever give back an instance that is not in the table.
        record->DestroyInstance(context, instance, plugin_error);
        plugin_error = 0;
        instance = nullptr;
        return VESSA_ERR_OUT_OF_MEMORY;
    }
}

// 0 and the record; VESSA_FAILED for an entry without one; VESSA_ERR_NOT_REGISTERED for the
// rest.
int PluginProvider::FindRegistered(LogView& log, TextRef fkey, PluginRecord*& record) {
    PluginRecord* const found = plugins_.Find(fkey.view());
    if (found == nullptr && plugins_.HasEntryWithoutRecord(fkey.view())) {
        LOG_FORMAT_IN(log, kError, "unexpected, plugin data is invalid, fkey {0}", fkey);
        return VESSA_FAILED;
    }
    if (found == nullptr) {
        LOG_FORMAT_IN(log, kWarning, "fkey not found in plugin collection, fkey {0}", fkey);
        return VESSA_ERR_NOT_REGISTERED;
    }
    if (found->IsUnregistered()) {
        LOG_FORMAT_IN(log, kWarning, "plugin already unregistered, fkey {0}, plugin file path {1}",
                      fkey, found->file_path());
        return VESSA_ERR_NOT_REGISTERED;
    }
    record = found;
    return VESSA_OK;
}

int PluginProvider::KeepInstance(const CallContext& context, TextRef fkey, void* instance,
                                 PluginRecord& record, int& plugin_error) {
    if (!instances_.Insert(instance, &record)) {
        if (const int refusal = SettleConflict(context, fkey, instance, record, plugin_error))
            return refusal;
    }
    VESSA_SYNC_POINT("create.instance.entered", instance);
    LOG_FORMAT_IN(context.log, kDebug,
                  "create plugin instance succeeded, instance {0}, fkey {1}, plugin file path {2}",
                  instance, fkey, record.file_path());
    return VESSA_OK;
}

// The module handed out a pointer that is live. The entry stays held across the module's destroy:
// a module that counts its uses of one object must not see the live one go meanwhile. 0: it is not
// live any more, and the new one is entered.
int PluginProvider::SettleConflict(const CallContext& context, TextRef fkey, void* instance,
                                   PluginRecord& record, int& plugin_error) {
    VESSA_SYNC_POINT("conflict.mutex.asks", instance);
    TOVA_MutexGuard guard(instance_mutex_);
    InstanceTable::Record owner = nullptr;
    bool was_held = false;
    while (!instances_.Hold(instance, owner, was_held)) {
        if (instances_.Insert(instance, &record)) return VESSA_OK;
    }
    // Of two holds on one thread, one inside the other, the outer one ends it.
    struct LetGo {
        InstanceTable* table;
        void* instance;
        ~LetGo() {
            if (table != nullptr) table->LetGo(instance);
        }
    } const let_go{was_held ? nullptr : &instances_, instance};
    VESSA_SYNC_POINT("conflict.entry.held", instance);
    RefuseInstance(context, fkey, instance, record, RecordOf(owner), plugin_error);
    VESSA_SYNC_POINT("conflict.instance.destroyed", instance);
    return VESSA_ERR_INSTANCE_CONFLICT;
}

void PluginProvider::RefuseInstance(const CallContext& context, TextRef fkey, void* instance,
                                    PluginRecord& record, const PluginRecord* owner,
                                    int& plugin_error) {
    if (owner == nullptr)
        LOG_FORMAT_IN(
            context.log, kError,
            "plugin instance conflict, and plguin instance collection contains invalid plugin "
            "ptr, instance {0}, fkey {1}, plugin file path {2}",
            instance, fkey, record.file_path());
    else
        LOG_FORMAT_IN(
            context.log, kError,
            "plugin instance conflict, instance {0}, fkey {1}, plugin file path {2}, conflict "
            "plugin fkey {3}, file path {4}",
            instance, fkey, record.file_path(), owner->fkey(), owner->file_path());
    if (const int failure = record.DestroyInstance(context, instance, plugin_error))  // calls out
        LOG_FORMAT_IN(
            context.log, kWarning,
            "plugin instance conflict, and destroy instance failed {0}/{0:X}, plugin error "
            "{1}/{1:X}, instance {2}, fkey {3}",
            failure, plugin_error, instance, fkey);
}

int PluginProvider::DestroyInstance(const CallContext& context, void* instance, int& plugin_error) {
    LOG_FORMAT_IN(context.log, kDebug, "param instance = {0}", instance);
    plugin_error = 0;
    if (instance == TARNET_INVALID_HANDLE) {
        LOG_PLAIN_IN(context.log, kError, "param instance should no be TARNET_INVALID_HANDLE");
        return VESSA_ERR_ARGUMENT;
    }
    RecordUse use(*this, context.thread);
    VESSA_SYNC_POINT("destroy.call.begins", instance);
    const int taken = TakeInstance(context, instance, use);
    VESSA_SYNC_POINT("destroy.entry.taken", instance);
    if (taken != VESSA_OK || use.record() == nullptr) return taken;
    PluginRecord& record = *use.record();
    if (const int failure = record.DestroyInstance(context, instance, plugin_error)) {
        LOG_FORMAT_IN(
            context.log, kError,
            "destroy plugin instance failed {0}/{0:X}, plugin error {1}/{1:X}, instance {2}",
            failure, plugin_error, instance);
        return failure;
    }
    VESSA_SYNC_POINT("destroy.instance.gone", &record);
    if (!record.IsDueForUnload()) {
        LOG_FORMAT_IN(context.log, kDebug,
                      "destroy instance succeeded, instance {0}, fkey {1}, plugin file path {2}",
                      instance, record.fkey(), record.file_path());
        return VESSA_OK;
    }
    LOG_FORMAT_IN(context.log, kInformation,
                  "destroy instance succeeded, and need unload plugin, instance {0}, fkey {1}, "
                  "plugin file path {2}",
                  instance, record.fkey(), record.file_path());
    VESSA_SYNC_POINT("destroy.record.is_due", &record);
    UnloadAfterLastInstance(record);
    context.log.Renew();
    return VESSA_OK;
}

// Finds the instance and takes it out in one stretch, so that of two destroys one is refused.
// 0 without a record: the entry had none and is gone.
int PluginProvider::TakeInstance(const CallContext& context, void* instance, RecordUse& use) {
    const auto keep = [&](InstanceTable::Record record) { use.Keep(RecordOf(record)); };
    InstanceTable::Taken taken = instances_.Take(instance, false, keep);
    if (taken == InstanceTable::kHeld) {
        VESSA_SYNC_POINT("destroy.entry.is_held", instance);
        // Another instance with this pointer is being destroyed, perhaps by this very thread.
        TOVA_MutexGuard guard(instance_mutex_);
        taken = instances_.Take(instance, true, keep);
    }
    if (taken == InstanceTable::kAbsent) {
        LOG_FORMAT_IN(context.log, kWarning,
                      "plugin instance collection does not contain the instance, instance {0}",
                      instance);
        return VESSA_ERR_ARGUMENT;
    }
    if (use.record() == nullptr)
        LOG_FORMAT_IN(
            context.log, kWarning,
            "unexpected, plugin instance collection contains invalid plugin ptr, the instance "
            "is erase, and ignored, instance {0}",
            instance);
    return VESSA_OK;
}

void PluginProvider::UnloadAfterLastInstance(PluginRecord& record) {
    if (gate_.ReadsHere())
        record.PutOffUnload(*this, gate_);
    else
        UnloadPutOff(record);
}

void PluginProvider::UnloadPutOff(PluginRecord& record) {
    Burial burial(graveyard_);
    GatePass pass(gate_, GatePass::AsWriter{});
    VESSA_SYNC_POINT("unload.put_off.looks", &record);
    const PluginRecord* const found = plugins_.Find(record.fkey().view());
    if (found == nullptr && !plugins_.HasEntryWithoutRecord(record.fkey().view())) {
        LOG_FORMAT(kInformation, "plugin already unloaded, fkey {0}, plugin file path {1}",
                   record.fkey(), record.file_path());
        return;
    }
    // Another record under the key is somebody else's registration.
    if (found != &record || !record.IsDueForUnload()) {
        LOG_FORMAT(kInformation, "not need unload plugin, fkey {0}, plugin file path {1}",
                   record.fkey(), record.file_path());
        return;
    }
    plugins_.Take(&record);
    burial.Take(&record);
    pass.Downgrade();
    VESSA_SYNC_POINT("unload.put_off.unloads", &record);
    const int failure = record.Unload();
    if (failure == VESSA_OK)
        LOG_FORMAT(kInformation, "unload plugin succeeded, fkey {0}, file path {1}, delay load {2}",
                   record.fkey(), record.file_path(), record.delay_load());
    else
        LOG_FORMAT(kError,
                   "unload plugin failed, and ignored, error {0}/{0:X}, fkey {1}, file path {2}",
                   failure, record.fkey(), record.file_path());
}

int PluginProvider::QueryInterface(const CallContext& context, void* instance, TextRef ikey,
                                   void*& iface, int& plugin_error) {
    LOG_FORMAT_IN(context.log, kDebug, "param instance = {0}, ikey = {1}", instance, ikey);
    iface = nullptr;
    plugin_error = 0;
    if (instance == TARNET_INVALID_HANDLE) {
        LOG_PLAIN_IN(context.log, kError, "param instance should not be TARNET_INVALID_HANDLE");
        return VESSA_ERR_ARGUMENT;
    }
    if (ikey.empty()) {
        LOG_PLAIN_IN(context.log, kError, "param ikey should not be empty");
        return VESSA_ERR_ARGUMENT;
    }
    RecordUse use(*this, context.thread);
    if (const int refusal = FindInstance(context, instance, ikey, use)) return refusal;
    PluginRecord& record = *use.record();
    if (const int failure = record.QueryInterface(context, instance, ikey, iface, plugin_error)) {
        LOG_FORMAT_IN(
            context.log, kError,
            "query plugin interface failed {0}/{0:X}, plugin_error {1}/{1:X}, instance {2}, "
            "ikey {3}, fkey {4}, plugin file path {5}",
            failure, plugin_error, instance, ikey, record.fkey(), record.file_path());
        return failure;
    }
    LOG_FORMAT_IN(
        context.log, kDebug,
        "query plugin interface succeeded, instance {0}, ikey {1}, interface {2}, fkey {3}, "
        "plugin file path {4}",
        instance, ikey, iface, record.fkey(), record.file_path());
    return VESSA_OK;
}

// Looks without a lock, and guards the record of what it finds. False: that did not settle whether
// the instance is there, because others change the table all the time or there is no guard left.
bool PluginProvider::GuardInstance(void* instance, RecordUse& use, bool& is_there) {
    constexpr int kLooks = 8;
    for (int looks = 0; looks < kLooks && use.CanGuard(); ++looks) {
        const InstanceTable::Found found = instances_.Find(instance);
        is_there = found.is_there;
        if (found.record == nullptr) return true;
        VESSA_SYNC_POINT("query.record.found", found.record);
        use.Guard(RecordOf(found.record));
        if (InstanceTable::IsCurrent(found)) return true;
        use.Keep(nullptr);
    }
    return false;
}

int PluginProvider::FindInstance(const CallContext& context, void* instance, TextRef ikey,
                                 RecordUse& use) {
    bool is_there = false;
    if (!GuardInstance(instance, use, is_there)) {
        is_there = instances_.WithEntry(
            instance, [&](InstanceTable::Record record) { use.Keep(RecordOf(record)); });
    }
    VESSA_SYNC_POINT("query.record.kept", instance);
    if (!is_there) {
        LOG_FORMAT_IN(
            context.log, kWarning,
            "plugin instance collection does not contain the instance, instance {0}, ikey {1}",
            instance, ikey);
        return VESSA_ERR_ARGUMENT;
    }
    if (use.record() == nullptr) {
        LOG_FORMAT_IN(
            context.log, kWarning,
            "unexpected, plugin instance collection contains invalid plugin ptr, instance {0}, "
            "ikey {1}",
            instance, ikey);
        return VESSA_FAILED;
    }
    return VESSA_OK;
}

int PluginProvider::CreateInstance(TextRef fkey, void*& instance, int& plugin_error) {
    return OwnContext().Run([&](const CallContext& context) {
        return CreateInstance(context, fkey, instance, plugin_error);
    });
}

int PluginProvider::DestroyInstance(void* instance, int& plugin_error) {
    return OwnContext().Run([&](const CallContext& context) {
        return DestroyInstance(context, instance, plugin_error);
    });
}

int PluginProvider::QueryInterface(void* instance, TextRef ikey, void*& iface, int& plugin_error) {
    return OwnContext().Run([&](const CallContext& context) {
        return QueryInterface(context, instance, ikey, iface, plugin_error);
    });
}

int PluginProvider::GetPluginMapFkeys(const std::string& fkey, char (*fkeys)[TARNET_FKEY_SIZE],
                                      int* count) {
    LOG_FORMAT(kDebug, "param fkey = {0}", fkey);
    if (fkey.empty()) {
        LOG_PLAIN(kError, "param fkey should not be empty");
        return VESSA_FAILED;
    }
    PluginRecord* record = nullptr;
    GatePass pass(gate_, GatePass::AsReader{});
    LogView log;
    if (FindRegistered(log, fkey, record) != VESSA_OK) return VESSA_FAILED;
    return record->GetPluginMapFkeys(fkeys, count);
}
