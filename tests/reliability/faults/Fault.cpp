#include "Fault.h"

#include <atomic>
#include <iterator>

#include "Tracing.h"
#include "tova.h"

namespace faults {
namespace {

using vessa_test::RuntimeCall;
using vessa_test::Tova;

constexpr RuntimeFunction kFunctions[] = {
#define FAULTS_FUNCTION(name) \
  { Tova::name, #name }
    FAULTS_FUNCTION(Init),          FAULTS_FUNCTION(Fini),         FAULTS_FUNCTION(MutexCreate),
    FAULTS_FUNCTION(MutexDestroy),  FAULTS_FUNCTION(MutexLock),    FAULTS_FUNCTION(MutexUnlock),
    FAULTS_FUNCTION(SemCreate),     FAULTS_FUNCTION(SemDestroy),   FAULTS_FUNCTION(SemPost),
    FAULTS_FUNCTION(SemWait),       FAULTS_FUNCTION(SemTimedWait), FAULTS_FUNCTION(Thread_Create),
    FAULTS_FUNCTION(Thread_Wait),   FAULTS_FUNCTION(LoadDSo),      FAULTS_FUNCTION(GetDsoSym),
    FAULTS_FUNCTION(UnloadDSo),     FAULTS_FUNCTION(AccessFile),   FAULTS_FUNCTION(OpenDir),
    FAULTS_FUNCTION(FindFileInDir), FAULTS_FUNCTION(CloseDir),
#undef FAULTS_FUNCTION
};

std::atomic<int> stretches{0};
std::atomic<long> calls{0};
std::atomic<long> failed_calls{0};
std::atomic<bool> stopped{false};

// What a failing call does all the same. A hook's own calls go straight to the real functions.
void DoItsWork(const RuntimeCall& call) {
    auto* block = static_cast<tova_shared_t*>(call.object);
    switch (call.function) {
        case Tova::MutexUnlock:
            TOVA_MutexUnlock(&block);
            break;
        case Tova::MutexDestroy:
            TOVA_MutexDestroy(&block);
            break;
        case Tova::SemPost:
            TOVA_SemPost(&block);
            break;
        case Tova::SemDestroy:
            TOVA_SemDestroy(&block);
            break;
        case Tova::CloseDir:
            TOVA_CloseDir(call.object);
            break;
        case Tova::Thread_Wait:
            TOVA_Thread_Wait(static_cast<tova_thread_t>(call.object));
            break;
        default:
            break;
    }
}

}  // namespace

const RuntimeFunction* RuntimeFunctions(int* count) {
    *count = static_cast<int>(std::size(kFunctions));
    return kFunctions;
}

Faults::Faults(const Fault& fault, vessa_test::Runtime& runtime, Tracing* tracing)
    : fault_(fault), runtime_(runtime), tracing_(tracing) {
    if (fault_.kind == Kind::kAllocation)
        FailAllocation(fault_.nth, fault_.extent != Extent::kAlone);
    if (fault_.kind == Kind::kRuntime)
        runtime_.Before(fault_.function, [this](RuntimeCall& call) { OnCall(call); });
}

void Faults::OnCall(RuntimeCall& call) {
    if (stretches.load() == 0) return;
    const long number = calls.fetch_add(1) + 1;
    if (fault_.nth == 0 || stopped.load() || number < fault_.nth) return;
    if (number > fault_.nth && fault_.extent == Extent::kAlone) return;
    failed_calls.fetch_add(1);
    DoItsWork(call);
    call.Fail(fault_.function == Tova::MutexCreate || fault_.function == Tova::SemCreate
                  ? vessa_test::kErrorNoMemory
                  : vessa_test::kErrorIo);
}

Faults::Stretch::Stretch(Faults& faults) : watch_(faults.fault_.kind == Kind::kAllocation) {
    stretches.fetch_add(1);
}

Faults::Stretch::~Stretch() {
    stretches.fetch_sub(1);
}

long Faults::Counted() const {
    return fault_.kind == Kind::kAllocation ? AllocationNumbers().counted : calls.load();
}

long Faults::Failed() {
    if (fault_.kind == Kind::kSystemCall)
        return tracer_left_ ? failed_until_stop_ : tracing_->CountFailed();
    return fault_.kind == Kind::kAllocation ? AllocationNumbers().failed : failed_calls.load();
}

void Faults::Stop() {
    if (fault_.kind == Kind::kSystemCall && !tracer_left_) {
        failed_until_stop_ = tracing_->CountFailed();
        tracing_->StopTracer();
        tracer_left_ = true;
    }
    stopped.store(true);
    FailNoAllocation();
}

}  // namespace faults
