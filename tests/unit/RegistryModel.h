// RegistryModel.h: what the registry is to do, written down with two maps and nothing clever: the
// results, the out values, and every line that it and its records log, in their order. For one
// thread, and for the modules good_v2, same_instance and create_fails, told apart by their files'
// names.
#ifndef VESSA_TESTS_UNIT_REGISTRYMODEL_H
#define VESSA_TESTS_UNIT_REGISTRYMODEL_H

#include <map>
#include <string>
#include <vector>

#include "common/MessageFormat.h"
#include "modules/TestInterface.h"
#include "unit/LoggedCode.h"
#include "vessa/tarnet.h"
#include "vessa/vessa.h"

namespace vessa_test {

inline std::string Address(const void* pointer) {
    std::string text;
    AppendAddress(text, static_cast<uint64_t>(reinterpret_cast<uintptr_t>(pointer)));
    return text;
}

class RegistryModel {
  public:
    struct Outcome {
        int result = VESSA_OK;
        int plugin_error = 0;
        void* value = nullptr;  // the instance or the interface
    };

    struct Entry {
        std::string path;
        bool delay_load = false;
        bool is_unregistered = false;
        bool is_loaded = false;
        bool has_record = true;
        int instances = 0;
    };

    // Those that the last operation is to log.
    std::vector<std::string> lines;
    std::map<std::string, Entry> entries;
    std::map<void*, std::string> instances;  // to the fkey that made it

    Outcome Register(const std::string& fkey, const std::string& path, bool delay_load);
    Outcome Unregister(const std::string& fkey);
    // made is what the real one gave: an address that nobody can foresee.
    Outcome Create(const std::string& fkey, void* made);
    Outcome Destroy(void* instance);
    Outcome Query(void* instance, const std::string& ikey, void* found);

  private:
    static Outcome Refused(int code) { return Outcome{code, 0, nullptr}; }
    static std::string Name(const std::string& path) { return path.substr(path.rfind('/') + 1); }
    static bool Is(const std::string& path, const char* module) {
        return Name(path).find(module) == 0;
    }
    void Log(int level, const std::string& text) {
        lines.push_back(std::to_string(level) + " " + text);
    }
    Outcome RefusedWith(int code, int level, const std::string& text) {
        Log(level, text);
        return Refused(code);
    }

