#include "support/Runtime.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <new>
#include <ostream>
#include <stdexcept>
#include <utility>

#include "TestPlatform.h"
#include "support/RuntimeState.h"
#include "support/Sync.h"

namespace vessa_test {
namespace {

constexpr const char* kNames[] = {
#define VESSA_TEST_TOVA_NAME(name) "TOVA_" #name,
    VESSA_TEST_TOVA_LIST(VESSA_TEST_TOVA_NAME)
#undef VESSA_TEST_TOVA_NAME
};

std::atomic<void*> real_symbols[kTovaCount];
std::atomic<bool> runtime_lives{false};
std::atomic<long> resources[5];

long Resources(Resource resource) {
    return resources[static_cast<std::size_t>(resource)].load();
}

bool CanFail(Tova function) {
    return function != Tova::AtomicAdd && function != Tova::AtomicCas &&
           function != Tova::GetSystemLastError && function != Tova::Strncpy;
}

}  // namespace

thread_local int Bypass::depth = 0;

const char* SymbolName(Tova function) {
    return kNames[static_cast<std::size_t>(function)];
}

void* RealSymbol(Tova function) {
    std::atomic<void*>& known = real_symbols[static_cast<std::size_t>(function)];
    void* symbol = known.load();
    if (symbol != nullptr) return symbol;
    symbol = SymbolBehind(SymbolName(function));
    known.store(symbol);
    return symbol;
}

void CountResource(Resource resource, long delta) {
    resources[static_cast<std::size_t>(resource)].fetch_add(delta, std::memory_order_relaxed);
}

Interventions& TheInterventions() {
    // No block of the heap: the first call may come while a test counts them.
    alignas(Interventions) static unsigned char storage[sizeof(Interventions)];
    static Interventions& interventions = *new (storage) Interventions;
    return interventions;
}

void RuntimeCall::Fail(int system_error) {
    if (!CanFail(function)) throw std::logic_error("this function cannot fail");
    action_ = Action::kFail;
    error_ = system_error;
}

void RuntimeCall::Return(int result) {
    action_ = Action::kReturn;
    result_ = result;
}

void RuntimeCall::ReturnPointer(void* result) {
    action_ = Action::kReturn;
    result_ = reinterpret_cast<std::intptr_t>(result);
}

Interception::Interception(Tova function, void* object, const char* text, unsigned milliseconds)
    : call_(function, object, text, milliseconds) {
    const AllocationPause pause;
    Interventions& interventions = TheInterventions();
    if (!Bypass::Active() && interventions.IsActive()) {
        counted_ = true;
        call_.index = interventions.NextIndex(function);
        int error = 0;
        if (interventions.MustFail(function, call_.index, &error)) call_.Fail(error);
        interventions.RunHook(true, call_);
    }
    if (Fails()) {
        interventions.CountFailure(function);
        errors_.Set(call_.error_);
    }
    errors_.Restore();
}

Interception::~Interception() {
    if (counted_ && std::uncaught_exceptions() == 0) {
        const AllocationPause pause;
        TheInterventions().RunHook(false, call_);
    }
    errors_.Restore();
}

void Interventions::Start() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (Function& function : functions_) {
        function.calls = 0;
        function.failed = 0;
    }
    active_ = true;
}

void Interventions::End() {
    std::unique_lock<std::mutex> lock(mutex_);
    active_ = false;
    for (Function& function : functions_) {
        function.plan = {};
        function.before.reset();
        function.after.reset();
        function.UpdateSpecial();
    }
    if (idle_.wait_for(lock, kLongWait, [this] { return hooks_running_ == 0; })) return;
    std::fprintf(stderr, "a hook of the runtime does not end\n");
    std::abort();
}

long Interventions::NextIndex(Tova function) {
    return Of(function).calls.fetch_add(1, std::memory_order_relaxed) + 1;
}

long Interventions::Calls(Tova function) const {
    return Of(function).calls.load();
}

long Interventions::Failed(Tova function) const {
    return Of(function).failed.load();
}

void Interventions::Plan(Tova function, long nth, bool all_after, int error) {
    if (!CanFail(function))
        throw std::logic_error(std::string(SymbolName(function)) + " cannot fail");
    std::lock_guard<std::mutex> lock(mutex_);
    Function& entry = Of(function);
    entry.plan = {nth == 0 ? 0 : entry.calls.load() + nth, all_after, error};
    entry.UpdateSpecial();
}

