// The runtime's functions and the sync points, as the library under test finds them: each keeps the
// schedule informed and goes on to the real one.
#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "reliability/seeds/RawCall.h"
#include "reliability/seeds/Scheduler.h"
#include "tova.h"

namespace {

using schedule::IsManaged;
using schedule::Point;

// Each finds its function once, at its first call. All of them are called before there is a second
// thread or find the same.
template <class Function>
Function* Next(Function*, const char* name) {
    auto* const found = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
    if (found != nullptr) return found;
    std::fprintf(stderr, "seeds: no %s\n", name);
    std::abort();
}
#define REAL(function)                                                                    \
  ([] {                                                                                   \
  static decltype(&function) real;                                                        \
  if (real == nullptr) real = Next(static_cast<decltype(&function)>(nullptr), #function); \
  return real;                                                                            \
  }())

std::atomic<long> mutexes{0}, semaphores{0}, live_threads{0}, modules{0}, folders{0};

int CountIf(bool succeeded, std::atomic<long>& count, long delta, int result) {
    if (succeeded) count.fetch_add(delta, std::memory_order_relaxed);
    return result;
}

struct ThreadStart {
    tova_entry_t entry;
    void* argument;
    int number;
};

constexpr int kMaxHandles = 512;
struct Handle {
    tova_thread_t thread;
    int number;
} handles[kMaxHandles];

void KeepHandle(tova_thread_t thread, int number) {
    for (Handle& handle : handles) {
        if (handle.thread != nullptr) continue;
        handle = Handle{thread, number};
        return;
    }
    schedule::Fail("too many thread handles");
}

int TakeHandle(tova_thread_t thread) {
    for (Handle& handle : handles) {
        if (handle.thread != thread) continue;
        handle.thread = nullptr;
        return handle.number;
    }
    schedule::Fail("a thread is joined that is not known, or twice");
}

// A thread ends when what the library does at a thread's end is done: in the second round of the
// functions that the system calls then.
pthread_key_t end_key;
char first_round, second_round;

void AtThreadEnd(void* round) {
    if (round == &first_round)
        pthread_setspecific(end_key, &second_round);
    else
        schedule::EndThread();
}

__attribute__((constructor)) void MakeEndKey() {
    if (pthread_key_create(&end_key, &AtThreadEnd) != 0) std::abort();
}

int RunThread(void* argument) {
    const ThreadStart start = *static_cast<ThreadStart*>(argument);
    delete static_cast<ThreadStart*>(argument);
    schedule::BeginThread(start.number);
    pthread_setspecific(end_key, &first_round);
    return start.entry(start.argument);
}

int TakeCount(tova_sem_t* sem, unsigned milliseconds) {
    const void* const block = *sem;
    const auto try_once = REAL(TOVA_SemTimedWait);
    int result = try_once(sem, 0);
    if (result == 0) return 0;
    schedule::Wait wait(block, milliseconds);
    while (result != 0) {
        const bool posted = wait.UntilPosted();
        result = try_once(sem, 0);
        if (!posted) break;
    }
    return result;
}

}  // namespace

schedule::Census schedule::Count() {
    return Census{mutexes.load(), semaphores.load(), live_threads.load(), modules.load(),
                  folders.load()};
}

extern "C" {

SCHEDULE_API void VESSA_SyncPoint(const char* name, const void*) noexcept {
    Point(name);
}

int TOVA_MutexCreate(tova_mutex_t* mutex, int reserved) {
    const int result = REAL(TOVA_MutexCreate)(mutex, reserved);
    return CountIf(result == 0, mutexes, 1, result);
}

int TOVA_MutexDestroy(tova_mutex_t* mutex) {
    const bool is_one = mutex != nullptr && *mutex != nullptr;
    return CountIf(is_one, mutexes, -1, REAL(TOVA_MutexDestroy)(mutex));
}

int TOVA_MutexLock(tova_mutex_t* mutex) {
    if (IsManaged() && mutex != nullptr && *mutex != nullptr) {
        Point("mutex.lock");
        schedule::TakeMutex(*mutex);
    }
    return REAL(TOVA_MutexLock)(mutex);
}

int TOVA_MutexUnlock(tova_mutex_t* mutex) {
    if (!IsManaged() || mutex == nullptr || *mutex == nullptr) return REAL(TOVA_MutexUnlock)(mutex);
    // Known before: whoever gets the mutex may destroy it.
    const void* const block = *mutex;
    const int result = REAL(TOVA_MutexUnlock)(mutex);
    schedule::GiveMutex(block);
    Point("mutex.unlock");
    return result;
}

int TOVA_SemCreate(tova_sem_t* sem, unsigned initial) {
    const int result = REAL(TOVA_SemCreate)(sem, initial);
    return CountIf(result == 0, semaphores, 1, result);
}

int TOVA_SemDestroy(tova_sem_t* sem) {
    const bool is_one = sem != nullptr && *sem != nullptr;
    return CountIf(is_one, semaphores, -1, REAL(TOVA_SemDestroy)(sem));
}

int TOVA_SemPost(tova_sem_t* sem) {
    if (!IsManaged() || sem == nullptr || *sem == nullptr) return REAL(TOVA_SemPost)(sem);
    Point("sem.post");
    const void* const block = *sem;
    const int result = REAL(TOVA_SemPost)(sem);
    schedule::Posted(block);
    Point("sem.posted");
    return result;
}

int TOVA_SemWait(tova_sem_t* sem) {
    if (!IsManaged() || sem == nullptr || *sem == nullptr) return REAL(TOVA_SemWait)(sem);
    Point("sem.wait");
    return TakeCount(sem, schedule::kNoTimeOut);
}

int TOVA_SemTimedWait(tova_sem_t* sem, unsigned milliseconds) {
    if (!IsManaged() || sem == nullptr || *sem == nullptr)
        return REAL(TOVA_SemTimedWait)(sem, milliseconds);
    Point("sem.wait");
    if (milliseconds == 0) return REAL(TOVA_SemTimedWait)(sem, 0);
    return TakeCount(sem, milliseconds);
}

tova_thread_t TOVA_Thread_Create(tova_entry_t entry, void* argument, int a, int b, int c, int d) {
    if (!IsManaged()) return REAL(TOVA_Thread_Create)(entry, argument, a, b, c, d);
    const int number = schedule::AddThread();
    auto* const start = new ThreadStart{entry, argument, number};
    const tova_thread_t thread = REAL(TOVA_Thread_Create)(&RunThread, start, a, b, c, d);
    if (thread == nullptr) schedule::Fail("no thread could be made");
    KeepHandle(thread, number);
    live_threads.fetch_add(1, std::memory_order_relaxed);
    Point("thread.created");
    return thread;
}

int TOVA_Thread_Wait(tova_thread_t thread) {
    if (!IsManaged() || thread == nullptr) return REAL(TOVA_Thread_Wait)(thread);
    Point("thread.wait");
    schedule::Join(TakeHandle(thread));
    live_threads.fetch_sub(1, std::memory_order_relaxed);
    return REAL(TOVA_Thread_Wait)(thread);
}

int32_t TOVA_AtomicAdd(volatile int32_t* target, int32_t delta) {
    Point("atomic.add");
    return REAL(TOVA_AtomicAdd)(target, delta);
}

int32_t TOVA_AtomicCas(volatile int32_t* target, int32_t exchange, int32_t comparand) {
    Point("atomic.cas");
    return REAL(TOVA_AtomicCas)(target, exchange, comparand);
}

void* TOVA_LoadDSo(const char* path) {
    Point("module.load");
    void* const dso = REAL(TOVA_LoadDSo)(path);
    if (dso != nullptr) modules.fetch_add(1, std::memory_order_relaxed);
    Point("module.loaded");
    return dso;
}

int TOVA_UnloadDSo(void* dso) {
    Point("module.unload");
    const int result = REAL(TOVA_UnloadDSo)(dso);
    if (result == 0) modules.fetch_sub(1, std::memory_order_relaxed);
    Point("module.unloaded");
    return result;
}

void* TOVA_OpenDir(const char* path) {
    Point("folder.open");
    void* const folder = REAL(TOVA_OpenDir)(path);
    if (folder != nullptr) folders.fetch_add(1, std::memory_order_relaxed);
    return folder;
}

int TOVA_CloseDir(void* folder) {
    const int result = REAL(TOVA_CloseDir)(folder);
    return CountIf(result == 0, folders, -1, result);
}

// How the library waits for a few instructions of another thread.
SCHEDULE_API int sched_yield(void) noexcept {
    if (!IsManaged()) return static_cast<int>(schedule::RawCall(SYS_sched_yield, 0, 0, 0, 0, 0, 0));
    schedule::GiveWay();
    return 0;
}

SCHEDULE_API long syscall(long number, ...) noexcept {
    va_list list;
    va_start(list, number);
    long arguments[6];
    for (long& argument : arguments) argument = va_arg(list, long);
    va_end(list);
    if (number == SYS_nanosleep && IsManaged()) {
        schedule::GiveWay();
        return 0;
    }
    if (number == SYS_membarrier) Point("fence.all");
    const long result = schedule::RawCall(number, arguments[0], arguments[1], arguments[2],
                                          arguments[3], arguments[4], arguments[5]);
    if (result >= 0 || result < -4095) return result;
    errno = static_cast<int>(-result);
    return -1;
}
}