    int Meet(const std::string& key, const Entry& entry, const std::string& fkey,
             const std::string& path);
    int Load(Entry& entry);
    void Remove(const std::string& fkey);
    Outcome FailCreate(int result, int plugin_error, const std::string& path);
    Outcome Conflict(const std::string& fkey, const Entry& entry, void* made);
    void DestroyRecorded(void* instance, Entry& entry);
};

inline int RegistryModel::Meet(const std::string& key, const Entry& entry, const std::string& fkey,
                               const std::string& path) {
    if (!entry.has_record)
        Log(4, "unexpected, plugin_collection contains invalid plugin, plugin fkey " + key);
    if (key == fkey && path != entry.path) {
        Log(5, "plugin conflict, plugin fkey already exists, fkey " + fkey + ", param file_path " +
                   path + ", registered plugin file path " + entry.path);
        return VESSA_ERR_PLUGIN_CONFLICT;
    }
    if (key == fkey) {
        if (entry.is_unregistered)
            Log(4,
                "plugin already unregistered, but not unload yet, now register again, plugin "
                "fkey " +
                    fkey + ", file path " + path);
        return VESSA_OK;
    }
    if (!entry.has_record || Name(entry.path) != Name(path)) return VESSA_OK;
    if (path == entry.path) {
        Log(4, "the same plugin file path, different plugin filenames, fkey " + fkey +
                   ", registered fkey " + key + ", plugin file path " + path);
        return VESSA_OK;
    }
    Log(5, "plugin conflict, the same plugin filename, different plugin file paths, fkey " + fkey +
               ", file path " + path + ", registered fkey " + key +
               ", registered plugin file path " + entry.path);
    return VESSA_ERR_PLUGIN_CONFLICT;
}

inline int RegistryModel::Load(Entry& entry) {
    if (entry.is_loaded) return VESSA_OK;
    if (Is(entry.path, "missing")) {
        Log(5, "load plugin failed " + Code(VESSA_ERR_NO_MODULE_FILE) + ", plugin file path " +
                   entry.path);
        return VESSA_ERR_NO_MODULE_FILE;
    }
    entry.is_loaded = true;
    Log(3, "load plugin succeeded, plugin {*}, plugin file path " + entry.path);
    return VESSA_OK;
}

inline void RegistryModel::Remove(const std::string& fkey) {
    const Entry& entry = entries.at(fkey);
    if (entry.is_loaded)
        Log(3, "unload plugin succeeded, plugin {*}, plugin file path " + entry.path);
    entries.erase(fkey);
}

inline RegistryModel::Outcome RegistryModel::Register(const std::string& fkey,
                                                      const std::string& path, bool delay_load) {
    const std::string delay = delay_load ? "true" : "false";
    Log(3, "param fkey " + fkey + ", file_path " + path + ", delay_load " + delay);
    if (fkey.empty()) return RefusedWith(VESSA_ERR_ARGUMENT, 5, "param fkey should not be empty");
    if (path.empty())
        return RefusedWith(VESSA_ERR_ARGUMENT, 5, "param file_path should not be empty");
    if (Name(path).empty())
        return RefusedWith(VESSA_ERR_ARGUMENT, 5,
                           "param file_path does not contain filename, file_path " + path);
    for (const auto& [key, entry] : entries)
        if (const int refusal = Meet(key, entry, fkey, path)) return Refused(refusal);
    Entry& entry = entries[fkey];
    entry.path = path;
    entry.is_unregistered = false;
    entry.delay_load = delay_load;
    if (!delay_load) {
        if (const int failure = Load(entry))
            Log(5,
                "load plugin failed " + Code(failure) + ", fkey " + fkey + ", file path " + path);
    }
    Log(3, "register plugin succeeded, fkey " + fkey + ", file path " + path + ", delay load " +
               delay);
    return Outcome();
}

inline RegistryModel::Outcome RegistryModel::Unregister(const std::string& fkey) {
    Log(3, "param fkey = " + fkey);
    if (fkey.empty()) return RefusedWith(VESSA_ERR_ARGUMENT, 5, "param fkey should not be empty");
    const auto found = entries.find(fkey);
    if (found == entries.end())
        return RefusedWith(VESSA_ERR_ARGUMENT, 4,
                           "unexpected, plugin collection does not contain the fkey, fkey " + fkey);
    if (!found->second.has_record) {
        entries.erase(found);
        return RefusedWith(VESSA_OK, 4, "unexpected, plugin data is invalid, fkey " + fkey);
    }
    Entry& entry = found->second;
    entry.is_unregistered = true;
    if (entry.instances > 0)
        return RefusedWith(VESSA_OK, 4,
                           "unexpected, some plugin not destroyed, unload pluin later, fkey " +
                               fkey + ", file path " + entry.path);
    const Entry removed = entry;
    Remove(fkey);
    Log(3, "unregister plugin succeeded, fkey " + fkey + ", file path " + removed.path +
               ", delay load " + (removed.delay_load ? "true" : "false"));
    return Outcome();
}

inline RegistryModel::Outcome RegistryModel::FailCreate(int result, int plugin_error,
                                                        const std::string& path) {
    Log(5, "create plugin instance failed " + Code(result) + ", plugin error " +
               Code(plugin_error) + ", fkey " + std::to_string(plugin_error) +
               ", plugin file path " + path);
    return Outcome{result, plugin_error, nullptr};
}

inline void RegistryModel::DestroyRecorded(void* instance, Entry& entry) {
    --entry.instances;
    Log(2, "param instance = " + Address(instance));
    Log(2, "destroy tarnet instance succeeded, instance " + Address(instance) +
               ", plugin {*}, instance counter " + std::to_string(entry.instances) +
               ", plugin file path " + entry.path);
}

// The second use of a pointer is destroyed at once.
inline RegistryModel::Outcome RegistryModel::Conflict(const std::string& fkey, const Entry& entry,
                                                      void* made) {
    const std::string& owner = instances.at(made);
    Log(5, "plugin instance conflict, instance " + Address(made) + ", fkey " + fkey +
               ", plugin file path " + entry.path + ", conflict plugin fkey " + owner +
               ", file path " + entries.at(owner).path);
    DestroyRecorded(made, entries.at(fkey));
    return Outcome{VESSA_ERR_INSTANCE_CONFLICT, 0, made};
}

inline RegistryModel::Outcome RegistryModel::Create(const std::string& fkey, void* made) {
    Log(2, "param fkey = " + fkey);
    if (fkey.empty()) return RefusedWith(VESSA_ERR_ARGUMENT, 5, "param fkey should not be empty");
    const auto found = entries.find(fkey);
    if (found == entries.end())
        return RefusedWith(VESSA_ERR_NOT_REGISTERED, 4,
                           "fkey not found in plugin collection, fkey " + fkey);
    Entry& entry = found->second;
    if (!entry.has_record)
        return RefusedWith(VESSA_FAILED, 5, "unexpected, plugin data is invalid, fkey " + fkey);
    if (entry.is_unregistered)
        return RefusedWith(
            VESSA_ERR_NOT_REGISTERED, 4,
            "plugin already unregistered, fkey " + fkey + ", plugin file path " + entry.path);
    if (const int failure = Load(entry)) {
        Log(5, "load plugin failed " + Code(failure) + ", plugin file path " + entry.path);
        return FailCreate(failure, 0, entry.path);
    }
    if (Is(entry.path, "create_fails")) {
        Log(5, "create plugin instance failed " + Code(TEST_MODULE_ERR_CREATE) +
                   ", plugin {*}, plugin file path " + entry.path);
        return FailCreate(VESSA_FAILED, TEST_MODULE_ERR_CREATE, entry.path);
    }
    ++entry.instances;
    Log(2, "create tarnet instance succeeded, instance " + Address(made) +
               ", plugin {*}, instance counter " + std::to_string(entry.instances) +
               ", plugin file path " + entry.path);
    if (instances.count(made) != 0) return Conflict(fkey, entry, made);
    instances[made] = fkey;
    Log(2, "create plugin instance succeeded, instance " + Address(made) + ", fkey " + fkey +
               ", plugin file path " + entry.path);
    return Outcome{VESSA_OK, 0, made};
}

inline RegistryModel::Outcome RegistryModel::Destroy(void* instance) {
    Log(2, "param instance = " + Address(instance));
    if (instance == TARNET_INVALID_HANDLE)
        return RefusedWith(VESSA_ERR_ARGUMENT, 5,
                           "param instance should no be TARNET_INVALID_HANDLE");
    const auto found = instances.find(instance);
    if (found == instances.end())
        return RefusedWith(VESSA_ERR_ARGUMENT, 4,
                           "plugin instance collection does not contain the instance, instance " +
                               Address(instance));
    const std::string fkey = found->second;
    instances.erase(found);
    Entry& entry = entries.at(fkey);
    DestroyRecorded(instance, entry);
    const std::string about =
        "instance " + Address(instance) + ", fkey " + fkey + ", plugin file path " + entry.path;
    if (!entry.is_unregistered || entry.instances > 0) {
        Log(2, "destroy instance succeeded, " + about);
        return Outcome();
    }
    Log(3, "destroy instance succeeded, and need unload plugin, " + about);
    const Entry removed = entry;
    Remove(fkey);
    Log(3, "unload plugin succeeded, fkey " + fkey + ", file path " + removed.path +
               ", delay load " + (removed.delay_load ? "true" : "false"));
    return Outcome();
}

inline RegistryModel::Outcome RegistryModel::Query(void* instance, const std::string& ikey,
                                                   void* found) {
    const std::string param = "param instance = " + Address(instance) + ", ikey = " + ikey;
    Log(2, param);
    if (instance == TARNET_INVALID_HANDLE)
        return RefusedWith(VESSA_ERR_ARGUMENT, 5,
                           "param instance should not be TARNET_INVALID_HANDLE");
    if (ikey.empty()) return RefusedWith(VESSA_ERR_ARGUMENT, 5, "param ikey should not be empty");
    const std::string about = "instance " + Address(instance) + ", ikey " + ikey;
    const auto known = instances.find(instance);
    if (known == instances.end())
        return RefusedWith(VESSA_ERR_ARGUMENT, 4,
                           "plugin instance collection does not contain the instance, " + about);
    const std::string file = ", plugin file path " + entries.at(known->second).path;
    Log(2, param);
    if (ikey != TEST_MODULE_IKEY) {
        const int error = TEST_MODULE_ERR_UNKNOWN_IKEY;
        Log(5,
            "query plugin interface failed " + Code(error) + ", " + about + ", plugin {*}" + file);
        Log(5, "query plugin interface failed " + Code(VESSA_FAILED) + ", plugin_error " +
                   Code(error) + ", " + about + ", fkey " + known->second + file);
        return Outcome{VESSA_FAILED, error, nullptr};
    }
    Log(2, "query plugin interface succeeded, interface " + Address(found) + ", " + about +
               ", plugin {*}" + file);
    Log(2, "query plugin interface succeeded, " + about + ", interface " + Address(found) +
               ", fkey " + known->second + file);
    return Outcome{VESSA_OK, 0, found};
}

}  // namespace vessa_test

#endif
