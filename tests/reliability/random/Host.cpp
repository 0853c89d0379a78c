#include "Host.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <stdexcept>
#include <vector>

#include "Counters.h"
#include "Random.h"
#include "TestPlatform.h"
#include "support/Allocation.h"

namespace vessa_random {
namespace {

using vessa_test::Runtime;
using vessa_test::RuntimeCall;
using vessa_test::Tova;

Host* the_host = nullptr;

thread_local Answerer* answerer = nullptr;
thread_local LoadFault call_fault = LoadFault::kNone;
thread_local bool inside_stable = false;

// Of the round under way; the scanning thread is the one that has no position.
struct ScanningThread {
    std::atomic<LoadFault> load{LoadFault::kNone};
    std::atomic<bool> open_fails{false};
    std::atomic<long> allocation{0};
} scanning;
thread_local std::optional<vessa_test::AllocationFailure> round_allocation;
std::atomic<int> thread_faults{0};
std::atomic<unsigned> thread_creations{0};

bool IsScanningThread() {
    return ThisPosition().thread == -2;
}

void FailIf(RuntimeCall& call, LoadFault fault) {
    const LoadFault wanted = IsScanningThread() ? scanning.load.load() : call_fault;
    if (wanted != fault) return;
    if (std::strstr(call.text != nullptr ? call.text : "", "stable") == nullptr) call.Fail();
}

void BeforeOpenDir(RuntimeCall& call) {
    if (!IsScanningThread()) return;
    if (scanning.open_fails.load()) call.Fail();
    if (const long nth = scanning.allocation.exchange(0)) round_allocation.emplace(nth);
}

struct ModuleTable {
    std::mutex mutex;
    std::map<uint64_t, const std::atomic<int64_t>*> loaded;
    std::map<uint64_t, std::vector<std::string>> keys;
    std::vector<void*> dead;
};
ModuleTable& TheModules() {
    static ModuleTable* const table = new ModuleTable;
    return *table;
}

int Exact(int result, int expected, const char* about) {
    if (Host::The().stable() && result != expected)
        Mismatch(about, ResultName(expected), ResultName(result));
    return result;
}

}  // namespace

Answers::Answers(Answerer* of) : before_(answerer) {
    answerer = of;
}
Answers::~Answers() {
    answerer = before_;
}

CallFault::CallFault(LoadFault fault) {
    call_fault = fault;
}
CallFault::~CallFault() {
    call_fault = LoadFault::kNone;
}

Host::Host(Files& files) : files_(files), runtime_(std::make_unique<Runtime>()) {
    the_host = this;
}
Host::~Host() {
    runtime_.reset();
    the_host = nullptr;
}
Host& Host::The() {
    return *the_host;
}

void Host::RenewRuntime() {
    runtime_.reset();
    runtime_ = std::make_unique<Runtime>();
}

void Host::SetFaults(bool on) {
    const auto hook = [&](LoadFault fault) {
        return on ? Runtime::Hook([fault](RuntimeCall& call) { FailIf(call, fault); })
                  : Runtime::Hook();
    };
    runtime_->Before(Tova::AccessFile, hook(LoadFault::kAccess));
    runtime_->Before(Tova::LoadDSo, hook(LoadFault::kLoad));
    runtime_->Before(Tova::GetDsoSym, hook(LoadFault::kSymbol));
    runtime_->Before(Tova::OpenDir, on ? Runtime::Hook(BeforeOpenDir) : Runtime::Hook());
    runtime_->Before(Tova::SemTimedWait, on ? Runtime::Hook([](RuntimeCall&) {
                         if (IsScanningThread()) round_allocation.reset();
                     })
                                            : Runtime::Hook());
    faults_ = on;
}

void Host::SetThreadFaults(int one_in) {
    thread_faults = one_in;
    runtime_->Before(Tova::Thread_Create, one_in != 0 ? Runtime::Hook([](RuntimeCall& call) {
                         const unsigned nth = thread_creations.fetch_add(1);
                         const auto odds = static_cast<unsigned>(thread_faults.load());
                         if (nth % odds != odds - 1) return;
                         Count(kThreadFails);
                         call.Fail(vessa_test::kErrorNoResources);
                     })
                                                      : Runtime::Hook());
}

void Host::Round(const RoundFault& fault) {
    scanning.load = fault.load;
    scanning.open_fails = fault.open_fails;
    scanning.allocation = fault.allocation;
    if (!runtime_->Tick()) Mismatch("the scan", "it goes on", "its thread ended");
    scanning.load = LoadFault::kNone;
    scanning.open_fails = false;
    scanning.allocation = 0;
    Count(kRound);
}

void StableCalls() {
    if (inside_stable) return;
    inside_stable = true;
    const Answers none(nullptr);
    vessa_test::LoadedLibrary& library = Host::The().library();
    Count(kFromInit);
    void* instance = nullptr;
    int error = 0;
    if (Exact(library.CreateInstance(kStableKey, &instance, &error), VESSA_OK, "stable create") ==
        VESSA_OK) {
        void* found = nullptr;
        Exact(library.QueryInterface(instance, kRandomIkey, &found, &error), VESSA_OK,
              "stable query");
        Exact(library.DestroyInstance(instance, &error), VESSA_OK, "stable destroy");
    }
    char value[32] = "";
    unsigned int length = sizeof value;
    Exact(library.QueryConfigAttribute(kStableKey, "note", value, &length), VESSA_OK,
          "stable attribute");
    if (Host::The().stable() && std::strcmp(value, kStableNote) != 0)
        Mismatch("the stable attribute", kStableNote, value);
    char** keys = nullptr;
    unsigned int count = 0;
    if (library.QueryAllFkeys(&keys, &count) == VESSA_OK) library.ReleaseAllFkeys(keys, count);
    if (Host::The().stable() && library.Init() == VESSA_OK) library.Uninit();
    inside_stable = false;
}

void Modules::Announce(uint64_t serial, const std::vector<std::string>& keys) {
    const std::lock_guard<std::mutex> lock(TheModules().mutex);
    if (!keys.empty()) TheModules().keys[serial] = keys;
}

bool Modules::IsLoaded(uint64_t serial) {
    const std::lock_guard<std::mutex> lock(TheModules().mutex);
    return TheModules().loaded.count(serial) != 0;
}

std::vector<LoadedModule> Modules::Loaded() {
    const std::lock_guard<std::mutex> lock(TheModules().mutex);
    std::vector<LoadedModule> modules;
    for (const auto& [serial, live] : TheModules().loaded)
        modules.push_back({serial, live->load()});
    return modules;
}

void Modules::FreeDead() {
    const std::lock_guard<std::mutex> lock(TheModules().mutex);
    for (void* const block : TheModules().dead) std::free(block);
    TheModules().dead.clear();
}

}  // namespace vessa_random

