#include "common/RegistryGate.h"

#include <cassert>

namespace {

// How long a writer waits with the mutex held, and then without it.
constexpr unsigned kSliceMs = 50;
constexpr unsigned kGapMs = 1;

// Runs every task, also those behind one that is ended by the thread's cancellation.
void RunTasks(GateTask* task) {
    struct Rest {
        GateTask* tasks;
        ~Rest() noexcept(false) {
            if (tasks != nullptr) RunTasks(tasks);
        }
    } rest{task};
    while (rest.tasks != nullptr) {
        GateTask* const next = rest.tasks;
        rest.tasks = next->next;
        next->next = nullptr;
        next->run(next);
    }
}

}  // namespace

void RegistryGate::EnterAsWriter() NO_THREAD_SAFETY_ANALYSIS {
    assert(!ReadsHere());
    // A thread that is cancelled while it waits holds nothing afterwards.
    struct Unlock {
        TOVA_Mutex* held = nullptr;
        ~Unlock() NO_THREAD_SAFETY_ANALYSIS {
            if (held != nullptr) held->Unlock();
        }
    } unlock;
    mutex_.Lock();
    while (readers_.Get() > 0) {
        unlock.held = &mutex_;
        const int drained = drained_.TimedWait(kSliceMs);
        unlock.held = nullptr;
        if (drained == 0) continue;
        mutex_.Unlock();
        // Waiting here, not merely unlocking, is what lets the blocked readers in.
        drained_.TimedWait(kGapMs);
        mutex_.Lock();
    }
}

void RegistryGate::Downgrade() NO_THREAD_SAFETY_ANALYSIS {
    readers_.Add(1);
    mutex_.Unlock();
}

void RegistryGate::ExitAsWriter() NO_THREAD_SAFETY_ANALYSIS {
    mutex_.Unlock();
}

void RegistryGate::EnterAsReader() {
    TOVA_MutexGuard guard(mutex_);
    readers_.Add(1);
    while (drained_.TimedWait(0) == 0) {
    }
}

void RegistryGate::ExitAsReader() {
    if (readers_.Add(-1) == 1) drained_.Post();
}

GateHold* RegistryGate::FindHold() const {
    const ThreadState* const state = ThreadScope::Current();
    GateHold* found = nullptr;
    for (GateHold* hold = state != nullptr ? state->holds : nullptr; hold != nullptr;
         hold = hold->outer) {
        if (hold->gate == this) found = hold;
    }
    return found;
}

void RegistryGate::AfterRead(GateTask* task) {
    GateHold* const hold = FindHold();
    assert(hold != nullptr);
    task->next = nullptr;
    *hold->tail = task;
    hold->tail = &task->next;
}

GatePass::GatePass(RegistryGate& gate, AsReader) : gate_(gate), writing_(false) {
    if (gate_.ReadsHere())
        gate_.CountNestedReader();
    else
        gate_.EnterAsReader();
    PushHold();
}

GatePass::GatePass(RegistryGate& gate, AsWriter) : gate_(gate), writing_(true) {
    gate_.EnterAsWriter();
}

GatePass::~GatePass() noexcept(false) {
    if (writing_) {
        gate_.ExitAsWriter();
        return;
    }
    scope_.State().holds = hold_.outer;
    gate_.ExitAsReader();
    RunTasks(hold_.tasks);
}

void GatePass::Downgrade() {
    gate_.Downgrade();
    writing_ = false;
    PushHold();
}

void GatePass::PushHold() {
    hold_.gate = &gate_;
    hold_.outer = scope_.State().holds;
    scope_.State().holds = &hold_;
}
