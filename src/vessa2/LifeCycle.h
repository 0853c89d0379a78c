#pragma once

#include <atomic>
#include <cstdint>

#include "common/AtomicCounter.h"
#include "common/LockOrder.h"
#include "common/Sync.h"
#include "tova.h"
#include "vessa2/PluginCoordinator.h"

// The library's start and stop, counted.
//
// The number of users and the phase stand in one atomic word, so that a plug-in call can count
// without the global mutex:
//
//   phase, users   Init                        Uninit                      at the frame's end
//   idle, 0        start: starting, 0          "not init yet"              stop, if it runs
//   idle, 1        idle, 2                     stop: stopping, 0           -
//   idle, n > 1    idle, n+1                   idle, n-1                   -
//   starting, n    waits; in a plug-in call:   waits; in a plug-in call:   - (there will be a
//                  starting, n+1               starting, n-1               user, or no start)
//   stopping, 0    waits; in a plug-in call:   waits; in a plug-in call:   -
//                  refused                     "not init yet"
//
//   starting, n ends as idle, n+1, or as idle, 0 if the start failed; stopping, 0 as idle, 0.
//   Uninit at idle, 1 inside a plug-in call gives idle, 0 and leaves the stop to the end of
//   the thread's outermost library frame, where it takes place if it is still idle, 0.
//   Init at idle, 0 inside a plug-in call that reads the registry is refused unless the
//   library still runs: a start would wait for that very read.
//
// Thread safety: every operation on any thread. Callers outside of plug-in calls are
// serialised by the global mutex; callers inside never wait for it.
class LifeCycle {
  public:
    LifeCycle();
    ~LifeCycle();
    LifeCycle(const LifeCycle&) = delete;
    LifeCycle& operator=(const LifeCycle&) = delete;

    // The library's one life cycle; null while there was no memory for it, and after its end.
    static LifeCycle* Get();
    // The same, made where there is none yet; throws std::bad_alloc if there is no memory for it
    // now either.
    static LifeCycle* Make();

    int Init();
    void Uninit();

    PluginCoordinator& coordinator() { return coordinator_; }
    PluginProvider& provider() { return coordinator_.provider(); }

    // For the end of the process: ends the scanning thread where that is safe, and nothing
    // else: somebody may still come.
    void LeaveProcess();
    // Whether nothing runs, is registered or lives.
    bool IsQuiet();

  private:
    enum Phase : int32_t { kIdle = 0, kStarting = 1, kStopping = 2 };
    struct State {
        int32_t phase;
        int32_t users;
    };
    class Claim;

    State Read() const;
    bool Change(State from, State to);
    void WaitForChange();

    int InitOutside();
    int InitInside();
    void UninitOutside();
    void UninitInside();
    int Start(Claim& claim);
    void Stop(Claim& claim);
    int CountUser(State seen);
    int StartNested();
    static int RefuseStart();
    static void CarryOutPutOffStop();

    PluginCoordinator coordinator_;
    AtomicCounter word_;
    tova_mutex_t global_mutex_ = nullptr;
    TOVA_Sema phase_ended_;
    void* self_reference_ = nullptr;   // held from a start to the end of its stop
    std::atomic<int32_t> process_id_;  // of the process that loaded the library or started it last
};
