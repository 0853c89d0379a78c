#include "vessa2/PluginProvider.h"

#include <new>

#include "common/MessageFormat.h"
#include "common/NormalizePath.h"
#include "vessa/vessa.h"

namespace {

int RefuseForMemory(const std::string& fkey, const std::string& file_path, bool delay_load) {
    LOG_FORMAT(kError,
               "create PluginData failed, out of memory, fkey {0}, file_path {1}, delay_load {2}",
               fkey, file_path, delay_load);
    return VESSA_ERR_OUT_OF_MEMORY;
}

}  // namespace

void PluginProvider::PluginData::PutOffUnload(PluginProvider& provider, RegistryGate& gate,
                                              const PluginDataPtr& self) {
    if (is_put_off_.CompareExchange(0, 1) != 0) return;
    provider_ = &provider;
    put_off_.data = this;
    self_ = self;
    gate.AfterRead(&put_off_);
}

void PluginProvider::PluginData::RunPutOff(GateTask* task) {
    PluginData& data = *static_cast<PutOff*>(task)->data;
    const PluginDataPtr self = data.self_;
    data.self_.Reset(nullptr);
    PluginProvider& provider = *data.provider_;
    // Free for the next one before the conditions are tested again: whoever puts it off from
    // now on has seen what this thread will not look at any more.
    data.is_put_off_.Set(0);
    provider.UnloadPutOff(self);
}

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
    filename = FileNameOf(NormalizePath(file_path));
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
    PluginDataPtr data;
    GatePass pass(gate_, GatePass::AsWriter{});
    if (const int refusal = FindConflict(fkey, file_path, filename)) return refusal;
    if (const int refusal = EnterRecord(fkey, file_path, filename, delay_load, data))
        return refusal;
    data->SetUnregistered(false);
    data->set_delay_load(delay_load);
    pass.Downgrade();
    if (!data->delay_load()) {
        if (const int failure = data->LoadPlugin())
            LOG_FORMAT(kError, "load plugin failed {0}/{0:X}, fkey {1}, file path {2}", failure,
                       fkey, file_path);
    }
    LOG_FORMAT(kInformation, "register plugin succeeded, fkey {0}, file path {1}, delay load {2}",
               fkey, file_path, data->delay_load());
    return VESSA_OK;
}

// What the new plug-in meets, in the order of the registered keys up to the first refusal: the
// entries without a record, its own key, and the keys whose file has the same name. Of all
// others nothing can be said.
int PluginProvider::FindConflict(const std::string& fkey, const std::string& file_path,
                                 const std::string& filename) {
    const auto bucket = by_filename_.find(filename);
    const bool is_named = bucket != by_filename_.end();
    const auto own = collection_.find(fkey);

    auto invalid = invalid_.begin();
    auto named = is_named ? bucket->second.begin() : invalid_.end();
    const auto named_end = is_named ? bucket->second.end() : invalid_.end();
    bool own_left = own != collection_.end();
    // All keys of a file name have one path. If it is this one they can only be warned of,
    // which many keys on one module would make quadratic: not when nobody reads it.
    if (is_named && !LogEnabled(kWarning)) {
        const auto first = collection_.find(*named);
        if (first->second->file_path() == file_path) named = named_end;
    }
    for (;;) {
        const std::string* key = own_left ? &own->first : nullptr;
        if (invalid != invalid_.end() && (key == nullptr || *invalid < *key)) key = &*invalid;
        if (named != named_end && (key == nullptr || *named < *key)) key = &*named;
        if (key == nullptr) return VESSA_OK;
        const auto entry = collection_.find(*key);
        if (const int refusal = CheckEntry(*key, entry->second, fkey, file_path)) return refusal;
        if (own_left && own->first == entry->first) own_left = false;
        if (invalid != invalid_.end() && *invalid == entry->first) ++invalid;
        if (named != named_end && *named == entry->first) ++named;
    }
}

