// Creates and destroys. The other calls are in WorkerCalls.cpp, the changes on disk in
// WorkerRounds.cpp.
#include "Worker.h"

#include <algorithm>

#include "Compare.h"

namespace vessa_random {
namespace {

constexpr int kDeepest = 3;
constexpr size_t kMostHeld = 40;
constexpr int kModuleCodes = 90;  // 10 and up

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
    const bool of_unregistered = choices.OneIn(depth_ > 0 ? 2 : 12);
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
        own && model_.Find(gone.key)->unregistered && model_.LetsIn(gone.key) && !plain;
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

}  // namespace vessa_random
