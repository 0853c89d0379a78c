#include "Scenario.h"

#include <algorithm>
#include <cstring>

#include "modules/TestInterface.h"
#include "support/Allocation.h"

namespace faults {
namespace {

Faults* the_faults = nullptr;

bool HasFailed() {
    return the_faults->Failed() != 0;
}

constexpr const char* kKeptKey = "k100";
constexpr const char* kDelayedKey = "k110";

std::string Number(long number) {
    return std::to_string(number);
}

}  // namespace

Scenario::Scenario(Folder& folder, Faults& faults, vessa_test::Runtime& runtime, Plant plant,
                   const char** where)
    : folder_(folder), faults_(faults), runtime_(runtime), plant_(plant), step_(where) {
    the_faults = &faults;
}

void Scenario::Demand(bool is_so, const std::string& what) const {
    if (!is_so) throw Broken(std::string(*step_) + ": " + what);
}

void Scenario::DemandNamed(const char* of, int result, std::initializer_list<int> named) const {
    const bool is_named = std::find(named.begin(), named.end(), result) != named.end();
    Demand(result == VESSA_OK || is_named, std::string(of) + " gave " + Number(result));
}

// Without a failure a function succeeds; with one it may also have one of these results.
void Scenario::DemandCode(const char* of, int result, std::initializer_list<int> when_hit) const {
    DemandNamed(of, result, Hit() ? when_hit : std::initializer_list<int>{});
}

void Scenario::Do(const char* name, const Lists& after, const Call& call, const Call& repeat) {
    *step_ = name;
    hit_ = false;
    const Lists before = lists_;
    call();
    const long failed = faults_.Failed();
    hit_ = failed != failed_;
    failed_ = failed;
    was_hit_ = was_hit_ || hit_;
    lists_ = after;
    if (AllFails()) return;
    if (hit_) {
        faults_.Stop();
        CheckBetween(before, after);
    }
    repeat();
    // Its creates load modules: up to the failure each module's first use stays the step's own.
    if (was_hit_) CheckExactly(after);
    CheckLive();
}

// Only lists that are there as a whole, in their order.
std::vector<List> Scenario::Declared() {
    char** fkeys = nullptr;
    unsigned int count = 0;
    std::vector<std::string> keys;
    {
        const Watch watch(false);
        const int result = library_.QueryAllFkeys(&fkeys, &count);
        const vessa_test::AllocationPause pause;
        Demand(result == VESSA_OK, "the list of keys gave " + Number(result));
        for (unsigned int i = 0; i < count; ++i) keys.push_back(fkeys[i]);
    }
    library_.ReleaseAllFkeys(fkeys, count);
    std::vector<List> declared;
    size_t at = 0;
    for (int i = 0; i < kLists; ++i) {
        const List list = static_cast<List>(i);
        const std::vector<std::string>& of_list = TextOf(list).fkeys;
        if (at + of_list.size() > keys.size()) continue;
        if (!std::equal(of_list.begin(), of_list.end(), keys.begin() + static_cast<long>(at)))
            continue;
        declared.push_back(list);
        at += of_list.size();
    }
    Demand(at == keys.size(), "of " + Number(static_cast<long>(keys.size())) +
                                  " declared keys only " + Number(static_cast<long>(at)) +
                                  " are of whole lists");
    return declared;
}

bool Scenario::Serves(const std::string& fkey) {
    void* instance = &library_;
    int error = 99;
    const Watch watch(false);
    const int result = library_.CreateInstance(fkey.c_str(), &instance, &error);
    if (result == VESSA_OK) {
        Demand(instance != nullptr && error == 0, "a create of " + fkey + " gave no instance");
        const int gone = library_.DestroyInstance(instance, &error);
        Demand(gone == VESSA_OK && error == 0, "a destroy of " + fkey + " gave " + Number(gone));
        return true;
    }
    Demand(result == VESSA_ERR_NOT_REGISTERED,
           "a create of " + fkey + " gave " + Number(result) + " afterwards");
    Demand(instance == nullptr, "a refused create of " + fkey + " left an instance");
    return false;
}

void Scenario::CheckBetween(const Lists& before, const Lists& after) {
    if (library_.handle == nullptr) return;
    // An end of a folder that comes too early shows a shorter folder.
    if (faults_.fault().kind == Kind::kRuntime &&
        faults_.fault().function == vessa_test::Tova::FindFileInDir)
        return;
    const std::vector<List> declared = Declared();
    for (int i = 0; i < kLists; ++i) {
        const List list = static_cast<List>(i);
        const ListText& text = TextOf(list);
        const bool may = before.count(list) != 0 || after.count(list) != 0;
        const bool must = before.count(list) != 0 && after.count(list) != 0;
        const bool is = std::count(declared.begin(), declared.end(), list) != 0;
        Demand(is ? may : !must,
               std::string("the list ") + text.name + " is declared: " + (is ? "yes" : "no"));
        for (const auto* keys : {&text.fkeys, &text.announced}) {
            for (const std::string& key : *keys) {
                const bool serves = Serves(key);
                Demand(serves ? may : !must, key + " is served: " + (serves ? "yes" : "no"));
            }
        }
    }
    CheckLive();
}

void Scenario::CheckExactly(const Lists& lists) {
    if (library_.handle == nullptr) return;
    const std::vector<List> declared = Declared();
    Demand(Lists(declared.begin(), declared.end()) == lists, "other lists are declared");
    for (int i = 0; i < kLists; ++i) {
        const List list = static_cast<List>(i);
        const ListText& text = TextOf(list);
        for (const auto* keys : {&text.fkeys, &text.announced}) {
            for (const std::string& key : *keys)
                Demand(Serves(key) == (lists.count(list) != 0),
                       key + " is served, or not, against the lists");
        }
    }
}

// The instance that lives on whatever happens.
void Scenario::CheckLive() {
    if (kept_ == nullptr) return;
    void* found = nullptr;
    const Watch watch(false);
    const int result = library_.QueryInterface(kept_, TEST_MODULE_IKEY, &found, nullptr);
    Demand(result == VESSA_OK, "the live instance gave " + Number(result));
    const auto* const interface = static_cast<const test_interface*>(found);
    Demand(std::strcmp(interface->Fkey(kept_), kKeptKey) == 0 && interface->Add(2, 3) == 5,
           "the live instance is another one");
}

void Scenario::Live() {
    Load();
    if (library_.handle == nullptr) {
        // The system's loader keeps a little of a second life.
        faults_.Stop();
        return LiveShortly();
    }
    Start();
    Create("create", kKeptKey, kept_);
    Create("create with a load", kDelayedKey, other_);
    Query();
    QueryAttribute();
    QueryAll();
    Change("second list arrives", kSecond, true);
    Create("create from the second list", "s1", third_);
    Destroy("destroy", other_);
    Destroy("destroy from the second list", third_);
    Change("first list goes", kFirst, false);
    Destroy("destroy with an unload", kept_);
    const bool stays = faults_.fault().kind == Kind::kRuntime &&
                       faults_.fault().function == vessa_test::Tova::UnloadDSo && was_hit_;
    Demand(stays || AllFails() || !Library::IsLoaded(folder_.module().c_str()),
           "the module is still loaded");
    Change("first list comes back", kFirst, true);
    Change("third list announces keys", kThird, true);
    Stop();
    GiveBack();
    Unload();
}

void Scenario::LiveShortly() {
    was_hit_ = true;
    mended_ = true;
    lists_ = {kBase, kFirst, kSecond, kThird};
    folder_.Reset();
    lists_.clear();
    Load();
    Start();
    Create("create", kKeptKey, kept_);
    Change("second list arrives", kSecond, true);
    Change("third list announces keys", kThird, true);
    Destroy("destroy", kept_);
    Stop();
    Unload();
}

void Scenario::Load() {
    const auto load = [&] {
        const Faults::Stretch stretch(faults_);
        library_.Load(folder_.library().c_str());
    };
    Do("load the library", {}, load, [&] {
        // One that is loaded without memory for its global objects must start all the same then.
        if (library_.handle == nullptr) {
            const Watch watch(false);
            library_.Load(folder_.library().c_str());
        }
        Demand(library_.handle != nullptr, "cannot be loaded");
        library_.Mistake(plant_, &HasFailed);
    });
}

void Scenario::Start() {
    int result = 99;
    const auto start = [&] {
        const Faults::Stretch stretch(faults_);
        result = library_.Init();
        const vessa_test::AllocationPause pause;
        if (result == VESSA_OK) runtime_.AwaitWaiters();
        runs_ = ever_ran_ = result == VESSA_OK;
    };
    Do("start", {kBase, kFirst}, start, [&] {
        DemandCode("Init", result, {VESSA_FAILED});
        if (!Hit()) return;
        if (result != VESSA_OK) {
            const Watch watch(false);
            Demand(library_.Init() == VESSA_OK, "does not start afterwards");
            const vessa_test::AllocationPause pause;
            runtime_.AwaitWaiters();
            runs_ = true;
        }
        // Never without any list: the library takes that for a root that is away.
        for (const List list : {kFirst, kBase}) {
            RoundWith(list, false);
            RoundWith(list, true);
        }
    });
    if (AllFails()) DemandNamed("Init", result, {VESSA_FAILED});
}

int Scenario::CreateOnce(const char* fkey, void*& instance) {
    int error = 99;
    instance = &library_;
    const int result = library_.CreateInstance(fkey, &instance, &error);
    const vessa_test::AllocationPause pause;
    if (result == VESSA_OK) {
        Demand(instance != nullptr && error == 0, "a create succeeds without an instance");
    } else {
        Demand(instance == nullptr, "a failed create leaves an instance");
        Demand(error == (result == VESSA_FAILED ? -2 : 0),
               "a failed create gives the plugin error " + Number(error));
    }
    return result;
}

void Scenario::Create(const char* name, const char* fkey, void*& instance) {
    int result = 99;
    const auto create = [&] {
        const Faults::Stretch stretch(faults_);
        result = CreateOnce(fkey, instance);
    };
    Do(name, lists_, create, [&] {
        DemandCode("CreateInstance", result,
                   {VESSA_ERR_OUT_OF_MEMORY, VESSA_FAILED, VESSA_ERR_NO_MODULE_FILE,
                    VESSA_ERR_NO_INTERFACE, VESSA_ERR_MODULE_LOAD});
        if (result == VESSA_OK) return;
        const Watch watch(false);
        Demand(CreateOnce(fkey, instance) == VESSA_OK, "cannot be created afterwards");
    });
    // A list that could not be read has no keys.
    if (AllFails())
        DemandNamed("CreateInstance", result,
                    {VESSA_ERR_OUT_OF_MEMORY, VESSA_FAILED, VESSA_ERR_NO_MODULE_FILE,
                     VESSA_ERR_NO_INTERFACE, VESSA_ERR_MODULE_LOAD, VESSA_ERR_NOT_REGISTERED});
}

void Scenario::Destroy(const char* name, void*& instance) {
    int result = 99;
    int error = 99;
    void* const gone = instance;
    if (gone == nullptr) return;
    const auto destroy = [&] {
        if (kept_ == gone) kept_ = nullptr;
        const Faults::Stretch stretch(faults_);
        result = library_.DestroyInstance(gone, &error);
    };
    Do(name, lists_, destroy, [&] {
        DemandCode("DestroyInstance", result, {VESSA_ERR_OUT_OF_MEMORY});
        Demand(error == 0, "a destroy gives the plugin error " + Number(error));
        if (result != VESSA_OK) {
            const Watch watch(false);
            Demand(library_.DestroyInstance(gone, &error) == VESSA_OK, "is not untouched");
        }
        instance = nullptr;
    });
    if (!AllFails()) return;
    DemandNamed("DestroyInstance", result, {VESSA_ERR_OUT_OF_MEMORY});
    instance = result == VESSA_OK ? nullptr : gone;
}

// What a life in which everything fails could not destroy is untouched.
void Scenario::GiveBack() {
    if (!AllFails()) return;
    faults_.Stop();
    mended_ = true;
    Destroy("give back", kept_);
    Destroy("give back", other_);
    Destroy("give back", third_);
    if (!ever_ran_) {
        // What a failed start registered goes with the next stop.
        const Watch watch(false);
        Demand(library_.Init() == VESSA_OK, "does not start afterwards");
        library_.Uninit();
    }
    CheckExactly({});
}

void Scenario::Query() {
    if (kept_ == nullptr) return;
    int result = 99;
    int error = 99;
    void* found = &library_;
    const auto query = [&] {
        const Faults::Stretch stretch(faults_);
        result = library_.QueryInterface(kept_, TEST_MODULE_IKEY, &found, &error);
    };
    Do("query an interface", lists_, query, [&] {
        DemandCode("QueryInterface", result, {VESSA_ERR_OUT_OF_MEMORY});
        Demand(error == 0, "a query gives the plugin error " + Number(error));
        Demand((found != nullptr) == (result == VESSA_OK), "out parameter against the result");
    });
    if (AllFails()) DemandNamed("QueryInterface", result, {VESSA_ERR_OUT_OF_MEMORY});
}

void Scenario::QueryAttribute() {
    int result = 99;
    char value[16] = "untouched";
    unsigned int length = sizeof value;
    const auto query = [&] {
        const Faults::Stretch stretch(faults_);
        result = library_.QueryConfigAttribute(kDelayedKey, "about", value, &length);
    };
    Do("query an attribute", lists_, query, [&] {
        DemandCode("QueryConfigAttribute", result, {VESSA_ERR_OUT_OF_MEMORY});
        Demand(result != VESSA_OK || (length == 5 && std::strcmp(value, "entry") == 0),
               "another value");
        Demand(result == VESSA_OK || std::strcmp(value, "untouched") == 0, "the value is touched");
    });
    if (AllFails())
        DemandNamed("QueryConfigAttribute", result, {VESSA_ERR_OUT_OF_MEMORY, VESSA_FAILED});
}

void Scenario::QueryAll() {
    int result = 99;
    char* nothing = nullptr;
    char** fkeys = &nothing;
    unsigned int count = 99;
    const auto query = [&] {
        const Faults::Stretch stretch(faults_);
        result = library_.QueryAllFkeys(&fkeys, &count);
    };
    Do("list the keys", lists_, query, [&] {
        DemandCode("QueryAllFkeys", result, {VESSA_ERR_OUT_OF_MEMORY});
        Demand(fkeys != &nothing, "the list is not cleared");
        Demand(result != VESSA_OK || count == 21, "another number of keys");
        unsigned int null_entries = 0;
        for (unsigned int i = 0; fkeys != nullptr && i < count; ++i)
            null_entries += fkeys[i] == nullptr;
        Demand(result != VESSA_OK || (fkeys != nullptr && null_entries == 0), "a key is null");
    });
    if (AllFails()) DemandNamed("QueryAllFkeys", result, {VESSA_ERR_OUT_OF_MEMORY});
    Demand(fkeys == nullptr || library_.ReleaseAllFkeys(fkeys, count) == VESSA_OK,
           "cannot be given back");
}

// One round of the scanning thread.
void Scenario::Round() {
    const vessa_test::AllocationPause pause;
    Demand(runtime_.Tick(), "the scanning thread has ended");
}

void Scenario::RoundWith(List list, bool comes) {
    comes ? folder_.Come(list) : folder_.Go(list);
    const Watch watch(false);
    Round();
}

void Scenario::Change(const char* name, List list, bool comes) {
    Lists after = lists_;
    comes ? static_cast<void>(after.insert(list)) : static_cast<void>(after.erase(list));
    const auto change = [&] {
        comes ? folder_.Come(list) : folder_.Go(list);
        if (!runs_) return;
        const Faults::Stretch stretch(faults_);
        Round();
    };
    Do(name, after, change, [&] {
        if (!Hit()) return;
        RoundWith(list, !comes);
        RoundWith(list, comes);
    });
}

void Scenario::Stop() {
    const auto stop = [&] {
        if (!runs_) return;
        const Faults::Stretch stretch(faults_);
        library_.Uninit();
        runs_ = false;
    };
    Do("stop", {}, stop, [] {});
}

void Scenario::Unload() {
    const auto unload = [&] {
        const Faults::Stretch stretch(faults_);
        Demand(library_.Unload(), "dlclose failed");
    };
    Do("unload the library", {}, unload, [&] {
        Demand(!Library::IsLoaded(folder_.library().c_str()), "the library is still mapped");
    });
}

}  // namespace faults