using vessa_random::Mismatch;
using vessa_random::TheModules;

#define FOR_MODULES extern "C" __attribute__((visibility("default")))

FOR_MODULES void RandomHost_Loaded(uint64_t serial, const std::atomic<int64_t>* live) {
    const vessa_test::AllocationPause pause;
    const std::lock_guard<std::mutex> lock(TheModules().mutex);
    if (!TheModules().loaded.emplace(serial, live).second)
        Mismatch("module " + std::to_string(serial), "it is loaded once", "it was loaded again");
}

FOR_MODULES void RandomHost_Gone(uint64_t serial, int64_t live) {
    const vessa_test::AllocationPause pause;
    const std::lock_guard<std::mutex> lock(TheModules().mutex);
    TheModules().loaded.erase(serial);
    if (live != 0)
        Mismatch("unload of module " + std::to_string(serial), "no live instance",
                 std::to_string(live));
}

FOR_MODULES RandomAction RandomHost_Call(RandomCall* call) {
    const vessa_test::AllocationPause pause;
    const vessa_random::LoadFault fault = vessa_random::call_fault;
    vessa_random::call_fault = vessa_random::LoadFault::kNone;
    RandomAction action = kRandomGoOn;
    if (call->operation == kRandomInit || call->operation == kRandomUninit ||
        call->operation == kRandomMap) {
        const bool is_stable =
            vessa_random::Files::OwnerOf(call->serial) == vessa_random::kStableOwner;
        if (!is_stable && call->serial % 3 == 0) vessa_random::StableCalls();
    } else if (vessa_random::answerer != nullptr) {
        action = vessa_random::answerer->Answer(*call);
    }
    vessa_random::call_fault = fault;
    return action;
}

FOR_MODULES void* RandomHost_Allocate(uint64_t size) {
    return std::malloc(size);
}

FOR_MODULES void RandomHost_Free(void* block) {
    const vessa_test::AllocationPause pause;
    const std::lock_guard<std::mutex> lock(TheModules().mutex);
    TheModules().dead.push_back(block);
}

FOR_MODULES void RandomHost_WrongInstance(uint64_t serial, const char* operation) {
    Mismatch(std::string(operation) + " in module " + std::to_string(serial), "a live instance",
             "one that is dead or another module's");
}

FOR_MODULES int RandomHost_Keys(uint64_t serial, char (*keys)[256], int room) {
    const vessa_test::AllocationPause pause;
    const std::lock_guard<std::mutex> lock(TheModules().mutex);
    const auto found = TheModules().keys.find(serial);
    if (found == TheModules().keys.end()) return 0;
    const int count = static_cast<int>(found->second.size());
    if (keys == nullptr) return count;
    for (int i = 0; i < count && i < room; ++i)
        std::strncpy(keys[i], found->second[static_cast<size_t>(i)].c_str(), 255);
    return count < room ? count : room;
}
