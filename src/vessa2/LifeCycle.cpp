#include "vessa2/LifeCycle.h"

#include <atomic>
#include <new>

#include "common/AsymmetricFence.h"
#include "common/Contain.h"
#include "common/MessageFormat.h"
#include "common/SyncPoint.h"
#include "common/ThreadScope.h"
#include "process/Process.h"
#include "vessa/vessa.h"
#include "vessa2/ModuleDirectory.h"
#include "vessa2/PluginLoader.h"

namespace {

constexpr char kPluginFolder[] = "tarnet";
constexpr char kConfigFilename[] = "tarnet.xml";

constexpr int32_t kPhaseUnit = 0x10000000;
constexpr unsigned int kPhaseSliceMs = 10;
constexpr unsigned int kLeaveWaitMs = 2000;

// The global objects stand in storage of their own: at the end of the process they are left
// alone, because other threads and the host's own global objects may still come.
alignas(LifeCycle) unsigned char storage[sizeof(LifeCycle)];
std::atomic<LifeCycle*> the_life_cycle{nullptr};

void DestroyIfQuiet() {
    LifeCycle* const life_cycle = the_life_cycle.load();
    if (life_cycle == nullptr || !life_cycle->IsQuiet()) return;
    the_life_cycle.store(nullptr);
    life_cycle->~LifeCycle();
    PluginLoader::DestroyInstance();
}

struct LibraryLife {
    LibraryLife() {
        AsymmetricFence::Prepare();
        Contain([] { LifeCycle::Make(); });
    }
    ~LibraryLife() {
        if (!process::BeingUnloaded()) {
            if (LifeCycle* const life_cycle = the_life_cycle.load()) life_cycle->LeaveProcess();
            return;
        }
        Contain([] { DestroyIfQuiet(); });
        ReleaseLogger();
        process::ThreadSlotFree();
        ThreadPlaces::Forget();
    }
} const library_life;

// The runtime's own mutex, locked for a stretch.
class GlobalLock {
  public:
    explicit GlobalLock(tova_mutex_t& mutex) : mutex_(mutex) {
        VESSA_SYNC_POINT("life.global.asks", &mutex_);
        TOVA_MutexLock(&mutex_);
        VESSA_SYNC_POINT("life.global.has_mutex", &mutex_);
    }
    ~GlobalLock() { TOVA_MutexUnlock(&mutex_); }
    GlobalLock(const GlobalLock&) = delete;
    GlobalLock& operator=(const GlobalLock&) = delete;

  private:
    tova_mutex_t& mutex_;
};

// Marks the start on the thread's own state while it is on the stack.
class StartMark {
  public:
    explicit StartMark(ThreadState& state) : state_(state) { state_.starting = true; }
    ~StartMark() { state_.starting = false; }
    StartMark(const StartMark&) = delete;
    StartMark& operator=(const StartMark&) = delete;

  private:
    ThreadState& state_;
};

}  // namespace

// The phase of a start or stop that this thread carries out. It ends in idle with the users
// that Finish was given, or with none if the thread is cancelled on the way.
class LifeCycle::Claim {
  public:
    Claim(LifeCycle& life_cycle, State from, Phase phase)
        : life_cycle_(life_cycle), held_(life_cycle.Change(from, State{phase, 0})) {}
    ~Claim() {
        if (held_) Finish(0, false);
    }
    Claim(const Claim&) = delete;
    Claim& operator=(const Claim&) = delete;

    bool IsHeld() const { return held_; }

    // Adds to the users that were counted meanwhile, or drops them too.
    void Finish(int32_t add, bool keep_users) {
        for (;;) {
            const State seen = life_cycle_.Read();
            if (life_cycle_.Change(seen, State{kIdle, keep_users ? seen.users + add : 0})) break;
        }
        held_ = false;
        VESSA_SYNC_POINT("life.phase.is_idle", &life_cycle_);
        life_cycle_.phase_ended_.Post();
    }

