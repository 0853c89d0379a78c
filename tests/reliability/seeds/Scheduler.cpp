#include "reliability/seeds/Scheduler.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "reliability/seeds/RawCall.h"

namespace schedule {
namespace {

constexpr int kMaxThreads = 512;
constexpr int kMaxHeld = 256;
constexpr int kMaxChanges = 24;
constexpr uint64_t kMaxRounds = 64;
constexpr uint64_t kNever = UINT64_MAX;
// More than any run takes: the run goes in circles.
constexpr uint64_t kMaxSteps = 2'000'000;
// Rounds of a scanning thread while nobody else can run.
constexpr int kMaxIdleRounds = 4;
constexpr int64_t kFirstPriority = int64_t{1} << 32;

enum State { kReady, kForMutex, kForPost, kForEnd, kEnded };

struct Thread {
    State state = kReady;
    char at[48] = "start";            // the name itself may go away with the library
    const void* waits_for = nullptr;  // the mutex or the semaphore
    int joins = -1;
    unsigned milliseconds = 0;
    uint64_t due = kNever;
    bool posted = false;
    bool timed_out = false;
    int64_t priority = 0;
    uint64_t held_until = 0;  // the step up to which everybody else is before it
    uint32_t turn = 0;        // what the thread sleeps on
};

struct Held {
    const void* mutex;
    int owner;
    int depth;
};

struct Run {
    bool is_on = false;
    Random random{0};
    bool by_priority = false;
    uint32_t holds_one_in = 0;  // of the places, if not 0
    uint64_t holds_salt = 0;
    bool holds_end = false;
    bool short_waits_end = false;
    uint32_t one_in = 2;
    uint32_t longest_pause = 1;  // of the scanning thread, in steps
    uint64_t seed = 0;
    int round = 0;
    uint64_t change_at[kMaxChanges];
    int changes = 0;
    int64_t lowest = 0;
    int running = 0;
    int threads = 0;
    int held = 0;
    int idle_rounds = 0;
    int ended_threads = 0;
    uint64_t hash = 0;
    uint64_t steps = 0;
    uint64_t switches = 0;
    uint64_t scans = 0;
    uint64_t long_waits = 0;
};

Run run;
Thread threads[kMaxThreads];
Held held[kMaxHeld];
Shown* shown = nullptr;
__thread int self = -1;

Held* FindHeld(const void* mutex) {
    for (int i = 0; i < run.held; ++i) {
        if (held[i].mutex == mutex) return &held[i];
    }
    return nullptr;
}

bool CanRun(const Thread& thread) {
    switch (thread.state) {
        case kReady:
            return true;
        case kForMutex:
            return FindHeld(thread.waits_for) == nullptr;
        case kForPost:
            return thread.posted || thread.due <= run.steps;
        case kForEnd:
            return threads[thread.joins].state == kEnded;
        case kEnded:
            break;
    }
    return false;
}

void Mix(uint64_t value) {
    run.hash = (run.hash ^ value) * 0x100000001B3u;
}

uint64_t HashOf(const char* text) {
    uint64_t hash = 0xCBF29CE484222325u;
    for (; *text != '\0'; ++text)
        hash = (hash ^ static_cast<unsigned char>(*text)) * 0x100000001B3u;
    return hash ^ (hash >> 29);
}

// Nobody can run: the shortest wait with a time-out ends by its time.
int PassTime() {
    int next = -1;
    for (int i = 0; i < run.threads; ++i) {
        const Thread& thread = threads[i];
        if (thread.state != kForPost || thread.milliseconds == kNoTimeOut) continue;
        if (next < 0 || thread.milliseconds < threads[next].milliseconds) next = i;
    }
    if (next < 0) Fail("deadlock: every thread waits for another");
    if (threads[next].milliseconds < kLongWaitMs)
        Fail("lost wake-up: thread %d would wait for the end of its %u ms", next,
             threads[next].milliseconds);
    if (threads[next].milliseconds > kLongWaitMs && ++run.idle_rounds > kMaxIdleRounds)
        Fail("deadlock: only the scanning thread still runs");
    threads[next].due = run.steps;
    return next;
}

int64_t PriorityOf(const Thread& thread) {
    // Below every other priority, among held threads in the usual order.
    return thread.held_until > run.steps ? thread.priority - 2 * kFirstPriority : thread.priority;
}

int Choose() {
    int best = -1;
    int able = 0;
    for (int i = 0; i < run.threads; ++i) {
        if (!CanRun(threads[i])) continue;
        ++able;
        // Without priorities each of those that can run has the same chance.
        const bool better =
            best < 0 || (run.by_priority ? PriorityOf(threads[i]) > PriorityOf(threads[best])
                                         : run.random.Below(static_cast<uint32_t>(able)) == 0);
        if (better) best = i;
    }
    if (best < 0) return PassTime();
    if (threads[best].milliseconds < kLongWaitMs) run.idle_rounds = 0;
    return best;
}

void Sleep(Thread& thread) {
    while (__atomic_load_n(&thread.turn, __ATOMIC_ACQUIRE) == 0)
        RawCall(SYS_futex, reinterpret_cast<long>(&thread.turn), FUTEX_WAIT_PRIVATE, 0, 0, 0, 0);
    __atomic_store_n(&thread.turn, 0, __ATOMIC_RELAXED);
}

void Wake(Thread& thread) {
    __atomic_store_n(&thread.turn, 1, __ATOMIC_RELEASE);
    RawCall(SYS_futex, reinterpret_cast<long>(&thread.turn), FUTEX_WAKE_PRIVATE, 1, 0, 0, 0);
}

// Passes the processor on. The thread's state says whether and when it goes on.
void Switch(bool comes_back) {
    const int me = self;
    const int next = Choose();
    Mix(static_cast<uint64_t>(next) + 1);
    if (next == me) return;
    ++run.switches;
    run.running = next;
    Wake(threads[next]);
    if (comes_back) Sleep(threads[me]);
}

void Step(const char* name) {
    Thread& me = threads[self];
    std::strncpy(me.at, name, sizeof me.at - 1);
    ++run.steps;
    if (shown != nullptr) shown->steps = run.steps;
    Mix(static_cast<uint64_t>(self));
    Mix(HashOf(name));
    if (run.steps > kMaxSteps) Fail("the run goes in circles");
}

void Demote(Thread& thread) {
    thread.priority = --run.lowest;
}

void Hold(Thread& thread) {
    if (run.holds_end)
        thread.held_until = run.steps + (32u << run.random.Below(6));
    else
        Demote(thread);
}

// Places of the runtime, which are passed far more often than those of the library.
bool IsCommon(const char* name) {
    for (const char* const area : {"mutex.", "atomic.", "sem."}) {
        if (std::strncmp(name, area, std::strlen(area)) == 0) return true;
    }
    return false;
}

// Whether this is one of the few places at which this seed holds threads for long.
bool IsHeldAt(const char* name) {
    return run.holds_one_in != 0 && (HashOf(name) ^ run.holds_salt) % run.holds_one_in == 0;
}

void SetUp(uint64_t seed, int round) {
    run = Run{};
    run.seed = seed;
    run.round = round;
    run.random = Random(seed * kMaxRounds + static_cast<uint64_t>(round));
    run.hash = 0xCBF29CE484222325u;
    run.by_priority = !run.random.OneIn(4);
    if (run.by_priority && !run.random.OneIn(3)) run.holds_one_in = 2u << run.random.Below(3);
    run.holds_salt = run.random.Next();
    run.holds_end = run.random.OneIn(2);
    run.short_waits_end = run.random.OneIn(4);
    run.one_in = uint32_t{1} << run.random.Below(5);
    run.longest_pause = 8u << run.random.Below(6);
    // Where a change of priorities may be: most runs are longer than the shortest of these.
    const uint32_t length = 500u << run.random.Below(5);
    run.changes = 1 + static_cast<int>(run.random.Below(kMaxChanges));
    for (uint64_t& at : run.change_at) at = run.random.Below(length);
    run.is_on = true;
}

void Describe() {
    static const char* const kStates[] = {"ready", "wants a mutex", "waits for a post",
                                          "joins a thread", "ended"};
    for (int i = 0; i < run.threads; ++i) {
        const Thread& thread = threads[i];
        if (thread.state == kEnded) continue;
        std::fprintf(stderr, "  thread %d%s: %s, last at %s", i, i == self ? " (running)" : "",
                     kStates[thread.state], thread.at);
        if (thread.state == kForMutex) {
            const Held* const mutex = FindHeld(thread.waits_for);
            std::fprintf(stderr, ", owner %d", mutex != nullptr ? mutex->owner : -1);
        }
        if (thread.state == kForPost && thread.milliseconds != kNoTimeOut)
            std::fprintf(stderr, ", at most %u ms", thread.milliseconds);
        if (thread.state == kForEnd) std::fprintf(stderr, ", thread %d", thread.joins);
        std::fprintf(stderr, "\n");
    }
}

}  // namespace

uint64_t Random::Next() {
    uint64_t value = (state_ += 0x9E3779B97F4A7C15u);
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9u;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EBu;
    return value ^ (value >> 31);
}

void ShowIn(Shown* where) {
    shown = where;
}

void Begin(uint64_t seed, int round) {
    SetUp(seed, round);
    if (shown != nullptr) {
        shown->seed = seed;
        shown->round = static_cast<uint64_t>(round);
        shown->steps = 0;
    }
    self = AddThread();
}

Summary End() {
    const Summary summary{run.hash, run.steps, run.switches, run.scans, run.threads};
    for (int i = 0; i < run.threads; ++i) {
        if (i != self && threads[i].state != kEnded) Fail("thread %d is left", i);
    }
    if (run.held != 0) Fail("a mutex is still held");
    run.is_on = false;
    self = -1;
    return summary;
}

bool IsOn() {
    return run.is_on;
}

bool IsManaged() {
    return self >= 0;
}

int ThisThread() {
    return self;
}

void Fail(const char* format, ...) {
    std::fprintf(stderr, "seeds: seed %llu, round %d, step %llu: ",
                 static_cast<unsigned long long>(run.seed), run.round,
                 static_cast<unsigned long long>(run.steps));
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
    std::fprintf(stderr, "\n");
    Describe();
    std::fflush(stderr);
    _exit(3);
}

void Point(const char* name) {
    if (!IsManaged()) return;
    Step(name);
    if (!run.by_priority) {
        if (run.random.OneIn(run.one_in)) Switch(true);
        return;
    }
    if (IsHeldAt(name) && run.random.OneIn(IsCommon(name) ? 16 : 2)) Hold(threads[self]);
    for (int i = 0; i < run.changes; ++i) {
        if (run.change_at[i] == run.steps) Demote(threads[self]);
    }
    Switch(true);
}

void GiveWay() {
    Step("gives way");
    Demote(threads[self]);
    Switch(true);
}

void TakeMutex(const void* mutex) {
    Thread& me = threads[self];
    for (Held* found = FindHeld(mutex); found != nullptr; found = FindHeld(mutex)) {
        if (found->owner == self) {
            ++found->depth;
            return;
        }
        me.state = kForMutex;
        me.waits_for = mutex;
        Switch(true);
        me.state = kReady;
    }
    if (run.held == kMaxHeld) Fail("too many mutexes are held");
    held[run.held++] = Held{mutex, self, 1};
}

void GiveMutex(const void* mutex) {
    Held* const found = FindHeld(mutex);
    if (found == nullptr || found->owner != self) Fail("a mutex is unlocked by another thread");
    if (--found->depth == 0) *found = held[--run.held];
}

Wait::Wait(const void* semaphore, unsigned milliseconds)
    : semaphore_(semaphore), milliseconds_(milliseconds), due_(kNever) {
    if (milliseconds == kNoTimeOut) return;
    if (milliseconds >= kLongWaitMs) {
        ++run.long_waits;
        due_ = run.steps + 10 + run.random.Below(run.longest_pause);
    } else if (run.short_waits_end) {
        due_ = run.steps + 10 + run.random.Below(300);
    }
}

bool Wait::UntilPosted() {
    Thread& me = threads[self];
    me.posted = false;
    me.waits_for = semaphore_;
    me.milliseconds = milliseconds_;
    me.due = due_;
    me.state = kForPost;
    ++run.steps;
    Switch(true);
    me.state = kReady;
    me.milliseconds = 0;
    if (me.posted) return true;
    if (milliseconds_ >= kLongWaitMs) ++run.scans;
    return false;
}

void Pause(uint32_t steps) {
    Thread& me = threads[self];
    me.posted = false;
    me.waits_for = &me;
    me.milliseconds = kLongWaitMs;
    me.due = run.steps + run.random.Below(steps);
    me.state = kForPost;
    Switch(true);
    me.state = kReady;
    me.milliseconds = 0;
}

void Posted(const void* semaphore) {
    for (int i = 0; i < run.threads; ++i) {
        if (threads[i].state == kForPost && threads[i].waits_for == semaphore)
            threads[i].posted = true;
    }
}

bool Tick() {
    const uint64_t before = run.long_waits;
    while (run.long_waits == before) {
        bool is_alone = true;
        for (int i = 0; i < run.threads; ++i) {
            Thread& thread = threads[i];
            if (i == self || thread.state == kEnded) continue;
            is_alone = false;
            if (thread.state == kForPost && thread.milliseconds != kNoTimeOut &&
                thread.milliseconds >= kLongWaitMs)
                thread.due = run.steps;
        }
        if (is_alone) return false;
        GiveWay();
    }
    return true;
}

int AddThread() {
    if (run.threads == kMaxThreads) Fail("too many threads");
    const int number = run.threads++;
    threads[number] = Thread{};
    threads[number].priority = kFirstPriority + run.random.Below(1u << 30);
    return number;
}

void DropThread(int thread) {
    threads[thread].state = kEnded;
}

void BeginThread(int thread) {
    Sleep(threads[thread]);
    self = thread;
}

void EndThread() {
    Step("end");
    threads[self].state = kEnded;
    Switch(false);
    self = -1;
}

void Join(int thread) {
    Thread& me = threads[self];
    me.state = kForEnd;
    me.joins = thread;
    ++run.steps;
    Switch(true);
    me.state = kReady;
}

}  // namespace schedule
