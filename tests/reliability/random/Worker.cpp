// The calls. The changes on disk are in WorkerRounds.cpp.
#include "Worker.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "Counters.h"
#include "support/Allocation.h"

namespace vessa_random {
namespace {

constexpr int kDeepest = 3;
constexpr size_t kMostHeld = 40;
constexpr int kModuleCodes = 90;  // 10 and up

char a_byte = 0;
void* const kJunk = &a_byte;
constexpr int kJunkError = 777777;

// The nth allocation of this thread fails while it lives; 0 is none.
class Shortage {
  public:
    explicit Shortage(long nth) {
        if (nth > 0) failure_.emplace(nth);
    }
    long Failed() const { return failure_ ? failure_->Failed() : 0; }

  private:
    std::optional<vessa_test::AllocationFailure> failure_;
};

Kind KindOfCreateFault(RandomAction action) {
    switch (action) {
        case kRandomFail:
            return kFailCreate;
        case kRandomFailGarbage:
            return kFailCreateGarbage;
        case kRandomThrow:
            return kThrowCreate;
        case kRandomNull:
            return kNullCreate;
        default:
            return kSameCreate;
    }
}

std::string Seen(int result, const void* pointer, int error) {
    return ResultName(result) + (pointer == nullptr ? ", null" : ", not null") + ", plugin_error " +
           std::to_string(error);
}

void CompareCall(const std::string& about, int expected, bool expected_pointer, int expected_error,
                 int result, const void* pointer, int error) {
    CountResult(result);
    if (result == expected && (pointer != nullptr) == expected_pointer && error == expected_error)
        return;
    Mismatch(about,
             ResultName(expected) + (expected_pointer ? ", not null" : ", null") +
                 ", plugin_error " + std::to_string(expected_error),
             Seen(result, pointer, error));
}

void CompareResult(const std::string& about, int expected, int result) {
    CountResult(result);
    if (result != expected) Mismatch(about, ResultName(expected), ResultName(result));
}

int CodeOf(RandomAction action, int code) {
    return action == kRandomThrow ? -1 : code;
}

}  // namespace

const std::vector<Worker::Weighted>& Worker::Operations() {
    // A round takes a tick of the file system's clock, in which the others have thousands of calls.
    static const std::vector<Weighted> operations = {
        {2200, &Worker::CreateOwn, true},    {1800, &Worker::CreateShared, true},
        {100, &Worker::CreateUnknown, true}, {2600, &Worker::Destroy, true},
        {200, &Worker::DestroyDead, true},   {150, &Worker::StartDuel, false},
        {2000, &Worker::Query, true},        {200, &Worker::QueryDead, true},
        {600, &Worker::Attribute, true},     {120, &Worker::AllKeys, true},
        {200, &Worker::Init, true},          {240, &Worker::Uninit, true},
        {250, &Worker::BadArgument, true},   {10, &Worker::OwnRound, false},
        {3, &Worker::SharedRound, false},    {1, &Worker::MemoryRound, false},
    };
    return operations;
}

void Worker::RunPhase(long phase) {
    phase_ = phase;
    may_leave_ = phase % 4 == 1;
    for (int i = 0; i < TheOptions().operations; ++i) {
        ThisPosition() = Position{number_, operation_};
        Choices choices(TheOptions().seed, static_cast<uint64_t>(number_),
                        static_cast<uint64_t>(operation_));
        ++operation_;
        choices_ = &choices;
        if (shared_.ring().load(std::memory_order_relaxed) != nullptr) JoinDuel();
        Perform(choices, false);
    }
    choices_ = nullptr;
}

void Worker::Perform(Choices& choices, bool nested) {
    int all = 0;
    for (const Weighted& each : Operations()) all += each.weight;
    int chosen = choices.Below(static_cast<size_t>(all));
    for (const Weighted& each : Operations()) {
        chosen -= each.weight;
        if (chosen >= 0) continue;
        if (nested && !each.nests) return;
        return (this->*each.operation)(choices);
    }
}

// What a module asks: the plan holds for the first operation that it meets.
RandomAction Worker::Answer(RandomCall& call) {
    if (call.operation == kRandomDestroy && plan_.same != nullptr && call.instance == plan_.same) {
        plan_.same = nullptr;
        return kRandomIgnore;
    }
    if (!plan_.armed) return kRandomGoOn;
    plan_.armed = false;
    Plan plan = plan_;
    if (plan.nested > 0) {
        ++depth_;
        for (int i = 0; i < plan.nested; ++i) {
            Count(kNested);
            Perform(*choices_, true);
        }
        --depth_;
        plan_ = plan;
    }
    call.code = plan.code;
    if (plan.action == kRandomSame) call.instance = plan.same;
    return plan.action;
}

Worker::Plan Worker::MakePlan(Choices& choices) {
    Plan plan;
    plan.armed = true;
    plan.code = 10 + choices.Below(kModuleCodes);
    const int action = choices.Below(40);
    const int nested = choices.Below(12);
    if (action == 0) plan.action = kRandomFail;
    if (action == 1) plan.action = kRandomFailGarbage;
    if (action == 2) plan.action = kRandomThrow;
    if (depth_ < kDeepest && nested < 2) plan.nested = nested + 1;
    return plan;
}

int Worker::CallCreate(const std::string& key, const Plan& plan, LoadFault fault, long allocation,
                       void*& instance, int& error, long& failed) {
    instance = kJunk;
    error = kJunkError;
    const Plan before = plan_;
    plan_ = plan;
    ++reads_;
    int result = 0;
    {
        const Answers answers(this);
        const CallFault call_fault(fault);
        const Shortage shortage(allocation);
        result = library_.CreateInstance(key.c_str(), &instance, &error);
        failed = shortage.Failed();
    }
    plan_ = before;
    if (--reads_ == 0) {
        for (const std::string& put_off : put_off_) model_.Forget(put_off);
        put_off_.clear();
    }
    return result;
}

void Worker::CreateOwn(Choices& choices) {
    if (held_.size() > kMostHeld) return Destroy(choices);
    CreateOwnKey(choices, RandomKey(choices), false);
}

void Worker::CreateOwnKey(Choices& choices, const std::string& key, bool plain) {
    Count(kCreateOwn);
    Plan plan = MakePlan(choices);
    const int special = choices.Below(60);
    const int victim = choices.Below(1000);
    const long nth = 1 + choices.Below(12);
    if (plain) plan = Plan();
    const bool would_load = model_.WouldLoad(key);
    const OwnModel::Record* const record = model_.Find(key);
    const bool is_there = record != nullptr && !record->unregistered;
    LoadFault fault = LoadFault::kNone;
    long allocation = 0;
    if (!plain && host_.faults() && would_load && special < 9) {
        fault = special < 3   ? LoadFault::kAccess
                : special < 6 ? LoadFault::kLoad
                              : LoadFault::kSymbol;
    } else if (!plain && special == 10 && is_there && MayBeLeftForGood()) {
        plan.action = kRandomNull;
    } else if (!plain && special < 13) {
        for (const Held& held : held_) {
            if (held.key == key && victim % 3 != 0) plan.same = held.instance;
        }
        if (plan.same != nullptr) plan.action = kRandomSame;
    } else if (!plain && special < 20 && (would_load || (record != nullptr && record->loaded))) {
        allocation = nth;
        plan.nested = 0;
    }
    if (plan.same != nullptr) plan.nested = 0;

    int reached = 0;
    if (allocation == 0) reached = model_.Reach(key, fault);
    if (reached == 0 && allocation == 0 && is_there && plan.action != kRandomGoOn)
        Count(KindOfCreateFault(plan.action));
    void* instance = nullptr;
    int error = 0;
    long failed = 0;
    const int result = CallCreate(key, plan, fault, allocation, instance, error, failed);
    if (fault != LoadFault::kNone)
        Count(fault == LoadFault::kAccess ? kAccessFails
              : fault == LoadFault::kLoad ? kLoadFails
                                          : kSymbolFails);
    if (failed > 0) {
        Count(kAllocation);
        const bool refused =
            result == VESSA_ERR_OUT_OF_MEMORY || (would_load && result == VESSA_ERR_MODULE_LOAD);
        if (refused) {
            CompareCall("create of " + key + " without memory", result, false, 0, result, instance,
                        error);
            const ModuleFile* const file = would_load ? model_.FileAt(record->path) : nullptr;
            if (file != nullptr)
                model_.AdoptLoad(key, Modules::IsLoaded(file->serial), file->serial);
            return;
        }
    }
    if (allocation != 0) reached = model_.Reach(key);
    CheckCreated(key, plan, reached, result, instance, error);
}

void Worker::CheckCreated(const std::string& key, const Plan& plan, int reached, int result,
                          void* instance, int error) {
    const std::string about = "create of " + key;
    if (reached != VESSA_OK) return CompareCall(about, reached, false, 0, result, instance, error);
    if (plan.action == kRandomFail || plan.action == kRandomFailGarbage ||
        plan.action == kRandomThrow)
        return CompareCall(about, VESSA_FAILED, false, CodeOf(plan.action, plan.code), result,
                           instance, error);
    if (plan.action == kRandomSame) {
        CompareCall(about, VESSA_ERR_INSTANCE_CONFLICT, true, 0, result, instance, error);
        if (instance != plan.same) Mismatch(about, "the conflicting pointer", "another");
        return;
    }
    model_.AddInstance(key);
    if (plan.action == kRandomNull) {
        CompareCall(about, VESSA_OK, false, 0, result, instance, error);
        return Retire(key);
    }
    CompareCall(about, VESSA_OK, true, 0, result, instance, error);
    const auto* const made = static_cast<const RandomInstance*>(instance);
    const uint64_t serial = model_.LoadedSerial(key);
    if (made->serial != serial)
        Mismatch(about, "an instance of module " + std::to_string(serial),
                 "one of " + std::to_string(made->serial));
    held_.push_back(Held{instance, -1, key, serial});
}

void Worker::CreateShared(Choices& choices) {
    if (held_.size() > kMostHeld) return Destroy(choices);
    Count(kCreateShared);
    const int key = choices.Below(Shared::kKeys);
    Plan plan = MakePlan(choices);
    const long nth = choices.OneIn(10) ? 1 + choices.Below(3) : 0;
    if (nth > 0) plan.nested = 0;
    const Shared::Sight before = shared_.Look(key);
    void* instance = nullptr;
    int error = 0;
    long failed = 0;
    const int result =
        CallCreate(shared_.Name(key), plan, LoadFault::kNone, nth, instance, error, failed);
    const Shared::Sight after = shared_.Look(key);
    const std::string about = "create of " + shared_.Name(key);
    if (failed > 0) {
        Count(kAllocation);
        if (result == VESSA_ERR_OUT_OF_MEMORY || result == VESSA_ERR_MODULE_LOAD)
            return CompareCall(about, result, false, 0, result, instance, error);
    }
    if (result == VESSA_ERR_NOT_REGISTERED && Shared::MayBeGone(before, after))
        return CompareCall(about, result, false, 0, result, instance, error);
    if (!Shared::MayBeThere(before, after))
        return CompareCall(about, VESSA_ERR_NOT_REGISTERED, false, 0, result, instance, error);
    if (plan.action != kRandomGoOn) {
        Count(KindOfCreateFault(plan.action));
        return CompareCall(about, VESSA_FAILED, false, CodeOf(plan.action, plan.code), result,
                           instance, error);
    }
    CompareCall(about, VESSA_OK, true, 0, result, instance, error);
    const auto* const made = static_cast<const RandomInstance*>(instance);
    if (!Shared::IsOf(key, made->serial))
        Mismatch(about, "an instance of its module", "module " + std::to_string(made->serial));
    held_.push_back(Held{instance, key, std::string(), made->serial});
}

void Worker::CreateUnknown(Choices& choices) {
    Count(kCreateUnknown);
    const std::string key = prefix_ + ".none" + std::to_string(choices.Below(100));
    void* instance = kJunk;
    int error = kJunkError;
    const int result = library_.CreateInstance(key.c_str(), &instance, &error);
    CompareCall("create of " + key, VESSA_ERR_NOT_REGISTERED, false, 0, result, instance, error);
}

void Worker::Destroy(Choices& choices) {
    const size_t chosen = choices.Next();
    const bool of_unregistered = choices.OneIn(3);
    if (held_.empty()) return;
    size_t at = chosen % held_.size();
    for (size_t i = 0; of_unregistered && i < held_.size(); ++i) {
        if (held_[i].shared < 0 && model_.Find(held_[i].key)->unregistered) at = i;
    }
    DestroyHeld(choices, at, false);
}

void Worker::DestroyHeld(Choices& choices, size_t at, bool plain) {
    Plan plan = MakePlan(choices);
    const int special = choices.Below(50);
    const long nth = 1 + choices.Below(3);
    const Held gone = held_[at];
    const bool own = gone.shared < 0;
    if (plan.action == kRandomFailGarbage) plan.action = kRandomFail;
    if (plain || !own || plan.action == kRandomGoOn || !MayBeLeftForGood())
        plan.action = kRandomGoOn;
    // The unload of an unregistered module lets in who waits for its key or file name, with
    // anybody's next round: then the next round is this thread's.
    const bool lets_in =
        own && model_.Find(gone.key)->unregistered && model_.HasPending() && !plain;
    if (lets_in && depth_ > 0) return;
    if (plain || lets_in) plan.nested = 0;
    const long allocation = plain || special >= 5 ? 0 : nth;
    if (allocation != 0) plan.nested = 0;
    std::unique_lock<std::mutex> lock(host_.scan_mutex(), std::defer_lock);
    if (lets_in) lock.lock();

    Count(own ? kDestroyOwn : kDestroyShared);
    held_.erase(held_.begin() + static_cast<std::ptrdiff_t>(at));
    if (plan.action != kRandomGoOn)
        Count(plan.action == kRandomThrow ? kThrowDestroy : kFailDestroy);
    int error = kJunkError;
    int result = 0;
    long failed = 0;
    const Plan before = plan_;
    plan_ = plan;
    {
        const Answers answers(this);
        const Shortage shortage(allocation);
        result = library_.DestroyInstance(gone.instance, &error);
        failed = shortage.Failed();
    }
    plan_ = before;
    const std::string about =
        "destroy of an instance of " + (own ? gone.key : shared_.Name(gone.shared));
    if (failed > 0) {
        Count(kAllocation);
        if (result == VESSA_ERR_OUT_OF_MEMORY) {
            CompareCall(about, result, true, 0, result, gone.instance, error);
            held_.push_back(gone);
            return;
        }
    }
    dead_.push_back(gone.instance);
    if (plan.action != kRandomGoOn) {
        CompareCall(about, VESSA_FAILED, true, CodeOf(plan.action, plan.code), result,
                    gone.instance, error);
        return Retire(gone.key);
    }
    CompareCall(about, VESSA_OK, true, 0, result, gone.instance, error);
    if (own) DestroyedOwn(gone);
    if (lets_in) SettleRound();
}

void Worker::DestroyedOwn(const Held& gone) {
    if (!model_.RemoveInstance(gone.key)) return;
    Count(reads_ > 0 ? kLastDestroyNested : kLastDestroy);
    if (reads_ > 0)
        put_off_.push_back(gone.key);
    else
        model_.Forget(gone.key);
}

void Worker::DestroyDead(Choices& choices) {
    const size_t chosen = choices.Next();
    if (dead_.empty()) return;
    Count(kDestroyDead);
    int error = kJunkError;
    void* const dead = dead_[chosen % dead_.size()];
    const int result = library_.DestroyInstance(dead, &error);
    CompareCall("destroy of a dead instance", VESSA_ERR_ARGUMENT, true, 0, result, dead, error);
}

// Two threads destroy one instance; who ends second looks at both results.
void Worker::StartDuel(Choices& choices) {
    const size_t chosen = choices.Next();
    if (held_.empty()) return;
    const size_t at = chosen % held_.size();
    if (held_[at].shared < 0) return;
    auto duel = std::make_unique<Duel>();
    duel->instance = held_[at].instance;
    duel->key = held_[at].shared;
    Duel* nobody = nullptr;
    if (!shared_.ring().compare_exchange_strong(nobody, duel.get())) return;
    Count(kDuel);
    held_.erase(held_.begin() + static_cast<std::ptrdiff_t>(at));
    dead_.push_back(duel->instance);
    duels_.push_back(std::move(duel));
    // Until the other one is there, if it comes at once.
    for (int i = 0; i < 20000 && shared_.ring().load() != nullptr; ++i)
        std::atomic_thread_fence(std::memory_order_seq_cst);
    EndDuel(duels_.back().get());
}

void Worker::JoinDuel() {
    if (Duel* const duel = shared_.ring().exchange(nullptr)) EndDuel(duel);
}

void Worker::EndDuel(Duel* duel) {
    int error = kJunkError;
    const int result = library_.DestroyInstance(duel->instance, &error);
    CountResult(result);
    if (error != 0 || (result != VESSA_OK && result != VESSA_ERR_ARGUMENT))
        Mismatch("destroy by two threads", "VESSA_OK or VESSA_ERR_ARGUMENT, plugin_error 0",
                 Seen(result, duel->instance, error));
    if (result == VESSA_OK) duel->succeeded.fetch_add(1);
    if (duel->ended.fetch_add(1) + 1 == 2 && duel->succeeded.load() != 1)
        Mismatch("destroy by two threads", "one success",
                 std::to_string(duel->succeeded.load()) + " successes");
}

void Worker::SettleDuels() {
    for (const auto& duel : duels_) {
        if (duel->succeeded.load() != 1)
            Mismatch("destroy by two threads", "one success",
                     std::to_string(duel->succeeded.load()) + " successes");
    }
    shared_.ring().store(nullptr);
    duels_.clear();
}

void Worker::Query(Choices& choices) {
    const size_t chosen = choices.Next();
    Plan plan = MakePlan(choices);
    const bool unknown = choices.OneIn(6);
    const long nth = choices.OneIn(10) ? 1 + choices.Below(3) : 0;
    if (held_.empty()) return;
    if (nth > 0) plan.nested = 0;
    // Nothing else may destroy it while it is asked.
    const Held asked = held_[chosen % held_.size()];
    held_.erase(held_.begin() + static_cast<std::ptrdiff_t>(chosen % held_.size()));
    Count(unknown ? kQueryNoKey : kQuery);
    void* found = kJunk;
    int error = kJunkError;
    int result = 0;
    long failed = 0;
    const Plan before = plan_;
    plan_ = plan;
    {
        const Answers answers(this);
        const Shortage shortage(nth);
        result =
            library_.QueryInterface(asked.instance, unknown ? "none" : kRandomIkey, &found, &error);
        failed = shortage.Failed();
    }
    plan_ = before;
    held_.push_back(asked);
    if (failed > 0) {
        Count(kAllocation);
        if (result == VESSA_ERR_OUT_OF_MEMORY)
            return CompareCall("query", result, false, 0, result, found, error);
    }
    if (plan.action != kRandomGoOn) {
        Count(plan.action == kRandomFail          ? kFailQuery
              : plan.action == kRandomFailGarbage ? kFailQueryGarbage
                                                  : kThrowQuery);
        return CompareCall("query", VESSA_FAILED, false, CodeOf(plan.action, plan.code), result,
                           found, error);
    }
    if (unknown)
        return CompareCall("query", VESSA_FAILED, false, kRandomErrorIkey, result, found, error);
    CompareCall("query", VESSA_OK, true, 0, result, found, error);
    const auto* const interface = static_cast<const RandomInterface*>(found);
    if (interface->instance != asked.instance || interface->serial != asked.serial ||
        interface->Add(2, 3) != 5)
        Mismatch("query", "the interface of the instance", "another");
}

void Worker::QueryDead(Choices& choices) {
    const size_t chosen = choices.Next();
    if (dead_.empty()) return;
    Count(kQueryDead);
    void* found = kJunk;
    int error = kJunkError;
    const int result =
        library_.QueryInterface(dead_[chosen % dead_.size()], kRandomIkey, &found, &error);
    CompareCall("query of a dead instance", VESSA_ERR_ARGUMENT, false, 0, result, found, error);
}

void Worker::Attribute(Choices& choices) {
    const std::string key = RandomKey(choices);
    const bool missing = choices.OneIn(8);
    const int room = choices.Below(12);
    const long nth = choices.OneIn(10) ? 1 + choices.Below(3) : 0;
    const Item* const item = model_.Declared(key);
    const std::string expected = item != nullptr ? item->note : "";
    char value[64];
    std::memset(value, '#', sizeof value);
    // A room of 11 asks for the length alone.
    unsigned int length = static_cast<unsigned int>(room);
    int result = 0;
    long failed = 0;
    {
        const Shortage shortage(nth);
        result = library_.QueryConfigAttribute(key.c_str(), missing ? "none" : "note",
                                               room == 11 ? nullptr : value, &length);
        failed = shortage.Failed();
    }
    Count(kAttribute);
    if (failed > 0) {
        Count(kAllocation);
        if (result == VESSA_ERR_OUT_OF_MEMORY) return CountResult(result);
    }
    const std::string about = "attribute of " + key;
    const size_t size = expected.size();
    if (item == nullptr || missing) {
        CompareResult(about, VESSA_FAILED, result);
        if (length != static_cast<unsigned int>(room))
            Mismatch(about, "the length as it was", std::to_string(length));
        return;
    }
    const bool too_small = room != 11 && size > static_cast<size_t>(room);
    if (too_small) Count(kAttributeShort);
    CompareResult(about, too_small ? VESSA_ERR_BUFFER_TOO_SMALL : VESSA_OK, result);
    std::string buffer(sizeof value, '#');
    if (!too_small && room != 11) {
        buffer.replace(0, size, expected);
        if (size < static_cast<size_t>(room)) buffer[size] = '\0';
    }
    if (length != size || buffer != std::string(value, sizeof value))
        Mismatch(about, "\"" + expected + "\" and nothing more",
                 std::to_string(length) + " bytes, \"" + std::string(value, sizeof value) + "\"");
}

void Worker::AllKeys(Choices& choices) {
    const long nth = choices.OneIn(10) ? 1 + choices.Below(40) : 0;
    char** keys = reinterpret_cast<char**>(kJunk);
    unsigned int count = 77;
    int result = 0;
    long failed = 0;
    {
        const Shortage shortage(nth);
        result = library_.QueryAllFkeys(&keys, &count);
        failed = shortage.Failed();
    }
    Count(kAllKeys);
    if (failed > 0) {
        Count(kAllocation);
        CompareResult("all keys", VESSA_ERR_OUT_OF_MEMORY, result);
    } else {
        CompareResult("all keys", VESSA_OK, result);
        std::vector<std::string> own;
        for (unsigned int i = 0; i < count; ++i) {
            if (IsOwn(keys[i])) own.push_back(keys[i]);
        }
        if (own != model_.AllKeys())
            Mismatch("all keys", std::to_string(model_.AllKeys().size()) + " own ones in order",
                     std::to_string(own.size()) + " own ones, or in another order");
    }
    if (keys != nullptr) CompareResult("release", VESSA_OK, library_.ReleaseAllFkeys(keys, count));
}

void Worker::Init(Choices& /*choices*/) {
    if (users_ >= 3) return;
    Count(kInit);
    CompareResult("init", VESSA_OK, library_.Init());
    ++users_;
}

void Worker::Uninit(Choices& /*choices*/) {
    if (users_ == 0) return;
    Count(kUninit);
    --users_;
    library_.Uninit();
}

void Worker::GiveBackUsers() {
    for (; users_ > 0; --users_) library_.Uninit();
}

void Worker::BadArgument(Choices& choices) {
    Count(kBadArgument);
    void* pointer = kJunk;
    int error = kJunkError;
    unsigned int number = 9;
    char** keys = reinterpret_cast<char**>(kJunk);
    int result = 0;
    bool cleared = true;
    const auto clears = [&] { cleared = pointer == nullptr && error == 0; };
    switch (choices.Below(12)) {
        case 0:
            result = library_.CreateInstance(nullptr, &pointer, &error), clears();
            break;
        case 1:
            result = library_.CreateInstance("", &pointer, &error), clears();
            break;
        case 2:
            result = library_.CreateInstance("a", nullptr, &error), cleared = error == 0;
            break;
        case 3:
            result = library_.DestroyInstance(nullptr, &error), cleared = error == 0;
            break;
        case 4:
            result = library_.DestroyInstance(kJunk, &error), cleared = error == 0;
            break;
        case 5:
            result = library_.QueryInterface(nullptr, "i", &pointer, &error), clears();
            break;
        case 6:
            result = library_.QueryInterface(kJunk, nullptr, &pointer, &error), clears();
            break;
        case 7:
            result = library_.QueryInterface(kJunk, "i", &pointer, &error), clears();
            break;
        case 8:
            result = library_.QueryConfigAttribute(nullptr, "a", nullptr, &number);
            break;
        case 9:
            result = library_.QueryConfigAttribute("a", "a", nullptr, nullptr);
            break;
        case 10:
            result = library_.QueryAllFkeys(&keys, nullptr), cleared = keys == nullptr;
            break;
        default:
            result = library_.ReleaseAllFkeys(nullptr, 1);
            break;
    }
    CompareResult("bad argument", VESSA_ERR_ARGUMENT, result);
    if (!cleared) Mismatch("bad argument", "cleared out parameters", "what was there before");
}

}  // namespace vessa_random
