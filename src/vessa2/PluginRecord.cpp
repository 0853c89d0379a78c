#include "vessa2/PluginRecord.h"

#include "common/AsymmetricFence.h"
#include "vessa2/PluginProvider.h"

namespace {

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

bool IsLookedAt(const PluginRecord& record) {
    // Guards first: who is about to give one up has its pin by then.
    return ThreadPlaces::AnyOf(
               [&](const ThreadState& state) { return state.guarded.load() == &record; }) ||
           record.IsPinned();
}

}  // namespace

PluginRecord::PluginRecord(const std::string& fkey, const std::string& file_path,
                           const std::string& filename, bool delay_load)
    : DelayLoadPlugin(fkey, file_path, delay_load),
      own_filename_(EndsWith(file_path, filename) ? nullptr
                                                  : std::make_unique<const std::string>(filename)),
      filename_(
          own_filename_ != nullptr
              ? std::string_view(*own_filename_)
              : std::string_view(this->file_path()).substr(file_path.size() - filename.size())) {
    run = &RunPutOff;
}

void PluginRecord::PutOffUnload(PluginProvider& provider, RegistryGate& gate) {
    if (is_put_off_.exchange(true)) return;
    provider_ = &provider;
    Pin();
    gate.AfterRead(this);
    VESSA_SYNC_POINT("unload.put_off.handed_over", this);
}

void PluginRecord::RunPutOff(GateTask* task) {
    struct Done {
        PluginRecord& record;
        PluginProvider& provider;
        ~Done() {
            record.Unpin();
            provider.graveyard_.Sweep();
        }
    };
    auto& put_off = *static_cast<PluginRecord*>(task);
    const Done done{put_off, *put_off.provider_};
    // Free for the next one before the conditions are tested again: whoever puts it off from
    // now on has seen what this thread will not look at any more.
    put_off.is_put_off_.store(false);
    VESSA_SYNC_POINT("unload.put_off.runs", &put_off);
    done.provider.UnloadPutOff(put_off);
}

PluginGraveyard::~PluginGraveyard() {
    for (PluginRecord* record = buried_.load(); record != nullptr;) {
        PluginRecord* const next = record->next_;
        delete record;
        record = next;
    }
}

void PluginGraveyard::Push(PluginRecord* record) {
    PluginRecord* head = buried_.load();
    do {
        record->next_ = head;
    } while (!buried_.compare_exchange_weak(head, record));
}

void PluginGraveyard::Bury(PluginRecord* record) {
    // Only an instance leads to a record from outside the gate.
    if (!record->HadInstances()) {
        delete record;
        return;
    }
    VESSA_SYNC_POINT("graveyard.record.comes", record);
    AsymmetricFence::Heavy();
    Push(record);
    VESSA_SYNC_POINT("graveyard.record.in", this);
    SweepAll();
}

void PluginGraveyard::SweepAll() {
    for (PluginRecord* record = buried_.exchange(nullptr); record != nullptr;) {
        PluginRecord* const next = record->next_;
        VESSA_SYNC_POINT("graveyard.sweep.looks", record);
        if (IsLookedAt(*record))
            Push(record);
        else
            delete record;
        record = next;
    }
    VESSA_SYNC_POINT("graveyard.sweep.done", this);
}
