#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "common/RegistryGate.h"
#include "common/SyncPoint.h"
#include "vessa2/DelayLoadPlugin.h"

class PluginProvider;
class PluginTable;

// The record of one registered plug-in.
//
// Thread safety: as DelayLoadPlugin; the flag is atomic, because it is read outside the gate. The
// links belong to the table that the record is in.
// Invariants: filename_ is constant. At most one thread at a time has put the unload off. What has
// a pin is not deleted.
class PluginRecord : public DelayLoadPlugin, private GateTask {
  public:
    // filename is the last name of the path in its normal form.
    PluginRecord(const std::string& fkey, const std::string& file_path, const std::string& filename,
                 bool delay_load);

    std::string_view filename() const { return filename_; }

    bool IsDueForUnload() const { return IsUnregistered() && !HasInstances(); }

    void Pin() {
        pins_.fetch_add(1);
        VESSA_SYNC_POINT("record.pin.raised", this);
    }
    void Unpin() {
        VESSA_SYNC_POINT("record.pin.goes", this);
        pins_.fetch_sub(1);
    }
    bool IsPinned() const { return pins_.load() > 0; }

    // Puts the unload off to the end of the thread's outermost read of the gate; nothing is
    // allocated. If another thread has put it off already that one carries it out.
    void PutOffUnload(PluginProvider& provider, RegistryGate& gate);

  private:
    friend class PluginTable;
    friend class PluginGraveyard;

    static void RunPutOff(GateTask* task);

    const std::unique_ptr<const std::string> own_filename_;  // null: the path ends with it
    const std::string_view filename_;
    PluginProvider* provider_ = nullptr;  // while the unload is put off
    PluginRecord* previous_ = nullptr;    // among the records of one module file
    PluginRecord* next_ = nullptr;        // the same, and in the graveyard
    std::atomic<int32_t> pins_{0};
    std::atomic<bool> is_put_off_{false};
};

// Records that left the registry while a thread may still look at them. Such a thread has shown
// the record as guarded in its place, or pinned it, before the record's last instance went.
//
// Thread safety: every operation on any thread; destruction by the owner alone, when no thread
// looks any more.
// Invariants: a record in here is in no table, and has no instance in one.
class PluginGraveyard {
  public:
    PluginGraveyard() = default;
    ~PluginGraveyard();
    PluginGraveyard(const PluginGraveyard&) = delete;
    PluginGraveyard& operator=(const PluginGraveyard&) = delete;

    // Deletes the record, now or when nobody looks at it any more.
    void Bury(PluginRecord* record);
    // Deletes what nobody looks at.
    void Sweep() {
        if (buried_.load() != nullptr) SweepAll();
    }

  private:
    VESSA_COLD void SweepAll();
    void Push(PluginRecord* record);

    std::atomic<PluginRecord*> buried_{nullptr};
};