void Interventions::SetHook(Tova function, bool before, Runtime::Hook hook) {
    std::shared_ptr<Runtime::Hook> kept;
    if (hook) kept = std::make_shared<Runtime::Hook>(std::move(hook));
    std::lock_guard<std::mutex> lock(mutex_);
    Function& entry = Of(function);
    (before ? entry.before : entry.after) = kept;
    entry.UpdateSpecial();
}

void Interventions::RunHook(bool before, RuntimeCall& call) {
    Function& entry = Of(call.function);
    if (!entry.special.load()) return;
    std::shared_ptr<Runtime::Hook> hook;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        hook = before ? entry.before : entry.after;
        if (!hook) return;
        ++hooks_running_;
    }
    struct Running {
        Interventions& of;
        ~Running() {
            std::lock_guard<std::mutex> lock(of.mutex_);
            --of.hooks_running_;
            of.idle_.notify_all();
        }
    } running{*this};
    const Bypass bypass;
    try {
        (*hook)(call);
    } catch (const std::exception& error) {
        ADD_FAILURE() << "a hook of " << SymbolName(call.function) << " threw " << error.what();
    }
    hook.reset();
}

bool Interventions::MustFail(Tova function, long index, int* error) {
    Function& entry = Of(function);
    if (!entry.special.load()) return false;
    std::lock_guard<std::mutex> lock(mutex_);
    const FailurePlan& plan = entry.plan;
    if (plan.at == 0 || index < plan.at || (index > plan.at && !plan.all_after)) return false;
    *error = plan.error;
    return true;
}

void Interventions::CountFailure(Tova function) {
    Of(function).failed.fetch_add(1);
}

Runtime::Runtime() {
    if (runtime_lives.exchange(true)) throw std::logic_error("one Runtime at a time");
    for (std::size_t i = 0; i < kTovaCount; ++i) RealSymbol(static_cast<Tova>(i));
    TheLongWaits().Start();
    TheInterventions().Start();
}

Runtime::~Runtime() {
    const AllocationPause pause;
    TheInterventions().End();
    TheLongWaits().End();
    runtime_lives = false;
}

long Runtime::Calls(Tova function) const {
    return TheInterventions().Calls(function);
}

long Runtime::Failed(Tova function) const {
    return TheInterventions().Failed(function);
}

void Runtime::FailCall(Tova function, long nth, int system_error) {
    TheInterventions().Plan(function, nth, false, system_error);
}

void Runtime::FailFrom(Tova function, long nth, int system_error) {
    TheInterventions().Plan(function, nth, true, system_error);
}

void Runtime::StopFailing(Tova function) {
    TheInterventions().Plan(function, 0, false, 0);
}

void Runtime::Before(Tova function, Hook hook) {
    TheInterventions().SetHook(function, true, std::move(hook));
}

void Runtime::After(Tova function, Hook hook) {
    TheInterventions().SetHook(function, false, std::move(hook));
}

RuntimeCensus Runtime::Census() {
    return {Resources(Resource::kMutex), Resources(Resource::kSemaphore),
            Resources(Resource::kThread), Resources(Resource::kModule),
            Resources(Resource::kFolder)};
}

std::ostream& operator<<(std::ostream& out, const RuntimeCensus& census) {
    return out << census.mutexes << " mutexes, " << census.semaphores << " semaphores, "
               << census.threads << " threads, " << census.modules << " modules, " << census.folders
               << " folders";
}

std::vector<RuntimeWaiter> Runtime::Waiters() const {
    return TheLongWaits().Waiters(0);
}

std::vector<RuntimeWaiter> Runtime::AwaitWaiters(int count) const {
    return TheLongWaits().Waiters(static_cast<std::size_t>(count));
}

bool Runtime::Tick() {
    return AwaitRound(StartTick());
}

bool Runtime::Tick(int waiter) {
    return AwaitRound(StartTick(waiter));
}

int Runtime::StartTick() {
    return TheLongWaits().StartTick(0);
}

int Runtime::StartTick(int waiter) {
    return TheLongWaits().StartTick(waiter);
}

bool Runtime::AwaitRound(int waiter) {
    return TheLongWaits().AwaitRound(waiter);
}

}  // namespace vessa_test
