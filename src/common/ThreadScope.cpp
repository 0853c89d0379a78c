#include "common/ThreadScope.h"

#include <new>

#include "process/Process.h"

ThreadState ThreadPlaces::fixed_[kFixed];
std::atomic<int32_t> ThreadPlaces::owners_{0};
std::atomic<int32_t> ThreadPlaces::used_{0};
std::atomic<ThreadState*> ThreadPlaces::added_{nullptr};

namespace {

void StartAfresh(ThreadState& state) {
    state.frames = 0;
    state.plugin_calls = 0;
    state.strict_reads = 0;
    state.holds = nullptr;
    state.timer = nullptr;
    state.starting = false;
    state.at_end = nullptr;
}

// Ends the outermost frame, however it ends.
struct FrameEnd {
    ThreadState& state;
    ~FrameEnd() { StartAfresh(state); }
};

}  // namespace

bool ThreadPlaces::TryTake(ThreadState& state) {
    if (state.taken.load(std::memory_order_relaxed) || state.taken.exchange(true)) return false;
    StartAfresh(state);
    return true;
}

ThreadState* ThreadPlaces::TakeFixed() {
    for (int32_t i = 0; i < kFixed; ++i) {
        if (!TryTake(fixed_[i])) continue;
        fixed_[i].place = i;
        int32_t used = used_.load();
        while (used <= i && !used_.compare_exchange_weak(used, i + 1)) {
        }
        return &fixed_[i];
    }
    return nullptr;
}

ThreadState* ThreadPlaces::TakeAdded() {
    for (ThreadState* state = added_.load(); state != nullptr; state = state->next.load())
        if (TryTake(*state)) return state;
    return nullptr;
}

ThreadState* ThreadPlaces::Add() {
    auto* const state = new (std::nothrow) ThreadState;
    if (state == nullptr) return nullptr;
    state->taken.store(true);
    ThreadState* head = added_.load();
    do {
        state->next.store(head);
        state->place = head != nullptr ? head->place + 1 : kFixed;
    } while (!added_.compare_exchange_weak(head, state));
    return state;
}

ThreadState* ThreadPlaces::Take() {
    ThreadState* state = TakeFixed();
    if (state == nullptr) state = TakeAdded();
    if (state == nullptr) state = Add();
    if (state != nullptr) owners_.fetch_add(1);
    return state;
}

void ThreadPlaces::GiveBack(ThreadState* state) {
    // A thread that ended in the middle of a module reads and uses nothing any more.
    state->reading.store(nullptr);
    state->guarded.store(nullptr);
    state->taken.store(false);
    owners_.fetch_sub(1);
}

void ThreadPlaces::Forget() {
    ThreadState* state = added_.exchange(nullptr);
    while (state != nullptr) {
        ThreadState* const next = state->next.load();
        delete state;
        state = next;
    }
}

void process::ThreadSlotEnd(void* value) {
    ThreadPlaces::GiveBack(static_cast<ThreadState*>(value));
}

ThreadState* ThreadScope::TakePlace() {
    ThreadState* const state = ThreadPlaces::Take();
    if (state == nullptr) throw std::bad_alloc();
    if (process::ThreadSlotSet(state)) return state;
    ThreadPlaces::GiveBack(state);
    throw std::bad_alloc();
}

void ThreadScope::EndOutermost() {
    // What runs here is still inside the frame and may ask for another run.
    const FrameEnd end{*state_};
    while (state_->at_end != nullptr) {
        void (*const at_end)() = state_->at_end;
        state_->at_end = nullptr;
        at_end();
    }
}

ThreadState* ThreadScope::Current() {
    auto* const state = static_cast<ThreadState*>(process::ThreadSlotGet());
    return state != nullptr && state->frames > 0 ? state : nullptr;
}

bool ThreadScope::InPluginCall() {
    const ThreadState* const state = Current();
    return state != nullptr && state->plugin_calls > 0;
}
