#include "common/RegistryGate.h"

#include <cassert>
#include <chrono>

#include "common/AsymmetricFence.h"
#include "common/SpinWait.h"
#include "common/SyncPoint.h"

namespace {

// How long a writer waits with the mutex held, and then without it.
constexpr unsigned kSliceMs = 50;
constexpr unsigned kGapMs = 1;

// How often a thread looks whether another one has left before it goes to sleep: a few
// microseconds, more than most reads and all writes take.
constexpr int kLooks = 64;

// What readers get between two writers that would keep them out all the time otherwise.
constexpr std::chrono::microseconds kTurn{16};

// Runs every task, also those behind one that is ended by the thread's cancellation.
VESSA_COLD void RunTasks(GateTask* task) {
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
        VESSA_SYNC_POINT("gate.task.runs", next);
        next->run(next);
    }
}

}  // namespace

bool RegistryGate::HasReaders() const {
    return counted_.load() > 0 || ThreadPlaces::AnyOf([this](const ThreadState& state) {
               return state.reading.load() == this;
           });
}

int32_t RegistryGate::Readers() const {
    int32_t readers = counted_.load();
    ThreadPlaces::AnyOf([&](const ThreadState& state) {
        if (state.reading.load() == this) ++readers;
        return false;
    });
    return readers;
}

void RegistryGate::EnterAsWriter() NO_THREAD_SAFETY_ANALYSIS {
    assert(!ReadsHere());
    LeaveReadersATurn();
    VESSA_SYNC_POINT("gate.writer.comes", this);
    attention_.fetch_add(kWriter);
    VESSA_SYNC_POINT("gate.writer.counted", this);
    mutex_.Lock();
    VESSA_SYNC_POINT("gate.writer.has_mutex", this);
    if ((attention_.fetch_or(kStrict) & kStrict) == 0) AsymmetricFence::Heavy();
    VESSA_SYNC_POINT("gate.writer.fenced", this);
    if (!SeesReadersLeave()) WaitForReaders();
    VESSA_SYNC_POINT("gate.writer.in", this);
}

void RegistryGate::LeaveReadersATurn() {
    if (!turned_away_.load() || !turned_away_.exchange(false)) return;
    VESSA_SYNC_POINT("gate.writer.leaves_a_turn", this);
    const auto end = std::chrono::steady_clock::now() + kTurn;
    while (std::chrono::steady_clock::now() < end) SpinWait();
}

bool RegistryGate::SeesReadersLeave() const {
    for (int i = 0; i < kLooks; ++i) {
        if (!HasReaders()) return true;
        SpinWait();
    }
    return false;
}

void RegistryGate::WaitForReaders() NO_THREAD_SAFETY_ANALYSIS {
    // A thread that is cancelled while it waits holds nothing afterwards.
    struct Undo {
        RegistryGate* gate;
        bool is_locked = true;
        bool is_in = false;
        ~Undo() NO_THREAD_SAFETY_ANALYSIS {
            gate->sleepers_.fetch_sub(1);
            if (is_in) return;
            gate->attention_.fetch_sub(kWriter);
            if (is_locked) gate->mutex_.Unlock();
        }
    } undo{this};
    VESSA_SYNC_POINT("gate.writer.waits", this);
    sleepers_.fetch_add(1);
    AsymmetricFence::Heavy();
    VESSA_SYNC_POINT("gate.writer.asleep", this);
    while (HasReaders()) {
        VESSA_SYNC_POINT("gate.writer.sleeps", this);
        const bool is_posted = drained_.TimedWait(kSliceMs) == 0;
        VESSA_SYNC_POINT("gate.writer.woken", this);
        if (is_posted) continue;
        undo.is_locked = false;
        mutex_.Unlock();
        VESSA_SYNC_POINT("gate.writer.gives_up_slice", this);
        // Waiting here, not merely unlocking, is what lets the blocked readers in.
        // A post that it takes is given back: a writer that has the mutex by now may sleep for it.
        if (drained_.TimedWait(kGapMs) == 0) drained_.Post();
        mutex_.Lock();
        VESSA_SYNC_POINT("gate.writer.has_mutex_again", this);
        undo.is_locked = true;
    }
    undo.is_in = true;
}

GateHold::Shown RegistryGate::Downgrade(ThreadState& thread) NO_THREAD_SAFETY_ANALYSIS {
    const GateHold::Shown shown = Show(thread);
    VESSA_SYNC_POINT("gate.writer.shown", this);
    ExitAsWriter();
    VESSA_SYNC_POINT("gate.writer.downgraded", this);
    return shown;
}

void RegistryGate::ExitAsWriter() NO_THREAD_SAFETY_ANALYSIS {
    attention_.fetch_sub(kWriter);
    VESSA_SYNC_POINT("gate.writer.uncounted", this);
    mutex_.Unlock();
    VESSA_SYNC_POINT("gate.writer.left", this);
}

// Shows the thread as a reader. Without the mutex it is one when it finds itself let in.
GateHold::Shown RegistryGate::Show(ThreadState& thread) {
    if (thread.reading.load(std::memory_order_relaxed) != nullptr) {
        counted_.fetch_add(1);
        return GateHold::kCounted;
    }
    thread.reading.store(this, std::memory_order_release);
    return GateHold::kInPlace;
}

