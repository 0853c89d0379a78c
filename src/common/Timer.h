#pragma once

#include <atomic>
#include <cstdint>

#include "common/Closure.h"
#include "common/LockOrder.h"
#include "common/RefObject.h"
#include "common/Sync.h"
#include "tova.h"

// Runs a closure on a thread of its own, period by period, until it is stopped. The first run
// comes one full period after the start, and each period begins when the run before it ended.
//
// Thread safety: SetTimer and StopTimer on any thread. From inside the closure they take no
// lock and wait for nothing: StopTimer ends the thread when the closure returns, SetTimer
// gives the same thread a new period and closure.
// Invariants: thread_ is set from a successful start until the thread has been joined;
// control_ is that thread's, and null without one.
class Timer {
  public:
    Timer() = default;
    // The owner stops the timer first; a thread that stopped it itself is joined here.
    ~Timer();
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    // False: callback null, and nothing has changed; or no memory or no thread, the timer is
    // stopped then, and the last system error tells why.
    bool SetTimer(unsigned int period_ms, ObjectPtrT<Closure> callback);
    // Ends the thread and waits for it. Never fails.
    bool StopTimer();

    // For the end of the process, while no start or stop is under way: asks the thread to end
    // and waits a bounded time. A thread that stopped the timer itself is joined then.
    void AskToEnd(unsigned int wait_ms);

  private:
    struct Control {
        TOVA_Sema wake;      // a post tells the thread to end
        TOVA_Sema finished;  // posted by the thread when it runs nothing any more
        // What the closure asked for while it ran; the timer's own thread alone uses it.
        bool ended = false;
        bool replaced = false;
        unsigned int period_ms = 0;
        ObjectPtrT<Closure> callback;
    };

    void ThreadProc(unsigned int period_ms, ObjectPtrT<Closure> callback);
    static int ThreadEntry(void* argument);
    bool NewControl() REQUIRES(mutex_);
    bool StartThread(const ObjectPtrT<Closure>& loop) REQUIRES(mutex_);
    void JoinThread() REQUIRES(mutex_);
    bool OnOwnThread() const;

    tova_thread_t thread_ GUARDED_BY(mutex_) = nullptr;
    // Read without the mutex by the thread that it belongs to.
    ObjectPtrT<Control> control_;
    TOVA_Mutex mutex_ ACQUIRED_AFTER(lock_order::timer) ACQUIRED_BEFORE(lock_order::registry);
    std::atomic<bool> running_{false};
};
