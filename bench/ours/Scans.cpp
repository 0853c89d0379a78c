// The library waits between two scans in a function of its runtime, which is found in the program
// first: this one.
#include <atomic>
#include <condition_variable>
#include <mutex>

#include "common/Rows.h"
#include "ours/Library.h"
#include "tova.h"

namespace bench {
namespace {

constexpr unsigned kLongestOrdinaryWaitMs = 1000;

struct State {
    std::mutex mutex;
    std::condition_variable changed;
    bool held = false;
    bool is_waiting = false;
    bool is_due = false;
    Clock::time_point started;
    double seconds = 0;
};

State& TheState() {
    static State& state = *new State;
    return state;
}

// False: nobody holds the scans.
bool WaitUntilDue() {
    State& state = TheState();
    std::unique_lock<std::mutex> lock(state.mutex);
    if (!state.held) return false;
    state.seconds = SecondsSince(state.started);
    state.is_waiting = true;
    state.changed.notify_all();
    state.changed.wait(lock, [&] { return state.is_due || !state.held; });
    state.is_waiting = false;
    if (!state.held) return false;
    state.is_due = false;
    state.started = Clock::now();
    return true;
}

std::atomic<decltype(&TOVA_SemTimedWait)> real_wait{nullptr};

}  // namespace

void Scans::Attach(const Library& library) {
    real_wait.store(
        reinterpret_cast<decltype(&TOVA_SemTimedWait)>(library.Symbol("TOVA_SemTimedWait")));
}

void Scans::Hold() {
    State& state = TheState();
    const std::lock_guard<std::mutex> lock(state.mutex);
    state.held = true;
    state.started = Clock::now();
}

void Scans::Release() {
    State& state = TheState();
    const std::lock_guard<std::mutex> lock(state.mutex);
    state.held = false;
    state.changed.notify_all();
}

double Scans::RunOne() {
    State& state = TheState();
    std::unique_lock<std::mutex> lock(state.mutex);
    state.changed.wait(lock, [&] { return state.is_waiting; });
    state.is_due = true;
    state.changed.notify_all();
    state.changed.wait(lock, [&] { return state.is_waiting && !state.is_due; });
    return state.seconds;
}

}  // namespace bench

extern "C" __attribute__((visibility("default"))) int TOVA_SemTimedWait(tova_sem_t* semaphore,
                                                                        unsigned milliseconds) {
    const bool is_between_scans = milliseconds > bench::kLongestOrdinaryWaitMs;
    if (is_between_scans && bench::WaitUntilDue()) return 1;
    return bench::real_wait.load(std::memory_order_relaxed)(semaphore, milliseconds);
}
