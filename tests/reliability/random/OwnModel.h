// OwnModel.h: what must be true of the keys that one thread owns: which list files were read, what
// is registered from them, which modules are loaded. Written down from the documents of the library
// (vessa.h, tarnet.h, docs/design), not from its code.
//
// Used by its thread alone, and by the conductor while all threads stand still.
#ifndef VESSA_TESTS_RELIABILITY_RANDOM_OWNMODEL_H
#define VESSA_TESTS_RELIABILITY_RANDOM_OWNMODEL_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Files.h"

namespace vessa_random {

// What the runtime is made to fail in a call or round.
enum class LoadFault { kNone, kAccess, kLoad, kSymbol };

class OwnModel {
  public:
    struct Record {
        std::string path;
        bool unregistered = false;
        bool loaded = false;
        long instances = 0;  // as the library counts them
    };
    // A list file as it stands on disk.
    struct DiskList {
        bool readable = true;
        std::vector<Item> items;
    };

    // Changes on disk. What a list said is in force until a round has read the change.
    void PutList(const std::string& path, const DiskList& list);
    void RemoveList(const std::string& path);
    void PutModule(const std::string& path, const ModuleFile& file) { disk_modules_[path] = file; }
    void RemoveModule(const std::string& path) { disk_modules_.erase(path); }
    const std::map<std::string, DiskList>& lists() const { return disk_lists_; }

    // One round of changes; with a fault it meets that all the time.
    void Round(LoadFault fault = LoadFault::kNone);
    // The library was stopped and forgot its lists; and started: the next round reads all of them.
    void Stop();
    void Restart();

    // Whether a create comes to the module, and what it gives if not. Loads the module.
    int Reach(const std::string& key, LoadFault fault = LoadFault::kNone);
    // Whether such a create would load a module from its file.
    bool WouldLoad(const std::string& key) const;
    // For a create that was broken off by want of memory: whether the module is loaded now.
    void AdoptLoad(const std::string& key, bool loaded, uint64_t serial);
    uint64_t LoadedSerial(const std::string& key) const;
    void AddInstance(const std::string& key) { ++records_.at(key).instances; }
    // True: it was the last one of an unregistered key. The record is there until Forget.
    bool RemoveInstance(const std::string& key);
    // The unload that follows, at once or put off: nothing if the key is in use again.
    void Forget(const std::string& key);

    const Record* Find(const std::string& key) const;
    bool HasPending() const;
    // Reads one attribute: null if it is not there.
    const Item* Declared(const std::string& key) const;
    // The keys of the stored lists, in order.
    std::vector<std::string> AllKeys() const;
    // The numbers of the modules that are loaded, and how many file names are taken for good.
    std::vector<std::pair<std::string, uint64_t>> LoadedModules() const;
    size_t TakenNames() const { return taken_names_.size(); }
    // How many of these file names, and of those that are taken, there are.
    size_t CountNames(std::set<std::string> names) const {
        for (const auto& taken : taken_names_) names.insert(taken.first);
        return names.size();
    }
    const std::map<std::string, Record>& records() const { return records_; }
    const ModuleFile* FileAt(const std::string& path) const;

  private:
    struct Registration {
        Item item;
        bool registered = false;
    };
    struct Loaded {
        ModuleFile file;
        int users = 0;
    };
    struct Changes {
        std::vector<Item> come;
        std::vector<Item> go;
    };

    void CollectList(const std::string& path, LoadFault fault, Changes& changes);
    std::vector<Item> Announced(const std::vector<Item>& items) const;
    void Enter(const std::vector<Item>& items);
    void RegisterPending(LoadFault fault);
    bool Register(const Item& item, LoadFault fault);
    bool IsRefused(const Item& item) const;
    void Unregister(const std::vector<Item>& items);
    void UnregisterKey(const std::string& key);
    int Load(Record& record, LoadFault fault);
    void Unload(Record& record);

    std::map<std::string, DiskList> disk_lists_;
    std::map<std::string, ModuleFile> disk_modules_;
    std::set<std::string> changed_lists_;
    std::map<std::string, std::vector<Item>> stored_;
    std::map<std::string, Registration> table_;  // by key, "_", list
    std::map<std::string, Record> records_;
    std::map<std::string, Loaded> loaded_;            // by path
    std::map<std::string, std::string> taken_names_;  // file name to path
};

std::string FileName(const std::string& path);

}  // namespace vessa_random

#endif
