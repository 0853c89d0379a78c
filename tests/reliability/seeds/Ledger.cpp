#include "reliability/seeds/Ledger.h"

#include <cstdint>
#include <cstring>

#include "reliability/seeds/Schedule.h"

namespace seeds::ledger {
namespace {

using schedule::Fail;

struct Record {
    bool mapped;
    bool initialised;
    int initialiser;  // the thread inside Init, or -1
    int inside;       // operations
    int live;         // instances
};
Record records[kModules];

constexpr int kInstances = 64;
constexpr uintptr_t kFirstAddress = 0x5A0000000000;
constexpr uintptr_t kDistance = 64;
Module owners[kInstances];  // kModules: free
Totals totals{};

int IndexOf(const void* instance) {
    const uintptr_t offset = reinterpret_cast<uintptr_t>(instance) - kFirstAddress;
    return offset / kDistance < kInstances ? static_cast<int>(offset / kDistance) : -1;
}

}  // namespace

Module FindModule(const char* name) {
    for (int i = 0; i < kModules; ++i) {
        if (std::strcmp(name, kModuleNames[i]) == 0) return static_cast<Module>(i);
    }
    return kModules;
}

void Reset() {
    for (Record& record : records) record = Record{false, false, -1, 0, 0};
    for (Module& owner : owners) owner = kModules;
}

void Loaded(Module module) {
    if (records[module].mapped) Fail("%s is loaded twice", kModuleNames[module]);
    records[module] = Record{true, false, -1, 0, 0};
}

void Unloaded(Module module) {
    const Record& record = records[module];
    if (record.initialised) Fail("%s is unloaded without Uninit", kModuleNames[module]);
    if (record.inside != 0) Fail("%s is unloaded under a call", kModuleNames[module]);
    records[module].mapped = false;
    ++totals.unloads;
}

void InitBegins(Module module) {
    Record& record = records[module];
    if (record.initialised || record.initialiser >= 0)
        Fail("%s: Init without Uninit", kModuleNames[module]);
    record.initialiser = schedule::ThisThread();
    ++totals.inits;
}

void InitEnds(Module module, bool succeeded) {
    records[module].initialiser = -1;
    records[module].initialised = succeeded;
}

void UninitBegins(Module module) {
    const Record& record = records[module];
    if (!record.initialised) Fail("%s: Uninit without Init", kModuleNames[module]);
    if (record.inside != 0) Fail("%s: Uninit under %d calls", kModuleNames[module], record.inside);
    if (record.live != 0) Fail("%s: Uninit with %d instances", kModuleNames[module], record.live);
}

void UninitEnds(Module module) {
    const Record& record = records[module];
    if (record.inside != 0 || record.live != 0)
        Fail("%s: used during its Uninit", kModuleNames[module]);
    records[module].initialised = false;
}

void Enter(Module module, const char* operation) {
    Record& record = records[module];
    if (!record.initialised && record.initialiser != schedule::ThisThread())
        Fail("%s: %s outside of Init and Uninit", kModuleNames[module], operation);
    ++record.inside;
}

void Leave(Module module) {
    --records[module].inside;
}

void* MakeInstance(Module module) {
    for (int i = 0; i < kInstances; ++i) {
        if (owners[i] != kModules) continue;
        owners[i] = module;
        ++records[module].live;
        ++totals.creates;
        return reinterpret_cast<void*>(kFirstAddress + static_cast<uintptr_t>(i) * kDistance);
    }
    Fail("too many instances");
}

void DropInstance(Module module, void* instance) {
    CheckInstance(module, instance);
    owners[IndexOf(instance)] = kModules;
    --records[module].live;
}

void CheckInstance(Module module, const void* instance) {
    const int index = IndexOf(instance);
    if (index < 0 || owners[index] != module)
        Fail("%s is called for an instance %p that it has not", kModuleNames[module], instance);
    ++totals.queries;
}

void CheckNothingIsLeft() {
    for (int i = 0; i < kModules; ++i) {
        const Record& record = records[i];
        if (record.live != 0) Fail("%s keeps %d instances", kModuleNames[i], record.live);
        if (record.initialised) Fail("%s stays initialised", kModuleNames[i]);
        if (record.mapped) Fail("%s stays mapped", kModuleNames[i]);
    }
}

Totals Count() {
    return totals;
}

}  // namespace seeds::ledger
