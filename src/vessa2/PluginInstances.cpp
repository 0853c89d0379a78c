// The registry's instance side: creating, destroying and querying instances, and the unload
// that an unregistration put off while instances lived.
#include <new>

#include "common/MessageFormat.h"
#include "vessa/vessa.h"
#include "vessa2/PluginProvider.h"

int PluginProvider::CreateInstance(const std::string& fkey, void*& instance, int& plugin_error) {
    LOG_FORMAT(kDebug, "param fkey = {0}", fkey);
    instance = nullptr;
    plugin_error = 0;
    if (fkey.empty()) {
        LOG_PLAIN(kError, "param fkey should not be empty");
        return VESSA_ERR_ARGUMENT;
    }
    PluginDataPtr data;
    GatePass pass(gate_, GatePass::AsReader{});
    if (const int refusal = FindRegistered(fkey, data)) return refusal;
    if (const int failure = data->CreateInstance(fkey, instance, plugin_error)) {
        // Kept: the plug-in's error stands where the text says fkey.
        LOG_FORMAT(kError,
                   "create plugin instance failed {0}/{0:X}, plugin error {1}/{1:X}, fkey {1}, "
                   "plugin file path {2}",
                   failure, plugin_error, data->file_path());
        return failure;
    }
    if (instance == nullptr) {
        LOG_FORMAT(kWarning,
                   "unexpected, plugin return invalid instance, fkey {0}, plugin file path {1}",
                   fkey, data->file_path());
        return VESSA_OK;
    }
    try {
        return KeepInstance(fkey, instance, data, plugin_error);
    } catch (const std::bad_alloc&) {
        // Nobody could ever give back an instance that is not in the table.
        data->DestroyInstance(instance, plugin_error);
        plugin_error = 0;
        instance = nullptr;
        return VESSA_ERR_OUT_OF_MEMORY;
    }
}

// 0 and the record; VESSA_FAILED for an entry without one; VESSA_ERR_NOT_REGISTERED for the
// rest.
int PluginProvider::FindRegistered(const std::string& fkey, PluginDataPtr& data) {
    const auto found = collection_.find(fkey);
    if (found == collection_.end()) {
        LOG_FORMAT(kWarning, "fkey not found in plugin collection, fkey {0}", fkey);
        return VESSA_ERR_NOT_REGISTERED;
    }
    if (found->second.IsNull()) {
        LOG_FORMAT(kError, "unexpected, plugin data is invalid, fkey {0}", fkey);
        return VESSA_FAILED;
    }
    if (found->second->IsUnregistered()) {
        LOG_FORMAT(kWarning, "plugin already unregistered, fkey {0}, plugin file path {1}", fkey,
                   found->second->file_path());
        return VESSA_ERR_NOT_REGISTERED;
    }
    data = found->second;
    return VESSA_OK;
}

int PluginProvider::KeepInstance(const std::string& fkey, void* instance, const PluginDataPtr& data,
                                 int& plugin_error) {
    {
        TOVA_MutexGuard guard(instance_mutex_);
        const auto inserted = instances_.emplace(instance, data);
        if (!inserted.second) {
            const PluginDataPtr owner = inserted.first->second;
            return RefuseInstance(fkey, instance, data, owner, plugin_error);
        }
    }
    LOG_FORMAT(kDebug,
               "create plugin instance succeeded, instance {0}, fkey {1}, plugin file path {2}",
               instance, fkey, data->file_path());
    return VESSA_OK;
}

