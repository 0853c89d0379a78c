#include "common/Timer.h"

#include <new>

#include "common/Contain.h"
#include "common/SyncPoint.h"
#include "common/ThreadScope.h"

namespace {

// The largest time-out is endless on some systems.
constexpr unsigned int kLongestPeriodMs = 0xFFFFFFFE;

// One run of the closure. What it throws ends with it; a library frame around it lets it put
// off what must not happen while it runs.
void RunGuarded(Closure& callback, const Timer* timer) {
    Contain([&] {
        ThreadScope scope;
        scope.State().timer = timer;
        callback.Run();  // calls out
    });
}

struct PostAtEnd {
    TOVA_Sema& semaphore;
    ~PostAtEnd() { semaphore.Post(); }
};

}  // namespace

Timer::~Timer() {
    if (OnOwnThread()) return;
    TOVA_MutexGuard guard(mutex_);
    JoinThread();
}

bool Timer::SetTimer(unsigned int period_ms, ObjectPtrT<Closure> callback) {
    if (callback.IsNull()) return false;
    if (period_ms > kLongestPeriodMs) period_ms = kLongestPeriodMs;
    if (OnOwnThread()) {
        // Another thread may hold the mutex and wait for this one.
        control_->period_ms = period_ms;
        control_->callback = callback;
        control_->replaced = true;
        control_->ended = false;
        running_.store(true);
        VESSA_SYNC_POINT("timer.start.inside", this);
        return true;
    }
    VESSA_SYNC_POINT("timer.start.asks", this);
    TOVA_MutexGuard guard(mutex_);
    VESSA_SYNC_POINT("timer.start.has_mutex", this);
    if (running_.load() && !StopTimer()) return false;
    JoinThread();
    // The closure may have started the timer again while its thread was waited for.
    running_.store(false);
    if (!NewControl()) return false;
    const ObjectPtrT<Closure> loop = NewClosure(this, &Timer::ThreadProc, period_ms, callback);
    if (loop.IsNull()) return false;
    if (!StartThread(loop)) return false;
    VESSA_SYNC_POINT("timer.start.has_thread", this);
    running_.store(true);
    return true;
}

bool Timer::StopTimer() {
    if (!running_.load()) return true;
    if (OnOwnThread()) {
        control_->ended = true;
        running_.store(false);
        VESSA_SYNC_POINT("timer.stop.inside", this);
        return true;
    }
    VESSA_SYNC_POINT("timer.stop.asks", this);
    TOVA_MutexGuard guard(mutex_);
    if (!running_.load()) return true;
    VESSA_SYNC_POINT("timer.stop.has_mutex", this);
    JoinThread();
    running_.store(false);
    return true;
}

void Timer::AskToEnd(unsigned int wait_ms) {
    const ObjectPtrT<Control> control = control_;
    if (control.IsNull() || OnOwnThread()) return;
    control->wake.Post();
    if (control->finished.TimedWait(wait_ms) != 0) return;
    // Given back for the next one who asks.
    control->finished.Post();
    if (running_.load()) return;
    // The closure stopped the timer itself, and nobody is going to join its thread any more.
    TOVA_MutexGuard guard(mutex_);
    JoinThread();
}

bool Timer::NewControl() {
    Control* control = nullptr;
    try {
        control = new Control;
    } catch (const std::bad_alloc&) {
        return false;
    }
    control_.Reset(control);
    if (control_.IsNull()) delete control;
    return !control_.IsNull();
}

bool Timer::StartThread(const ObjectPtrT<Closure>& loop) {
    auto* const argument = new (std::nothrow) ObjectPtrT<Closure>(loop);
    if (argument == nullptr) return false;
    if (!argument->IsNull()) thread_ = TOVA_Thread_Create(&ThreadEntry, argument, 0, 0, 0, 0);
    if (thread_ != nullptr) return true;
    delete argument;
    return false;
}

void Timer::JoinThread() {
    if (thread_ == nullptr) return;
    control_->wake.Post();
    VESSA_SYNC_POINT("timer.thread.joins", this);
    TOVA_Thread_Wait(thread_);
    VESSA_SYNC_POINT("timer.thread.joined", this);
    thread_ = nullptr;
    control_.Reset(nullptr);
}

bool Timer::OnOwnThread() const {
    const ThreadState* const state = ThreadScope::Current();
    return state != nullptr && state->timer == this;
}

int Timer::ThreadEntry(void* argument) {
    auto* const handed_over = static_cast<ObjectPtrT<Closure>*>(argument);
    const ObjectPtrT<Closure> loop = *handed_over;
    delete handed_over;
    loop->Run();
    return 0;
}

void Timer::ThreadProc(unsigned int period_ms, ObjectPtrT<Closure> callback) {
    if (callback.IsNull()) return;
    const ObjectPtrT<Control> control = control_;
    const PostAtEnd finished{control->finished};
    while (control->wake.TimedWait(period_ms) != 0) {
        VESSA_SYNC_POINT("timer.round.begins", this);
        RunGuarded(*callback, this);
        VESSA_SYNC_POINT("timer.round.ended", this);
        if (control->replaced) {
            control->replaced = false;
            period_ms = control->period_ms;
            callback = control->callback;
            control->callback.Reset(nullptr);
        }
        if (control->ended) break;
    }
}
