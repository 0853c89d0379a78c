// What the library knows of a thread.
//
// The state of a thread has a place that nobody else writes to. It is taken with the thread's
// first library frame, found through the process's slot for each thread, and given back at the
// thread's end, for another thread to take. A place never goes away while the library is loaded,
// so any thread may look at what the places show.
#pragma once

#include <atomic>
#include <cstdint>

#include "common/Compiler.h"
#include "process/Process.h"

struct GateHold;

// Two cache lines: processors fetch them in pairs.
constexpr int kPlaceAlignment = 128;

struct alignas(kPlaceAlignment) ThreadState {
    // Shown to other threads; written by the owner.
    std::atomic<const void*> reading{nullptr};  // the gate that the thread reads
    std::atomic<const void*> guarded{nullptr};  // what must not be deleted meanwhile

    // The owner's alone.
    int32_t frames = 0;           // library frames on the stack
    int32_t plugin_calls = 0;     // calls into modules on the stack
    GateHold* holds = nullptr;    // reads of registry gates, innermost first
    int32_t strict_reads = 0;     // since a gate was last found without writers for long
    const void* timer = nullptr;  // set on a timer's thread: whose
    bool starting = false;        // the library's start is on the stack
    void (*at_end)() = nullptr;   // run once when the outermost frame ends

    // Whether anything is set that ends with the outermost frame.
    bool HasMarks() const {
        return (reinterpret_cast<uintptr_t>(at_end) | reinterpret_cast<uintptr_t>(timer) |
                static_cast<uintptr_t>(starting)) != 0;
    }

    int32_t place = 0;                        // constant: which place it is
    std::atomic<bool> taken{false};           // whether a thread has it
    std::atomic<ThreadState*> next{nullptr};  // of the places that were added; constant once set
};

// The places of all threads.
//
//   place          Take                     GiveBack
//   free           taken, state afresh      -
//   taken          passed over              free
//
//   The first kFixed places are part of the library. Further ones are added when all are taken,
//   and stay.
//
// Thread safety: every operation on any thread.
// Invariants: a taken place belongs to one thread. Every place with an owner is among those that
// AnyOf visits.
class ThreadPlaces {
  public:
    static constexpr int32_t kFixed = 64;

    // Null: no memory for a further place.
    static ThreadState* Take();
    static void GiveBack(ThreadState* state);

    // Whether the predicate holds for the state of some place, also one that nobody has.
    template <class Predicate>
    static bool AnyOf(Predicate&& predicate) {
        const int32_t used = used_.load();
        for (int32_t i = 0; i < used; ++i) {
            if (predicate(fixed_[i])) return true;
        }
        for (const ThreadState* state = added_.load(); state != nullptr; state = state->next.load())
            if (predicate(*state)) return true;
        return false;
    }

    // Threads that have a place. A thread counts here before it shows anything.
    static int32_t Owners() { return owners_.load(); }

    // Frees the places that were added. Only when no thread can come any more.
    static void Forget();

  private:
    static ThreadState* TakeFixed();
    static ThreadState* TakeAdded();
    static bool TryTake(ThreadState& state);
    static ThreadState* Add();

    static ThreadState fixed_[kFixed];
    static std::atomic<int32_t> owners_;
    static std::atomic<int32_t> used_;        // fixed places that were ever taken
    static std::atomic<ThreadState*> added_;  // newest first
};

// One library frame. Every export that may come to a module, every tick of a timer, every read
// of a gate and every call into a module opens one; frames nest.
//
// Thread safety: on the stack of one thread. Construction throws std::bad_alloc when there is
// neither a slot nor a place for the thread.
class ThreadScope {
  public:
    ThreadScope() : state_(static_cast<ThreadState*>(process::ThreadSlotGet())) {
        if (state_ == nullptr) state_ = TakePlace();
        ++state_->frames;
    }
    // at_end may be ended by the cancellation of the thread, which passes through.
    ~ThreadScope() noexcept(false) {
        if (state_->frames > 1)
            --state_->frames;
        else if (state_->HasMarks())
            EndOutermost();
        else
            state_->frames = 0;
    }
    ThreadScope(const ThreadScope&) = delete;
    ThreadScope& operator=(const ThreadScope&) = delete;

    ThreadState& State() { return *state_; }

    // The calling thread's state; null outside every library frame.
    static ThreadState* Current();
    static bool InPluginCall();

  private:
    VESSA_COLD static ThreadState* TakePlace();
    VESSA_COLD void EndOutermost();

    ThreadState* state_;
};

// A frame around a call into a module.
class PluginCallScope {
  public:
    PluginCallScope() { ++scope_.State().plugin_calls; }
    ~PluginCallScope() noexcept(false) { --scope_.State().plugin_calls; }
    PluginCallScope(const PluginCallScope&) = delete;
    PluginCallScope& operator=(const PluginCallScope&) = delete;

  private:
    ThreadScope scope_;
};