// The module handed out a pointer that is live. The mutex stays held across the module's
// destroy: a module that counts its uses of one object must not see the live one go meanwhile.
int PluginProvider::RefuseInstance(const std::string& fkey, void* instance,
                                   const PluginDataPtr& data, const PluginDataPtr& owner,
                                   int& plugin_error) {
    if (owner.IsNull())
        LOG_FORMAT(
            kError,
            "plugin instance conflict, and plguin instance collection contains invalid plugin "
            "ptr, instance {0}, fkey {1}, plugin file path {2}",
            instance, fkey, data->file_path());
    else
        LOG_FORMAT(
            kError,
            "plugin instance conflict, instance {0}, fkey {1}, plugin file path {2}, conflict "
            "plugin fkey {3}, file path {4}",
            instance, fkey, data->file_path(), owner->fkey(), owner->file_path());
    if (const int failure = data->DestroyInstance(instance, plugin_error))  // calls out
        LOG_FORMAT(kWarning,
                   "plugin instance conflict, and destroy instance failed {0}/{0:X}, plugin error "
                   "{1}/{1:X}, instance {2}, fkey {3}",
                   failure, plugin_error, instance, fkey);
    return VESSA_ERR_INSTANCE_CONFLICT;
}

int PluginProvider::DestroyInstance(void* instance, int& plugin_error) {
    LOG_FORMAT(kDebug, "param instance = {0}", instance);
    plugin_error = 0;
    if (instance == TARNET_INVALID_HANDLE) {
        LOG_PLAIN(kError, "param instance should no be TARNET_INVALID_HANDLE");
        return VESSA_ERR_ARGUMENT;
    }
    PluginDataPtr data;
    const int taken = TakeInstance(instance, data);
    if (taken != VESSA_OK || data.IsNull()) return taken;
    if (const int failure = data->DestroyInstance(instance, plugin_error)) {
        LOG_FORMAT(kError,
                   "destroy plugin instance failed {0}/{0:X}, plugin error {1}/{1:X}, instance {2}",
                   failure, plugin_error, instance);
        return failure;
    }
    if (!data->IsDueForUnload()) {
        LOG_FORMAT(kDebug,
                   "destroy instance succeeded, instance {0}, fkey {1}, plugin file path {2}",
                   instance, data->fkey(), data->file_path());
        return VESSA_OK;
    }
    LOG_FORMAT(kInformation,
               "destroy instance succeeded, and need unload plugin, instance {0}, fkey {1}, plugin "
               "file path {2}",
               instance, data->fkey(), data->file_path());
    UnloadAfterLastInstance(data);
    return VESSA_OK;
}

// Finds the instance and takes it out in one stretch, so that of two destroys one is refused.
// 0 without a record: the entry had none and is gone.
int PluginProvider::TakeInstance(void* instance, PluginDataPtr& data) {
    TOVA_MutexGuard guard(instance_mutex_);
    const auto found = instances_.find(instance);
    if (found == instances_.end()) {
        LOG_FORMAT(kWarning,
                   "plugin instance collection does not contain the instance, instance {0}",
                   instance);
        return VESSA_ERR_ARGUMENT;
    }
    if (found->second.IsNull()) {
        instances_.erase(found);
        LOG_FORMAT(
            kWarning,
            "unexpected, plugin instance collection contains invalid plugin ptr, the instance "
            "is erase, and ignored, instance {0}",
            instance);
        return VESSA_OK;
    }
    data = found->second;
    if (data.IsNull()) {
        LOG_FORMAT(
            kError,
            "PluginDataPtr assign failed, out of memory, instance {0}, fkey {1}, file path {2}",
            instance, found->second->fkey(), found->second->file_path());
        return VESSA_ERR_OUT_OF_MEMORY;
    }
    instances_.erase(found);
    return VESSA_OK;
}

void PluginProvider::UnloadAfterLastInstance(const PluginDataPtr& data) {
    if (gate_.ReadsHere())
        data->PutOffUnload(*this, gate_, data);
    else
        UnloadPutOff(data);
}

