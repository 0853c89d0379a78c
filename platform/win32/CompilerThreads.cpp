/*
 * What the GNU compiler's own libraries ask of a thread library, for libraries that are linked
 * with them statically: the guards of function-local statics, the state of exceptions for each
 * thread, the clocks, and a mutex here and there.
 *
 * Answered with what Windows has. Otherwise a whole thread library of the compiler's would come
 * along into each of ours: with threads, clocks and clean-up of its own, which neither an unload
 * nor the end of a process is sure to survive.
 *
 * One re-entrant lock stands for every mutex: each is held for a few instructions, and none while
 * foreign code runs. The declarations are the compiler's own header's.
 */
#include <pthread.h>
#include <windows.h>

#include <cerrno>
#include <cstdint>
#include <new>

#include "win32/Wide.h"

namespace {

class Lock {
  public:
    Lock() { InitializeCriticalSection(&section_); }
    // No destructor: threads may come until the code is gone.

    void Acquire() {
        if (TryEnterCriticalSection(&section_)) return;
        // At the end of the process its holder may be gone for good.
        if (!win32::ProcessIsEnding()) EnterCriticalSection(&section_);
    }
    void Release() {
        if (reinterpret_cast<uintptr_t>(section_.OwningThread) == GetCurrentThreadId())
            LeaveCriticalSection(&section_);
    }
    void Wait() { SleepConditionVariableCS(&changed_, &section_, INFINITE); }
    void WakeAll() { WakeAllConditionVariable(&changed_); }

  private:
    CRITICAL_SECTION section_;
    CONDITION_VARIABLE changed_ = CONDITION_VARIABLE_INIT;
};

// Not a function-local static: its guard would come here. Everything that comes earlier runs on
// the one thread that loads the library, and a fresh block of zeros is told from a made one.
alignas(Lock) unsigned char lock_storage[sizeof(Lock)];
INIT_ONCE lock_made = INIT_ONCE_STATIC_INIT;

BOOL CALLBACK MakeLock(PINIT_ONCE, PVOID, PVOID*) {
    new (lock_storage) Lock;
    return TRUE;
}

Lock& TheLock() {
    InitOnceExecuteOnce(&lock_made, &MakeLock, nullptr, nullptr);
    return *reinterpret_cast<Lock*>(lock_storage);
}

// Values for each thread, with their clean-up at its end. Given back when the library goes away:
// until then every thread that ends calls into it.
constexpr DWORD kMaxKeys = 8;
DWORD keys[kMaxKeys];
DWORD key_count = 0;

// Made before every other global object and so destroyed after them: what runs earlier at the end
// would make the keys anew.
struct KeyLife {
    KeyLife() {}
    ~KeyLife() {
        if (win32::ProcessIsEnding()) return;
        for (DWORD i = 0; i < key_count; ++i) FlsFree(keys[i]);
        key_count = 0;
    }
};
__attribute__((init_priority(101))) KeyLife key_life;

}  // namespace

extern "C" {

int pthread_mutex_init(pthread_mutex_t*, const pthread_mutexattr_t*) {
    return 0;
}

int pthread_mutex_destroy(pthread_mutex_t*) {
    return 0;
}

int pthread_mutex_lock(pthread_mutex_t*) {
    TheLock().Acquire();
    return 0;
}

int pthread_mutex_unlock(pthread_mutex_t*) {
    TheLock().Release();
    return 0;
}

int pthread_cond_wait(pthread_cond_t*, pthread_mutex_t*) {
    TheLock().Wait();
    return 0;
}

int pthread_cond_broadcast(pthread_cond_t*) {
    TheLock().WakeAll();
    return 0;
}

// Runs under the lock: what it does is to make keys and mutexes.
int pthread_once(pthread_once_t* once, void (*function)(void)) {
    Lock& lock = TheLock();
    lock.Acquire();
    if (*once == PTHREAD_ONCE_INIT) {
        function();
        *once = 1;
    }
    lock.Release();
    return 0;
}

int pthread_key_create(pthread_key_t* key, void (*clean_up)(void*)) {
    Lock& lock = TheLock();
    lock.Acquire();
    DWORD made = FLS_OUT_OF_INDEXES;
    if (key_count < kMaxKeys) made = FlsAlloc(reinterpret_cast<PFLS_CALLBACK_FUNCTION>(clean_up));
    if (made != FLS_OUT_OF_INDEXES) keys[key_count++] = made;
    lock.Release();
    *key = made;
    return made == FLS_OUT_OF_INDEXES ? EAGAIN : 0;
}

void* pthread_getspecific(pthread_key_t key) {
    const DWORD error = GetLastError();
    void* const value = FlsGetValue(key);
    SetLastError(error);
    return value;
}

int pthread_setspecific(pthread_key_t key, const void* value) {
    return FlsSetValue(key, const_cast<void*>(value)) ? 0 : ENOMEM;
}

int clock_gettime(clockid_t clock, struct timespec* time) {
    constexpr int64_t kNsPerSecond = 1'000'000'000;
    if (clock == CLOCK_REALTIME) {
        constexpr int64_t kNsPerUnit = 100;
        // From 1601, where the system's times begin, to 1970.
        constexpr int64_t kEpochUnits = 116'444'736'000'000'000;
        FILETIME now;
        GetSystemTimeAsFileTime(&now);
        const int64_t units = (int64_t{now.dwHighDateTime} << 32 | now.dwLowDateTime) - kEpochUnits;
        time->tv_sec = units / (kNsPerSecond / kNsPerUnit);
        time->tv_nsec = static_cast<long>(units % (kNsPerSecond / kNsPerUnit) * kNsPerUnit);
        return 0;
    }
    if (clock == CLOCK_MONOTONIC) {
        LARGE_INTEGER frequency;
        LARGE_INTEGER count;
        QueryPerformanceFrequency(&frequency);
        QueryPerformanceCounter(&count);
        const int64_t rest = count.QuadPart % frequency.QuadPart;
        time->tv_sec = count.QuadPart / frequency.QuadPart;
        time->tv_nsec = static_cast<long>(rest * kNsPerSecond / frequency.QuadPart);
        return 0;
    }
    errno = EINVAL;
    return -1;
}

}  // extern "C"
