#include "reliability/orders/Stage.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "common/SyncPoint.h"

#if defined(__clang__)
// The sanitizer's own "no_sanitize" would leave the atomic operations in its sight.
#  define UNSEEN __attribute__((disable_sanitizer_instrumentation, noinline))
#else
#  define UNSEEN
#endif

namespace vessa_test {
namespace stage {
namespace {

constexpr int kPassesKept = 4096;

struct Place {
    int doing;
    bool is_stranger;
    int tid;
    const char* wanted;  // a point; null: it passes all
    int let_go;          // a count: each makes the thread go on once
    int gone_on;         // how often it did
    const char* last;
    int passes;
    const char* passed[kPassesKept];
};

Place places[kThreads];
int places_used = 0;
int is_open = 0;
int changes = 0;

thread_local int own_place = kNobody;

template <class T>
UNSEEN T Get(const T& value) {
    return __atomic_load_n(&value, __ATOMIC_SEQ_CST);
}
template <class T>
UNSEEN void Set(T& value, T to) {
    __atomic_store_n(&value, to, __ATOMIC_SEQ_CST);
}

UNSEEN long Futex(int* word, int operation, int value, const timespec* time) {
    return syscall(SYS_futex, word, operation, value, time, nullptr, 0);
}

UNSEEN void TellChange() {
    __atomic_fetch_add(&changes, 1, __ATOMIC_SEQ_CST);
    Futex(&changes, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr);
}

UNSEEN bool IsSame(const char* a, const char* b) {
    while (*a != '\0' && *a == *b) {
        ++a;
        ++b;
    }
    return *a == *b;
}

// Until the director lets the thread go; he keeps the time.
UNSEEN void Stay(Place& place, Doing doing, int ticket) {
    Set(place.doing, static_cast<int>(doing));
    TellChange();
    for (;;) {
        const int seen = Get(changes);
        if (Get(place.let_go) != ticket || Get(is_open) == 0) break;
        Futex(&changes, FUTEX_WAIT_PRIVATE, seen, nullptr);
    }
    Set(place.doing, static_cast<int>(Doing::kRunning));
    Set(place.gone_on, ticket + 1);
}

// The place of a thread that the test has not started: one that somebody wants here.
UNSEEN int StrangerWantedAt(const char* point) {
    for (int i = 0; i < Get(places_used); ++i) {
        Place& place = places[i];
        const char* const wanted = Get(place.wanted);
        if (!place.is_stranger || wanted == nullptr || !IsSame(wanted, point)) continue;
        int nobody = 0;
        const int tid = static_cast<int>(syscall(SYS_gettid));
        if (__atomic_compare_exchange_n(&place.tid, &nobody, tid, false, __ATOMIC_SEQ_CST,
                                        __ATOMIC_SEQ_CST))
            return i;
    }
    return kNobody;
}

UNSEEN void Note(Place& place, const char* point) {
    Set(place.last, point);
    const int at = Get(place.passes);
    if (at >= kPassesKept) return;
    place.passed[at] = point;
    Set(place.passes, at + 1);
}

UNSEEN void Pass(const char* point) {
    if (Get(is_open) == 0) return;
    if (own_place == kNobody) own_place = StrangerWantedAt(point);
    if (own_place == kNobody) return;
    Place& place = places[own_place];
    Note(place, point);
    const char* const wanted = Get(place.wanted);
    if (wanted != nullptr && IsSame(wanted, point)) Stay(place, Doing::kHeld, Get(place.let_go));
}

// The state letter and the number of times that the thread went to sleep by itself; false for a
// thread that is gone.
bool ReadTask(int tid, char& state, long& sleeps) {
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/task/%d/status", tid);
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) return false;
    char text[4096];
    const ssize_t size = read(file, text, sizeof text - 1);
    close(file);
    if (size <= 0) return false;
    text[size] = '\0';
    const char* const at_state = std::strstr(text, "State:\t");
    const char* const at_sleeps = std::strstr(text, "\nvoluntary_ctxt_switches:\t");
    if (at_state == nullptr || at_sleeps == nullptr) return false;
    state = at_state[std::strlen("State:\t")];
    sleeps = std::atol(at_sleeps + std::strlen("\nvoluntary_ctxt_switches:\t"));
    return true;
}

}  // namespace

UNSEEN void Open(int threads) {
    for (Place& place : places) place = Place{};
    Set(places_used, threads);
    Set(is_open, 1);
}

UNSEEN void SetStranger(int thread) {
    places[thread].is_stranger = true;
    places[thread].doing = static_cast<int>(Doing::kRunning);
}

UNSEEN void Close() {
    Set(is_open, 0);
    TellChange();
}

UNSEEN void Begin(int thread) {
    own_place = thread;
    Set(places[thread].tid, static_cast<int>(syscall(SYS_gettid)));
    Stay(places[thread], Doing::kNotStarted, 0);
}

UNSEEN void End(int thread) {
    own_place = kNobody;
    Set(places[thread].doing, static_cast<int>(Doing::kEnded));
    TellChange();
}

UNSEEN void WantAt(int thread, const char* point) {
    Set(places[thread].wanted, point);
}

// A thread is "running" from here on, not only from when it wakes.
UNSEEN void LetGo(int thread) {
    Place& place = places[thread];
    const int doing = Get(place.doing);
    if (doing != static_cast<int>(Doing::kHeld) && doing != static_cast<int>(Doing::kNotStarted))
        return;
    Set(place.doing, static_cast<int>(Doing::kRunning));
    __atomic_fetch_add(&place.let_go, 1, __ATOMIC_SEQ_CST);
    TellChange();
}

UNSEEN Doing WhatDoes(int thread) {
    return static_cast<Doing>(Get(places[thread].doing));
}

UNSEEN int Changes() {
    return Get(changes);
}

UNSEEN void AwaitChange(int since, std::chrono::steady_clock::time_point end) {
    const auto left = end - std::chrono::steady_clock::now();
    const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
    if (nanoseconds <= 0) return;
    const timespec time{static_cast<time_t>(nanoseconds / 1000000000),
                        static_cast<long>(nanoseconds % 1000000000)};
    Futex(&changes, FUTEX_WAIT_PRIVATE, since, &time);
}

// A thread that was let go is asleep here until it wakes.
UNSEEN bool HasGoneOn(int thread) {
    const Place& place = places[thread];
    return Get(place.let_go) == Get(place.gone_on);
}

// Asleep at several looks with no waking in between, and not here.
bool IsAsleep(int thread) {
    constexpr int kLooks = 4;
    char state = 0;
    long sleeps = 0;
    for (int look = 0; look < kLooks; ++look) {
        const long before = sleeps;
        if (!ReadTask(Get(places[thread].tid), state, sleeps) || state != 'S') return false;
        if (look > 0 && sleeps != before) return false;
        sched_yield();
    }
    return WhatDoes(thread) == Doing::kRunning && HasGoneOn(thread);
}

UNSEEN std::string LastPoint(int thread) {
    const char* const last = Get(places[thread].last);
    return last != nullptr ? last : "";
}

UNSEEN int Passes(int thread, const std::string& point) {
    int passes = 0;
    for (int i = 0; i < Get(places[thread].passes); ++i)
        passes += IsSame(places[thread].passed[i], point.c_str()) ? 1 : 0;
    return passes;
}

}  // namespace stage
}  // namespace vessa_test

extern "C" void VESSA_SyncPoint(const char* name, const void*) noexcept {
    vessa_test::stage::Pass(name);
}
