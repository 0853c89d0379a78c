#include "vessa2/PluginProvider.h"

#include <memory>
#include <new>

#include "common/AsymmetricFence.h"
#include "common/MessageFormat.h"
#include "common/NormalizePath.h"
#include "common/SyncPoint.h"
#include "vessa/vessa.h"

namespace {

int RefuseForMemory(const std::string& fkey, const std::string& file_path, bool delay_load) {
    LOG_FORMAT(kError,
               "create PluginData failed, out of memory, fkey {0}, file_path {1}, delay_load {2}",
               fkey, file_path, delay_load);
    return VESSA_ERR_OUT_OF_MEMORY;
}

// Null: no memory for it.
std::unique_ptr<PluginRecord> MakeRecord(const std::string& fkey, const std::string& file_path,
                                         const std::string& filename, bool delay_load) {
    try {
        return std::make_unique<PluginRecord>(fkey, file_path, filename, delay_load);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

// One registered entry against the new plug-in. An entry that is reached under another key has
// no record or the same file name.
int CheckEntry(TextRef key, const PluginRecord* entry, const std::string& fkey,
               const std::string& file_path) {
    if (entry == nullptr)
        LOG_FORMAT(kWarning,
                   "unexpected, plugin_collection contains invalid plugin, plugin fkey {0}", key);
    const std::string registered_path = entry == nullptr ? std::string() : entry->file_path();
    if (TextRef(fkey) == key) {
        if (file_path != registered_path) {
            LOG_FORMAT(
                kError,
                "plugin conflict, plugin fkey already exists, fkey {0}, param file_path {1}, "
                "registered plugin file path {2}",
                fkey, file_path, registered_path);
            return VESSA_ERR_PLUGIN_CONFLICT;
        }
        if (entry != nullptr && entry->IsUnregistered())
            LOG_FORMAT(
                kWarning,
                "plugin already unregistered, but not unload yet, now register again, plugin "
                "fkey {0}, file path {1}",
                fkey, file_path);
        return VESSA_OK;
    }
    if (entry == nullptr) return VESSA_OK;
    if (file_path == registered_path) {
        LOG_FORMAT(
            kWarning,
            "the same plugin file path, different plugin filenames, fkey {0}, registered fkey "
            "{1}, plugin file path {2}",
            fkey, key, file_path);
        return VESSA_OK;
    }
    LOG_FORMAT(kError,
               "plugin conflict, the same plugin filename, different plugin file paths, fkey {0}, "
               "file path {1}, registered fkey {2}, registered plugin file path {3}",
               fkey, file_path, key, registered_path);
    return VESSA_ERR_PLUGIN_CONFLICT;
}

}  // namespace

int PluginProvider::CheckRegistration(const std::string& fkey, const std::string& file_path,
                                      std::string& filename) {
    if (fkey.empty()) {
        LOG_PLAIN(kError, "param fkey should not be empty");
        return VESSA_ERR_ARGUMENT;
    }
    if (file_path.empty()) {
        LOG_PLAIN(kError, "param file_path should not be empty");
        return VESSA_ERR_ARGUMENT;
    }
    filename =
        IsPlainPath(file_path) ? FileNameOf(file_path) : FileNameOf(NormalizePath(file_path));
    if (filename.empty()) {
        LOG_FORMAT(kError, "param file_path does not contain filename, file_path {0}", file_path);
        return VESSA_ERR_ARGUMENT;
    }
    return VESSA_OK;
}

int PluginProvider::RegisterPlugin(const std::string& fkey, const std::string& file_path,
                                   bool delay_load) {
    LOG_FORMAT(kInformation, "param fkey {0}, file_path {1}, delay_load {2}", fkey, file_path,
               delay_load);
    try {
        std::string filename;
        const int refusal = CheckRegistration(fkey, file_path, filename);
        return refusal != VESSA_OK ? refusal : EnterAndLoad(fkey, file_path, filename, delay_load);
    } catch (const std::bad_alloc&) {
        return RefuseForMemory(fkey, file_path, delay_load);
    }
}

int PluginProvider::EnterAndLoad(const std::string& fkey, const std::string& file_path,
                                 const std::string& filename, bool delay_load) {
    // Made before the readers are kept out, and deleted, if it was not needed, after they were.
    std::unique_ptr<PluginRecord> fresh = MakeRecord(fkey, file_path, filename, delay_load);
    GatePass pass(gate_, GatePass::AsWriter{});
    PluginRecord* const known = plugins_.Find(fkey);
    if (const int refusal = FindConflict(known, fkey, file_path, filename)) return refusal;
    PluginRecord* const record = known != nullptr ? known : EnterRecord(fresh);
    if (record == nullptr) return RefuseForMemory(fkey, file_path, delay_load);
    record->SetUnregistered(false);
    record->set_delay_load(delay_load);
    VESSA_SYNC_POINT("registry.register.entered", this);
    pass.Downgrade();
    VESSA_SYNC_POINT("registry.register.loads", this);
    if (!record->delay_load()) {
        if (const int failure = record->LoadPlugin())
            LOG_FORMAT(kError, "load plugin failed {0}/{0:X}, fkey {1}, file path {2}", failure,
                       fkey, file_path);
    }
    LOG_FORMAT(kInformation, "register plugin succeeded, fkey {0}, file path {1}, delay load {2}",
               fkey, file_path, record->delay_load());
    return VESSA_OK;
}

// What the new plug-in meets, in the order of the registered keys up to the first refusal: the
// entries without a record, its own key, and the keys whose file has the same name. Of all
// others nothing can be said.
int PluginProvider::FindConflict(const PluginRecord* known, const std::string& fkey,
                                 const std::string& file_path, const std::string& filename) {
    if (CanMeetNothing(known, file_path, filename)) return VESSA_OK;
    return plugins_.VisitInKeyOrder(fkey, filename, [&](TextRef key, const PluginRecord* entry) {
        return CheckEntry(key, entry, fkey, file_path);
    });
}

// Whether there is nothing to refuse and nothing to say. All keys of a file name have one path: if
// it is this one they can only be warned of, which many keys on one module would make quadratic:
// not when nobody reads it.
bool PluginProvider::CanMeetNothing(const PluginRecord* own, const std::string& file_path,
                                    const std::string& filename) {
    if (plugins_.HasEntriesWithoutRecord()) return false;
    const PluginRecord* const named = plugins_.AnyWithFileName(filename);
    if (own == nullptr && named == nullptr) return true;
    if (own != nullptr && own->file_path() != file_path) return false;
    return (named == nullptr || named->file_path() == file_path) && !LogEnabled(kWarning);
}

// The fresh record, entered. Null: no memory for it or for its entry.
PluginRecord* PluginProvider::EnterRecord(std::unique_ptr<PluginRecord>& fresh) {
    if (fresh == nullptr) return nullptr;
    try {
        plugins_.Add(fresh.get());
        return fresh.release();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

int PluginProvider::UnregisterPlugin(const std::string& fkey) {
    LOG_FORMAT(kInformation, "param fkey = {0}", fkey);
    if (fkey.empty()) {
        LOG_PLAIN(kError, "param fkey should not be empty");
        return VESSA_ERR_ARGUMENT;
    }
    Burial burial(graveyard_);
    GatePass pass(gate_, GatePass::AsWriter{});
    PluginRecord* const record = plugins_.Find(fkey);
    if (record == nullptr && plugins_.HasEntryWithoutRecord(fkey)) {
        plugins_.EraseWithoutRecord(fkey);
        LOG_FORMAT(kWarning, "unexpected, plugin data is invalid, fkey {0}", fkey);
        return VESSA_OK;
    }
    if (record == nullptr) {
        LOG_FORMAT(kWarning, "unexpected, plugin collection does not contain the fkey, fkey {0}",
                   fkey);
        return VESSA_ERR_ARGUMENT;
    }
    record->SetUnregistered(true);
    VESSA_SYNC_POINT("registry.unregister.marked", record);
    // A destroy that does not see this is seen by the count, and one that does looks itself.
    if (record->HadInstances()) AsymmetricFence::Heavy();
    if (record->HasInstances()) {
        VESSA_SYNC_POINT("registry.unregister.puts_off", record);
        LOG_FORMAT(kWarning,
                   "unexpected, some plugin not destroyed, unload pluin later, fkey {0}, file path "
                   "{1}",
                   fkey, record->file_path());
        return VESSA_OK;
    }
    plugins_.Take(record);
    burial.Take(record);
    VESSA_SYNC_POINT("registry.unregister.taken", record);
    pass.Downgrade();
    VESSA_SYNC_POINT("registry.unregister.unloads", record);
    if (const int failure = record->Unload())
        LOG_FORMAT(kError, "unload plugin failed {0}/{0:X}, fkey {1}, file path {2}", failure, fkey,
                   record->file_path());
    LOG_FORMAT(kInformation, "unregister plugin succeeded, fkey {0}, file path {1}, delay load {2}",
               fkey, record->file_path(), record->delay_load());
    return VESSA_OK;
}

bool PluginProvider::IsEmpty() {
    graveyard_.Sweep();
    {
        GatePass pass(gate_, GatePass::AsReader{});
        if (!plugins_.IsEmpty()) return false;
    }
    return instances_.Size() == 0;
}