  private:
    LifeCycle& life_cycle_;
    bool held_;
};

LifeCycle::LifeCycle() : process_id_(process::ProcessId()) {
    if (TOVA_MutexCreate(&global_mutex_, 0) != 0) throw std::bad_alloc();
}

LifeCycle::~LifeCycle() {
    TOVA_MutexDestroy(&global_mutex_);
}

LifeCycle* LifeCycle::Get() {
    return the_life_cycle.load();
}

// Where an exception ends the initialisation the next call begins it again.
LifeCycle* LifeCycle::Make() {
    static const bool made = [] {
        the_life_cycle.store(new (storage) LifeCycle);
        return true;
    }();
    static_cast<void>(made);
    return Get();
}

LifeCycle::State LifeCycle::Read() const {
    const int32_t word = word_.Get();
    return State{word / kPhaseUnit, word % kPhaseUnit};
}

bool LifeCycle::Change(State from, State to) {
    const int32_t before = from.phase * kPhaseUnit + from.users;
    return word_.CompareExchange(before, to.phase * kPhaseUnit + to.users) == before;
}

// Only plug-in calls, and stops that were put off by one, go without the global mutex; they wait
// for nobody who waits here.
void LifeCycle::WaitForChange() {
    VESSA_SYNC_POINT("life.phase.waits", this);
    phase_ended_.TimedWait(kPhaseSliceMs);
}

int LifeCycle::Init() {
    return ThreadScope::InPluginCall() ? InitInside() : InitOutside();
}

void LifeCycle::Uninit() {
    if (ThreadScope::InPluginCall())
        UninitInside();
    else
        UninitOutside();
}

int LifeCycle::RefuseStart() {
    LOG_PLAIN(kError, "run plugin coordinator failed");
    return VESSA_FAILED;
}

int LifeCycle::CountUser(State seen) {
    LOG_FORMAT(kInformation, "vessa already init, init counter value {0}", seen.users + 1);
    return VESSA_OK;
}

int LifeCycle::InitOutside() {
    const GlobalLock lock(global_mutex_);
    for (;;) {
        const State seen = Read();
        if (seen.phase != kIdle) {
            WaitForChange();
        } else if (seen.users >= 1) {
            if (Change(seen, State{kIdle, seen.users + 1})) return CountUser(seen);
        } else {
            Claim claim(*this, seen, kStarting);
            if (claim.IsHeld()) return Start(claim);
        }
    }
}

int LifeCycle::InitInside() {
    ThreadState& thread = *ThreadScope::Current();
    for (;;) {
        const State seen = Read();
        VESSA_SYNC_POINT("life.init.looked_inside", this);
        if (seen.phase == kStopping) return RefuseStart();
        if (seen.phase == kStarting && seen.users == 0 && thread.starting) return StartNested();
        if (seen.phase == kStarting || seen.users >= 1) {
            if (Change(seen, State{seen.phase, seen.users + 1})) return CountUser(seen);
            continue;
        }
        Claim claim(*this, seen, kStarting);
        if (!claim.IsHeld()) continue;
        if (thread.holds == nullptr || coordinator_.IsRunning()) return Start(claim);
        return RefuseStart();
    }
}

// A module that is loaded by the start makes itself a user of what is being started.
int LifeCycle::StartNested() {
    if (!coordinator_.Run()) return RefuseStart();
    word_.Add(1);
    LOG_PLAIN(kInformation, "init vessa succeeded");
    return VESSA_OK;
}