// One registered entry against the new plug-in. An entry that is reached under another key has
// no record or the same file name.
int PluginProvider::CheckEntry(const std::string& key, const PluginDataPtr& entry,
                               const std::string& fkey, const std::string& file_path) {
    if (entry.IsNull())
        LOG_FORMAT(kWarning,
                   "unexpected, plugin_collection contains invalid plugin, plugin fkey {0}", key);
    const std::string registered_path = entry.IsNull() ? std::string() : entry->file_path();
    if (fkey == key) {
        if (file_path != registered_path) {
            LOG_FORMAT(
                kError,
                "plugin conflict, plugin fkey already exists, fkey {0}, param file_path {1}, "
                "registered plugin file path {2}",
                fkey, file_path, registered_path);
            return VESSA_ERR_PLUGIN_CONFLICT;
        }
        if (!entry.IsNull() && entry->IsUnregistered())
            LOG_FORMAT(
                kWarning,
                "plugin already unregistered, but not unload yet, now register again, plugin "
                "fkey {0}, file path {1}",
                fkey, file_path);
        return VESSA_OK;
    }
    if (entry.IsNull()) return VESSA_OK;
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

// Finds the key's record or enters a new one.
int PluginProvider::EnterRecord(const std::string& fkey, const std::string& file_path,
                                const std::string& filename, bool delay_load, PluginDataPtr& data) {
    const auto found = collection_.find(fkey);
    if (found != collection_.end() && !found->second.IsNull()) {
        data = found->second;
        return VESSA_OK;
    }
    try {
        return AddRecord(fkey, file_path, filename, delay_load, data);
    } catch (const std::bad_alloc&) {
        Erase(fkey, filename);
        return RefuseForMemory(fkey, file_path, delay_load);
    }
}

int PluginProvider::AddRecord(const std::string& fkey, const std::string& file_path,
                              const std::string& filename, bool delay_load, PluginDataPtr& data) {
    auto* const record = new PluginData(fkey, file_path, filename, delay_load);
    data.Reset(record);
    if (data.IsNull()) {
        delete record;
        LOG_FORMAT(kError,
                   "PluginDataPtr Reset failed, out of memory, fkey {0}, file_path {1}, delay_load "
                   "{2}",
                   fkey, file_path, delay_load);
        return VESSA_ERR_OUT_OF_MEMORY;
    }
    by_filename_[filename].insert(fkey);
    collection_[fkey] = data;
    return VESSA_OK;
}

// Takes the key out of the collection and its indexes, as far as it is in them.
void PluginProvider::Erase(const std::string& fkey, const std::string& filename) {
    const auto bucket = by_filename_.find(filename);
    if (bucket != by_filename_.end()) {
        bucket->second.erase(fkey);
        if (bucket->second.empty()) by_filename_.erase(bucket);
    }
    invalid_.erase(fkey);
    collection_.erase(fkey);
}

int PluginProvider::UnregisterPlugin(const std::string& fkey) {
    LOG_FORMAT(kInformation, "param fkey = {0}", fkey);
    if (fkey.empty()) {
        LOG_PLAIN(kError, "param fkey should not be empty");
        return VESSA_ERR_ARGUMENT;
    }
    // Outlives the pass: the record goes, if it does, outside the gate.
    PluginDataPtr data;
    GatePass pass(gate_, GatePass::AsWriter{});
    const auto found = collection_.find(fkey);
    if (found == collection_.end()) {
        LOG_FORMAT(kWarning, "unexpected, plugin collection does not contain the fkey, fkey {0}",
                   fkey);
        return VESSA_ERR_ARGUMENT;
    }
    if (found->second.IsNull()) {
        Erase(fkey, std::string());
        LOG_FORMAT(kWarning, "unexpected, plugin data is invalid, fkey {0}", fkey);
        return VESSA_OK;
    }
    data = found->second;
    if (data.IsNull()) {
        LOG_FORMAT(kError, "create PluginDataPtr failed, out of memory, fkey {0}, file path {1}",
                   fkey, found->second->file_path());
        return VESSA_ERR_OUT_OF_MEMORY;
    }
    data->SetUnregistered(true);
    if (data->instance_count() >= 1) {
        LOG_FORMAT(kWarning,
                   "unexpected, some plugin not destroyed, unload pluin later, fkey {0}, file path "
                   "{1}",
                   fkey, data->file_path());
        return VESSA_OK;
    }
    Erase(fkey, data->filename());
    pass.Downgrade();
    if (const int failure = data->Unload())
        LOG_FORMAT(kError, "unload plugin failed {0}/{0:X}, fkey {1}, file path {2}", failure, fkey,
                   data->file_path());
    LOG_FORMAT(kInformation, "unregister plugin succeeded, fkey {0}, file path {1}, delay load {2}",
               fkey, data->file_path(), data->delay_load());
    return VESSA_OK;
}

bool PluginProvider::IsEmpty() {
    {
        GatePass pass(gate_, GatePass::AsReader{});
        if (!collection_.empty()) return false;
    }
    TOVA_MutexGuard guard(instance_mutex_);
    return instances_.empty();
}