// Whether a thread that shows itself has met no writer.
bool RegistryGate::IsLetIn(ThreadState& thread) {
    AsymmetricFence::Light();
    const int32_t seen = attention_.load();
    VESSA_SYNC_POINT("gate.reader.looked", this);
    return seen == 0 || (seen == kStrict && IsLetInStrictly(thread));
}

bool RegistryGate::IsLetInStrictly(ThreadState& thread) {
    AsymmetricFence::Full();
    if (attention_.load() != kStrict) return false;
    VESSA_SYNC_POINT("gate.reader.looked_strictly", this);
    if (++thread.strict_reads >= kStrictReads) {
        thread.strict_reads = 0;
        int32_t quiet = kStrict;
        attention_.compare_exchange_strong(quiet, 0);
    }
    return true;
}

GateHold::Shown RegistryGate::EnterAsReader(ThreadState& thread) {
    const GateHold::Shown shown = Show(thread);
    VESSA_SYNC_POINT("gate.reader.shown", this);
    if (IsLetIn(thread)) return shown;
    ExitAsReader(thread, shown);
    return EnterBesideWriters(thread);
}

GateHold::Shown RegistryGate::EnterBesideWriters(ThreadState& thread) {
    turned_away_.store(true);
    VESSA_SYNC_POINT("gate.reader.turned_away", this);
    for (int i = 0; i < kLooks; ++i) {
        if (Writers() != 0) {
            SpinWait();
            continue;
        }
        const GateHold::Shown shown = Show(thread);
        VESSA_SYNC_POINT("gate.reader.shown_again", this);
        if (IsLetIn(thread)) return shown;
        ExitAsReader(thread, shown);
    }
    return EnterBehindMutex(thread);
}

GateHold::Shown RegistryGate::EnterBehindMutex(ThreadState& thread) {
    VESSA_SYNC_POINT("gate.reader.queues", this);
    TOVA_MutexGuard guard(mutex_);
    const GateHold::Shown shown = Show(thread);
    VESSA_SYNC_POINT("gate.reader.has_mutex", this);
    while (drained_.TimedWait(0) == 0) {
    }
    return shown;
}

void RegistryGate::ExitAsReader(ThreadState& thread, GateHold::Shown shown) {
    if (shown == GateHold::kInPlace)
        thread.reading.store(nullptr, std::memory_order_release);
    else
        counted_.fetch_sub(1);
    VESSA_SYNC_POINT("gate.reader.hidden", this);
    AsymmetricFence::Light();
    if (sleepers_.load() != 0) drained_.Post();
    VESSA_SYNC_POINT("gate.reader.looked_for_sleepers", this);
}

GateHold* RegistryGate::FindHold(const ThreadState* thread) const {
    GateHold* found = nullptr;
    for (GateHold* hold = thread != nullptr ? thread->holds : nullptr; hold != nullptr;
         hold = hold->outer) {
        if (hold->gate == this) found = hold;
    }
    return found;
}

bool RegistryGate::ReadsHere() const {
    return FindHold(ThreadScope::Current()) != nullptr;
}

void RegistryGate::AfterRead(GateTask* task) {
    GateHold* const hold = FindHold(ThreadScope::Current());
    assert(hold != nullptr);
    task->next = nullptr;
    *hold->tail = task;
    hold->tail = &task->next;
}

void RegistryGate::Push(ThreadState& thread, GateHold& hold) {
    hold.gate = this;
    hold.outer = thread.holds;
    thread.holds = &hold;
}

void RegistryGate::Read(ThreadState& thread, GateHold& hold) {
    if (FindHold(&thread) == nullptr) hold.shown = EnterAsReader(thread);
    Push(thread, hold);
    VESSA_SYNC_POINT("gate.reader.in", this);
}

void RegistryGate::EndRead(ThreadState& thread, GateHold& hold) {
    thread.holds = hold.outer;
    if (hold.shown != GateHold::kNested) ExitAsReader(thread, hold.shown);
}

GatePass::GatePass(RegistryGate& gate, AsReader) : gate_(gate), writing_(false) {
    gate_.Read(scope_.State(), hold_);
}

GatePass::GatePass(RegistryGate& gate, AsWriter) : gate_(gate), writing_(true) {
    gate_.EnterAsWriter();
}

GatePass::~GatePass() noexcept(false) {
    if (writing_) {
        gate_.ExitAsWriter();
        return;
    }
    gate_.EndRead(scope_.State(), hold_);
    if (hold_.tasks != nullptr) RunTasks(hold_.tasks);
}

void GatePass::Downgrade() {
    hold_.shown = gate_.Downgrade(scope_.State());
    writing_ = false;
    gate_.Push(scope_.State(), hold_);
}

GateRead::~GateRead() noexcept(false) {
    gate_.EndRead(context_.thread, hold_);
    if (hold_.tasks == nullptr) return;
    RunTasks(hold_.tasks);
    context_.log.Renew();
}