void PluginProvider::UnloadPutOff(const PluginDataPtr& data) {
    GatePass pass(gate_, GatePass::AsWriter{});
    const auto found = collection_.find(data->fkey());
    if (found == collection_.end()) {
        LOG_FORMAT(kInformation, "plugin already unloaded, fkey {0}, plugin file path {1}",
                   data->fkey(), data->file_path());
        return;
    }
    // Another record under the key is somebody else's registration.
    if (found->second.Get() != data.Get() || !data->IsDueForUnload()) {
        LOG_FORMAT(kInformation, "not need unload plugin, fkey {0}, plugin file path {1}",
                   data->fkey(), data->file_path());
        return;
    }
    Erase(data->fkey(), data->filename());
    pass.Downgrade();
    const int failure = data->Unload();
    if (failure == VESSA_OK)
        LOG_FORMAT(kInformation, "unload plugin succeeded, fkey {0}, file path {1}, delay load {2}",
                   data->fkey(), data->file_path(), data->delay_load());
    else
        LOG_FORMAT(kError,
                   "unload plugin failed, and ignored, error {0}/{0:X}, fkey {1}, file path {2}",
                   failure, data->fkey(), data->file_path());
}

int PluginProvider::QueryInterface(void* instance, const std::string& ikey, void*& iface,
                                   int& plugin_error) {
    LOG_FORMAT(kDebug, "param instance = {0}, ikey = {1}", instance, ikey);
    iface = nullptr;
    plugin_error = 0;
    if (instance == TARNET_INVALID_HANDLE) {
        LOG_PLAIN(kError, "param instance should not be TARNET_INVALID_HANDLE");
        return VESSA_ERR_ARGUMENT;
    }
    if (ikey.empty()) {
        LOG_PLAIN(kError, "param ikey should not be empty");
        return VESSA_ERR_ARGUMENT;
    }
    PluginDataPtr data;
    if (const int refusal = FindInstance(instance, ikey, data)) return refusal;
    if (const int failure = data->QueryInterface(instance, ikey, iface, plugin_error)) {
        LOG_FORMAT(kError,
                   "query plugin interface failed {0}/{0:X}, plugin_error {1}/{1:X}, instance {2}, "
                   "ikey {3}, fkey {4}, plugin file path {5}",
                   failure, plugin_error, instance, ikey, data->fkey(), data->file_path());
        return failure;
    }
    LOG_FORMAT(kDebug,
               "query plugin interface succeeded, instance {0}, ikey {1}, interface {2}, fkey {3}, "
               "plugin file path {4}",
               instance, ikey, iface, data->fkey(), data->file_path());
    return VESSA_OK;
}

int PluginProvider::FindInstance(void* instance, const std::string& ikey, PluginDataPtr& data) {
    TOVA_MutexGuard guard(instance_mutex_);
    const auto found = instances_.find(instance);
    if (found == instances_.end()) {
        LOG_FORMAT(
            kWarning,
            "plugin instance collection does not contain the instance, instance {0}, ikey {1}",
            instance, ikey);
        return VESSA_ERR_ARGUMENT;
    }
    if (found->second.IsNull()) {
        LOG_FORMAT(
            kWarning,
            "unexpected, plugin instance collection contains invalid plugin ptr, instance {0}, "
            "ikey {1}",
            instance, ikey);
        return VESSA_FAILED;
    }
    data = found->second;
    if (data.IsNull()) {
        LOG_FORMAT(
            kError,
            "PluginDataPtr assign failed, out of memory, instance {0}, fkey {1}, file path {2}",
            instance, found->second->fkey(), found->second->file_path());
        return VESSA_ERR_OUT_OF_MEMORY;
    }
    return VESSA_OK;
}

int PluginProvider::GetPluginMapFkeys(const std::string& fkey, char (*fkeys)[TARNET_FKEY_SIZE],
                                      int* count) {
    LOG_FORMAT(kDebug, "param fkey = {0}", fkey);
    if (fkey.empty()) {
        LOG_PLAIN(kError, "param fkey should not be empty");
        return VESSA_FAILED;
    }
    PluginDataPtr data;
    GatePass pass(gate_, GatePass::AsReader{});
    if (FindRegistered(fkey, data) != VESSA_OK) return VESSA_FAILED;
    return data->GetPluginMapFkeys(fkeys, count);
}
