// What one thread changes on disk, and the rounds that follow; its part of a checkpoint.
#include <algorithm>
#include <cstring>

#include "Counters.h"
#include "TestPlatform.h"
#include "Worker.h"

namespace vessa_random {
namespace {

constexpr int kKeySlots = 8;
constexpr int kAnnouncedKeys = 4;
constexpr int kMemoryKeys = 4;
constexpr int kLists = 4;
constexpr int kFileSlots = 5;
constexpr int kPlaces = 2;
constexpr int kMostLeftForGood = 20;
constexpr size_t kMostTakenNames = 10;

constexpr ModuleKind kBrokenKinds[] = {ModuleKind::kInitFails, ModuleKind::kInitThrows,
                                       ModuleKind::kEntryNull, ModuleKind::kSlotMissing,
                                       ModuleKind::kGarbage,   ModuleKind::kCut};

}  // namespace

Worker::Worker(Host& host, Shared& shared, int number)
    : host_(host),
      shared_(shared),
      library_(host.library()),
      number_(number),
      prefix_("t" + std::to_string(number)),
      key_generations_(kKeySlots, 0),
      file_generations_(kFileSlots, 0) {
    const ModuleFile file = Files::MakeModule(number_, ModuleKind::kGood);
    const std::string path = host_.files().Path(prefix_ + "/om/" + prefix_ + "_o" MODULE_SUFFIX);
    host_.files().PutModule(path, file);
    model_.PutModule(path, file);
    Choices choices(TheOptions().seed, static_cast<uint64_t>(number_), ~2ULL);
    for (int slot = 0; slot < kFileSlots; ++slot)
        PutModule(PathOf(slot, 0), ModuleKind::kGood, choices);
    for (int i = 0; i < kLists; ++i) EditList(choices);
}

bool Worker::IsOwn(const std::string& key) const {
    return key.compare(0, prefix_.size() + 1, prefix_ + ".") == 0;
}

std::string Worker::Name(const std::string& key, int generation) const {
    return prefix_ + "." + key + "." + std::to_string(generation);
}

std::string Worker::RandomKey(Choices& choices) {
    const int chosen = choices.Below(kKeySlots + kAnnouncedKeys + kMemoryKeys);
    if (chosen < kKeySlots)
        return Name("k" + std::to_string(chosen), key_generations_[static_cast<size_t>(chosen)]);
    if (chosen < kKeySlots + kAnnouncedKeys)
        return prefix_ + ".a" + std::to_string(chosen - kKeySlots);
    return prefix_ + ".o" + std::to_string(chosen - kKeySlots - kAnnouncedKeys);
}

std::string Worker::RandomPath(Choices& choices) {
    const int slot = choices.Below(kFileSlots);
    return PathOf(slot, choices.OneIn(3) ? 1 + choices.Below(kPlaces - 1) : 0);
}

// Mostly the same for a key, so that it can be registered.
std::string Worker::PathFor(const std::string& key, Choices& choices) {
    const std::string any = RandomPath(choices);
    if (choices.OneIn(30)) return any;
    return PathOf(std::stoi(key.substr(prefix_.size() + 2)) % kFileSlots, choices.OneIn(16) ? 1 : 0);
}

std::string Worker::PathOf(int slot, int place) const {
    return host_.files().Path(
        prefix_ + "/m" + std::to_string(place) + "/" + prefix_ + "_f" + std::to_string(slot) + "_" +
        std::to_string(file_generations_[static_cast<size_t>(slot)]) + MODULE_SUFFIX);
}

bool Worker::MayBeLeftForGood() {
    return may_leave_ && left_for_good_ < kMostLeftForGood;
}

// The key keeps its module loaded for good: from now on others stand in its place.
void Worker::Retire(const std::string& key) {
    ++left_for_good_;
    const std::string kind = key.substr(prefix_.size() + 1);
    if (kind[0] == 'k') ++key_generations_[static_cast<size_t>(std::stoi(kind.substr(1)))];
    const std::string file = FileName(model_.Find(key)->path).substr(prefix_.size() + 1);
    if (file[0] == 'f') ++file_generations_[static_cast<size_t>(std::stoi(file.substr(1)))];
}

void Worker::OwnRound(Choices& choices) {
    const std::lock_guard<std::mutex> lock(host_.scan_mutex());
    const int edits = 1 + choices.Below(3);
    for (int i = 0; i < edits; ++i) {
        if (choices.OneIn(2)) EditModule(choices);
        EditList(choices);
    }
    const int chosen = choices.Below(12);
    RoundFault fault;
    if (host_.faults()) {
        fault.open_fails = chosen == 0;
        if (chosen == 1) fault.load = LoadFault::kAccess;
        if (chosen == 2) fault.load = LoadFault::kLoad;
    }
    host_.Round(fault);
    if (fault.open_fails) {
        // Nothing was compared. What changed is found by the next one.
        Count(kRoundOpenFails);
        host_.Round();
    }
    if (fault.load != LoadFault::kNone)
        Count(fault.load == LoadFault::kLoad ? kRoundLoadFails : kRoundAccessFails);
    model_.Round(fault.load);
}

void Worker::EditList(Choices& choices) {
    const std::string path =
        host_.files().Path(prefix_ + "/l" + std::to_string(choices.Below(kLists)) + "/tarnet.xml");
    const int what = choices.Below(8);
    if (what == 0) {
        Count(kListRemoved);
        host_.files().Remove(path);
        return model_.RemoveList(path);
    }
    if (what == 1) {
        Count(kListBroken);
        host_.files().PutBroken(path);
        return model_.PutList(path, OwnModel::DiskList{false, {}});
    }
    OwnModel::DiskList list;
    const int items = choices.Below(6);
    for (int i = 0; i < items; ++i) {
        Item item;
        item.key = RandomKey(choices);
        // The keys of memory have a list of their own.
        if (item.key[prefix_.size() + 1] == 'o') item.key = Name("k0", key_generations_[0]);
        item.path = PathFor(item.key, choices);
        item.list = path;
        item.note = std::string(static_cast<size_t>(choices.Below(16)),
                                static_cast<char>('a' + choices.Below(26)));
        item.delayed = choices.OneIn(2);
        item.announces = choices.OneIn(2);
        list.items.push_back(item);
    }
    Count(kListWritten);
    host_.files().PutList(path, list.items);
    model_.PutList(path, list);
}

void Worker::EditModule(Choices& choices) {
    const std::string path = RandomPath(choices);
    const int what = choices.Below(12);
    const int broken = choices.Below(std::size(kBrokenKinds));
    if (what == 0) {
        Count(kModuleRemoved);
        host_.files().Remove(path);
        return model_.RemoveModule(path);
    }
    ModuleKind kind = what < 4 ? kBrokenKinds[broken] : ModuleKind::kGood;
    if (what == 4 && may_leave_ && model_.TakenNames() < kMostTakenNames)
        kind = ModuleKind::kUninitFails;
    PutModule(path, kind, choices);
}

void Worker::PutModule(const std::string& path, ModuleKind kind, Choices& choices) {
    std::vector<std::string> keys;
    const int announced = choices.Below(4);
    const int first = choices.Below(kAnnouncedKeys);
    for (int i = 0; i < announced - 1; ++i)
        keys.push_back(prefix_ + ".a" + std::to_string((first + i) % kAnnouncedKeys));
    const ModuleFile file = Files::MakeModule(number_, kind, keys);
    Count(file.Loads() ? kModuleReplaced : kModuleBroken);
    host_.files().PutModule(path, file);
    model_.PutModule(path, file);
}

// A round that changes nothing, in which what was refused is tried again. The caller holds the
// scan's mutex.
void Worker::SettleRound() {
    const std::string path = host_.files().Path(prefix_ + "/h/tarnet.xml");
    host_.files().PutList(path, {});
    model_.PutList(path, OwnModel::DiskList());
    host_.Round();
    model_.Round();
}

// A round without memory for one of its steps: each key is as it was or as it is to be, and after
// the next change of the list as it is to be.
void Worker::MemoryRound(Choices& choices) {
    std::set<std::string> after;
    const int chosen = choices.Below(1 << kMemoryKeys);
    for (int i = 0; i < kMemoryKeys; ++i) {
        if (((chosen >> i) & 1) != 0) after.insert(prefix_ + ".o" + std::to_string(i));
    }
    const std::string path = host_.files().Path(prefix_ + "/o/tarnet.xml");
    const std::string module = host_.files().Path(prefix_ + "/om/" + prefix_ + "_o" MODULE_SUFFIX);
    OwnModel::DiskList list;
    for (const std::string& key : after)
        list.items.push_back(Item{key, module, path, "memory", true, false});
    RoundFault fault;
    fault.allocation = 1 + choices.Below(400);
    const std::lock_guard<std::mutex> lock(host_.scan_mutex());
    if (host_.faults()) {
        host_.files().PutList(path, list.items);
        host_.Round(fault);
        Count(kAllocationInRound);
        CheckMemoryKeys(memory_keys_, after);
    }
    host_.files().PutList(path, list.items);
    host_.Round();
    model_.PutList(path, list);
    model_.Round();
    memory_keys_ = after;
    // The look at the keys has loaded the module for some of them: now it is for all.
    for (const std::string& key : after) CreateOwnKey(choices, key, true);
}

void Worker::CheckMemoryKeys(const std::set<std::string>& before,
                             const std::set<std::string>& after) {
    for (int i = 0; i < kMemoryKeys; ++i) {
        const std::string key = prefix_ + ".o" + std::to_string(i);
        void* instance = nullptr;
        int error = 0;
        const int result = library_.CreateInstance(key.c_str(), &instance, &error);
        CountResult(result);
        const bool may_be_there = before.count(key) != 0 || after.count(key) != 0;
        const bool may_be_gone = before.count(key) == 0 || after.count(key) == 0;
        const bool right =
            result == VESSA_OK ? may_be_there : result == VESSA_ERR_NOT_REGISTERED && may_be_gone;
        if (!right)
            Mismatch("create of " + key + " after a round without memory",
                     may_be_there ? "VESSA_OK" : "VESSA_ERR_NOT_REGISTERED", ResultName(result));
        if (instance != nullptr && library_.DestroyInstance(instance, &error) != VESSA_OK)
            Mismatch("destroy of " + key, "VESSA_OK", "a failure");
    }
}

void Worker::SharedRound(Choices& choices) {
    const std::lock_guard<std::mutex> lock(host_.scan_mutex());
    shared_.Change(choices);
}

void Worker::DestroyAll(bool every_second) {
    ThisPosition() = Position{-1, operation_};
    Choices choices(TheOptions().seed, static_cast<uint64_t>(number_), ~0ULL);
    for (size_t left = every_second ? held_.size() / 2 : 0; held_.size() > left;)
        DestroyHeld(choices, held_.size() - 1, true);
}

// What is declared, with its attributes, read by each key.
void Worker::CompareDeclared(bool is_running) {
    for (const std::string& key : model_.AllKeys()) {
        char value[64] = "";
        unsigned int length = sizeof value;
        const int result = library_.QueryConfigAttribute(key.c_str(), "note", value, &length);
        const Item* const item = model_.Declared(key);
        if (!is_running || result != VESSA_OK || item->note != value)
            Mismatch("attribute of " + key, item->note, ResultName(result) + ", \"" + value + "\"");
    }
}

// Each key once: whether it is registered, and what its first use gives.
void Worker::CompareKeys() {
    Choices choices(TheOptions().seed, static_cast<uint64_t>(number_), ~1ULL);
    std::set<std::string> keys;
    for (const auto& record : model_.records()) keys.insert(record.first);
    for (int i = 0; i < 40; ++i) keys.insert(RandomKey(choices));
    for (const std::string& key : keys) {
        const size_t before = held_.size();
        CreateOwnKey(choices, key, true);
        if (held_.size() > before) DestroyHeld(choices, held_.size() - 1, true);
    }
}

}  // namespace vessa_random
