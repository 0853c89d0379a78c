#include "StandIns.h"

#include <dirent.h>
#include <dlfcn.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace stand_in {

Functions put{};

namespace {

using Lock = int (*)(pthread_mutex_t*);

thread_local int g_until_failure = 0;
thread_local Lock g_next_lock = nullptr;
std::atomic<const void*> g_watched{nullptr};
std::atomic<bool> g_freed{false};

template <typename Function>
void FindNext(Function& function, const char* name) {
    function = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

Functions FindAll() {
    Functions found{};
    FindNext(found.getdents, "getdents64");
    FindNext(found.fstatat, "fstatat");
    FindNext(found.cond_wait, "pthread_cond_wait");
    FindNext(found.cond_timedwait, "pthread_cond_timedwait");
    FindNext(found.attr_setstacksize, "pthread_attr_setstacksize");
    FindNext(found.attr_init, "pthread_attr_init");
    FindNext(found.join, "pthread_join");
    FindNext(found.mutex_init, "pthread_mutex_init");
    FindNext(found.cond_init, "pthread_cond_init");
    FindNext(found.nanosleep, "clock_nanosleep");
    FindNext(found.gettime, "clock_gettime");
    FindNext(found.fstat, "fstat");
    FindNext(found.pread, "pread");
    FindNext(found.open, "dlopen");
    FindNext(found.close, "dlclose");
    FindNext(found.error, "dlerror");
    FindNext(found.info, "dlinfo");
    FindNext(found.address, "dladdr1");
    return found;
}

void* Allocate(size_t size) {
    if (g_until_failure > 0 && --g_until_failure == 0) return nullptr;
    return std::malloc(size == 0 ? 1 : size);
}

void Free(void* block) {
    if (block != nullptr && block == g_watched) g_freed = true;
    std::free(block);
}

void* AllocateOrThrow(size_t size) {
    void* const block = Allocate(size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}

}  // namespace

const Functions& Real() {
    static const Functions real = FindAll();
    return real;
}

void PutNextLock(Lock lock) {
    g_next_lock = lock;
}

int RealLock(pthread_mutex_t* mutex) {
    static const Lock real = [] {
        Lock found = nullptr;
        FindNext(found, "pthread_mutex_lock");
        return found;
    }();
    return real(mutex);
}

void Watch(const void* block) {
    g_freed = false;
    g_watched = block;
}

bool IsFreed() {
    return g_freed;
}

void FailAllocation(int n) {
    g_until_failure = n;
}

}  // namespace stand_in

extern "C" {

using stand_in::put;
using stand_in::Real;

__attribute__((visibility("default"))) ssize_t getdents64(int folder, void* records,
                                                          size_t size) noexcept {
    return (put.getdents != nullptr ? put.getdents : Real().getdents)(folder, records, size);
}

__attribute__((visibility("default"))) int fstatat(int folder, const char* name,
                                                   struct stat* status, int flags) noexcept {
    return (put.fstatat != nullptr ? put.fstatat : Real().fstatat)(folder, name, status, flags);
}

__attribute__((visibility("default"))) int pthread_cond_wait(pthread_cond_t* condition,
                                                             pthread_mutex_t* mutex) {
    return (put.cond_wait != nullptr ? put.cond_wait : Real().cond_wait)(condition, mutex);
}

__attribute__((visibility("default"))) int pthread_cond_timedwait(pthread_cond_t* condition,
                                                                  pthread_mutex_t* mutex,
                                                                  const timespec* deadline) {
    return (put.cond_timedwait != nullptr ? put.cond_timedwait : Real().cond_timedwait)(
        condition, mutex, deadline);
}

__attribute__((visibility("default"))) int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    const auto lock = stand_in::g_next_lock;
    if (lock == nullptr) return stand_in::RealLock(mutex);
    stand_in::g_next_lock = nullptr;
    return lock(mutex);
}

__attribute__((visibility("default"))) int pthread_attr_setstacksize(pthread_attr_t* attributes,
                                                                     size_t size) noexcept {
    return (put.attr_setstacksize != nullptr ? put.attr_setstacksize : Real().attr_setstacksize)(
        attributes, size);
}

#ifdef TOVA_TEST_STANDS_IN_FOR_THE_SYSTEM
// The others in the same way. The system's own loader asks its caller's address for the caller:
// dlopen stands in for the runtime alone, whose paths are absolute.
#define STAND_IN_FOR(result, name, field, parameters, arguments, specifier)             \
  __attribute__((visibility("default"))) result name parameters specifier {             \
    return (put.field != nullptr ? put.field : Real().field)arguments;                  \
  }

STAND_IN_FOR(int, pthread_attr_init, attr_init, (pthread_attr_t * a), (a), noexcept)
STAND_IN_FOR(int, pthread_join, join, (pthread_t thread, void** result), (thread, result), )
STAND_IN_FOR(int, pthread_mutex_init, mutex_init,
             (pthread_mutex_t * mutex, const pthread_mutexattr_t* a), (mutex, a), noexcept)
STAND_IN_FOR(int, pthread_cond_init, cond_init,
             (pthread_cond_t * condition, const pthread_condattr_t* a), (condition, a), noexcept)
STAND_IN_FOR(int, clock_nanosleep, nanosleep,
             (clockid_t clock, int flags, const timespec* time, timespec* left),
             (clock, flags, time, left), )
STAND_IN_FOR(int, clock_gettime, gettime, (clockid_t clock, timespec* time), (clock, time),
             noexcept)
STAND_IN_FOR(int, fstat, fstat, (int file, struct stat* status), (file, status), noexcept)
STAND_IN_FOR(ssize_t, pread, pread, (int file, void* to, size_t size, off_t at),
             (file, to, size, at), )
STAND_IN_FOR(void*, dlopen, open, (const char* path, int flags), (path, flags), noexcept)
STAND_IN_FOR(int, dlclose, close, (void* module), (module), noexcept)
STAND_IN_FOR(char*, dlerror, error, (), (), noexcept)
STAND_IN_FOR(int, dlinfo, info, (void* module, int what, void* to), (module, what, to), noexcept)
STAND_IN_FOR(int, dladdr1, address, (const void* at, Dl_info* info, void** extra, int what),
             (at, info, extra, what), noexcept)
#endif

}  // extern "C"

void* operator new(size_t size) {
    return stand_in::AllocateOrThrow(size);
}
void* operator new[](size_t size) {
    return stand_in::AllocateOrThrow(size);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return stand_in::Allocate(size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return stand_in::Allocate(size);
}
void operator delete(void* block) noexcept {
    stand_in::Free(block);
}
void operator delete[](void* block) noexcept {
    stand_in::Free(block);
}
void operator delete(void* block, size_t) noexcept {
    stand_in::Free(block);
}
void operator delete[](void* block, size_t) noexcept {
    stand_in::Free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    stand_in::Free(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
    stand_in::Free(block);
}