int LifeCycle::Start(Claim& claim) {
    VESSA_SYNC_POINT("life.start.is_claimed", this);
    bool runs = false;
    Contain([&] {
        const StartMark mark(*ThreadScope::Current());
        // Still running when a stop was put off and is not due any more.
        if (!coordinator_.IsRunning()) {
            coordinator_.SetPluginRoot(GetModuleDirectory() + "/" + kPluginFolder);
            coordinator_.SetConfigFilename(kConfigFilename);
        }
        runs = coordinator_.Run();
    });
    if (!runs) {
        const int result = RefuseStart();
        TOVA_Fini();
        VESSA_SYNC_POINT("life.start.failed", this);
        claim.Finish(0, false);
        return result;
    }
    process_id_.store(process::ProcessId());
    if (self_reference_ == nullptr) self_reference_ = process::ReferenceSelf();
    VESSA_SYNC_POINT("life.start.runs", this);
    claim.Finish(1, true);
    LOG_PLAIN(kInformation, "init vessa succeeded");
    return VESSA_OK;
}

void LifeCycle::UninitOutside() {
    const GlobalLock lock(global_mutex_);
    for (;;) {
        const State seen = Read();
        if (seen.phase != kIdle) {
            WaitForChange();
        } else if (seen.users == 0) {
            LOG_PLAIN(kWarning, "vessa not init yet");
            return;
        } else if (seen.users == 1) {
            Claim claim(*this, seen, kStopping);
            if (claim.IsHeld()) return Stop(claim);
        } else if (Change(seen, State{kIdle, seen.users - 1})) {
            LOG_FORMAT(kInformation, "need not uninit vessa yet, init counter value {0}",
                       seen.users - 1);
            return;
        }
    }
}

void LifeCycle::UninitInside() {
    for (;;) {
        const State seen = Read();
        if (seen.users == 0) {
            LOG_PLAIN(kWarning, "vessa not init yet");
            return;
        }
        VESSA_SYNC_POINT("life.uninit.looked_inside", this);
        if (!Change(seen, State{seen.phase, seen.users - 1})) continue;
        if (seen.users > 1)
            LOG_FORMAT(kInformation, "need not uninit vessa yet, init counter value {0}",
                       seen.users - 1);
        else
            ThreadScope::Current()->at_end = &CarryOutPutOffStop;
        return;
    }
}

// The stop that a plug-in call on this thread asked for, unless there is a user again. A start
// or stop under way on another thread settles it without this one.
void LifeCycle::CarryOutPutOffStop() {
    Contain([] {
        LifeCycle* const life_cycle = Get();
        if (life_cycle == nullptr || !life_cycle->coordinator_.IsRunning()) return;
        VESSA_SYNC_POINT("life.stop.is_due", life_cycle);
        Claim claim(*life_cycle, State{kIdle, 0}, kStopping);
        // Another thread's start and stop may have come and gone before the claim.
        if (claim.IsHeld() && life_cycle->coordinator_.IsRunning()) life_cycle->Stop(claim);
    });
}

void LifeCycle::Stop(Claim& claim) {
    VESSA_SYNC_POINT("life.stop.is_claimed", this);
    bool stopped = false;
    Contain([&] { stopped = coordinator_.Shutdown(); });
    if (!stopped) LOG_PLAIN(kWarning, "shutdown plugin coordinator failed, and ignored");
    LOG_PLAIN(kInformation, "uninit vessa succeeded");
    TOVA_Fini();
    // The monitor's own thread has this code on its stack for longer than any stop takes.
    if (ThreadScope::Current()->timer == nullptr) {
        process::ReleaseSelf(self_reference_);
        self_reference_ = nullptr;
    }
    VESSA_SYNC_POINT("life.stop.is_over", this);
    claim.Finish(0, false);
}

void LifeCycle::LeaveProcess() {
    // A forked child has neither the thread nor the locks that its threads held.
    if (process::ProcessId() != process_id_.load()) return;
    const bool inside = ThreadScope::Current() != nullptr;
    if (!inside && !process::OtherThreadsAreGone() && Read().phase == kIdle)
        coordinator_.AskToEnd(kLeaveWaitMs);
    ReleaseLogger();
}

bool LifeCycle::IsQuiet() {
    const State seen = Read();
    return seen.phase == kIdle && seen.users == 0 && !coordinator_.IsRunning() &&
           coordinator_.provider().IsEmpty();
}
