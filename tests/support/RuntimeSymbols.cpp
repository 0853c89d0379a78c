// The program's own functions of the runtime. Each asks the stand-in and goes on to the real
// one.
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "support/RuntimeState.h"

namespace vessa_test {
namespace {

template <class P>
void* Block(P* primitive) {
    return primitive == nullptr ? nullptr : static_cast<void*>(*primitive);
}

// The ordinary case: -1 is what the function gives on failure.
template <class F, class... A>
int Forward(Interception& call, Tova function, F* like, A... arguments) {
    if (call.IsReplaced()) return static_cast<int>(call.Result(-1));
    return call.Done(CallReal(function, like, arguments...));
}

template <class F, class... A>
void* ForwardPointer(Interception& call, Tova function, F* like, A... arguments) {
    if (call.IsReplaced()) return reinterpret_cast<void*>(call.Result(0));
    return call.Done(CallReal(function, like, arguments...));
}

template <class P, class F, class... A>
int Create(Tova function, Resource resource, F* like, P* primitive, A... arguments) {
    Interception call(function);
    if (call.Fails() && primitive != nullptr) *primitive = nullptr;
    const int result = Forward(call, function, like, primitive, arguments...);
    if (result == 0 && !call.IsReplaced()) CountResource(resource, 1);
    return result;
}

template <class P, class F>
int Destroy(Tova function, Resource resource, F* like, P* primitive) {
    Interception call(function, Block(primitive));
    const bool counts = Block(primitive) != nullptr && !call.IsReplaced();
    const int result = Forward(call, function, like, primitive);
    if (result == 0 && counts) CountResource(resource, -1);
    return result;
}

template <class F, class... A>
void* Open(Tova function, Resource resource, const char* text, F* like, A... arguments) {
    Interception call(function, nullptr, text);
    void* const result = ForwardPointer(call, function, like, arguments...);
    if (result != nullptr && !call.IsReplaced()) CountResource(resource, 1);
    return result;
}

template <class P, class F>
int Close(Tova function, Resource resource, F* like, P* object) {
    Interception call(function, object);
    const int result = Forward(call, function, like, object);
    if (result == 0 && !call.IsReplaced()) CountResource(resource, -1);
    return result;
}

// A failing wait takes as long as it was allowed to.
void LetTimePass(unsigned milliseconds) {
    std::mutex mutex;
    std::condition_variable never;
    std::unique_lock<std::mutex> lock(mutex);
    never.wait_for(lock, std::chrono::milliseconds(milliseconds), [] { return false; });
}

int TimedWait(tova_sem_t* sem, unsigned milliseconds) {
    Interception call(Tova::SemTimedWait, Block(sem), nullptr, milliseconds);
    if (call.IsReplaced() && !call.Fails()) return static_cast<int>(call.Result(-1));
    LongWaits& waits = TheLongWaits();
    if (milliseconds >= Runtime::kLongWaitMs && waits.IsActive() && Block(sem) != nullptr) {
        bool by_clock = false;
        const AllocationPause pause;
        const int error = call.Fails() ? call.Error() : kErrorTimeout;
        const int result = call.Done(waits.Wait(sem, milliseconds, error, &by_clock));
        if (!by_clock) return result;
    } else if (call.Fails()) {
        LetTimePass(milliseconds);
        return -1;
    }
    return call.Done(CallReal(Tova::SemTimedWait, TOVA_SemTimedWait, sem, milliseconds));
}

}  // namespace
}  // namespace vessa_test

using namespace vessa_test;

STAND_IN(int, TOVA_Init)(void) {
    Interception call(Tova::Init);
    return Forward(call, Tova::Init, TOVA_Init);
}

STAND_IN(int, TOVA_Fini)(void) {
    Interception call(Tova::Fini);
    return Forward(call, Tova::Fini, TOVA_Fini);
}

STAND_IN(int, TOVA_MutexCreate)(tova_mutex_t* mutex, int reserved) {
    return Create(Tova::MutexCreate, Resource::kMutex, TOVA_MutexCreate, mutex, reserved);
}

STAND_IN(int, TOVA_MutexDestroy)(tova_mutex_t* mutex) {
    return Destroy(Tova::MutexDestroy, Resource::kMutex, TOVA_MutexDestroy, mutex);
}

STAND_IN(int, TOVA_MutexLock)(tova_mutex_t* mutex) {
    Interception call(Tova::MutexLock, Block(mutex));
    return Forward(call, Tova::MutexLock, TOVA_MutexLock, mutex);
}

STAND_IN(int, TOVA_MutexUnlock)(tova_mutex_t* mutex) {
    Interception call(Tova::MutexUnlock, Block(mutex));
    return Forward(call, Tova::MutexUnlock, TOVA_MutexUnlock, mutex);
}

STAND_IN(int, TOVA_SemCreate)(tova_sem_t* sem, unsigned initial) {
    return Create(Tova::SemCreate, Resource::kSemaphore, TOVA_SemCreate, sem, initial);
}

STAND_IN(int, TOVA_SemDestroy)(tova_sem_t* sem) {
    return Destroy(Tova::SemDestroy, Resource::kSemaphore, TOVA_SemDestroy, sem);
}

STAND_IN(int, TOVA_SemPost)(tova_sem_t* sem) {
    Interception call(Tova::SemPost, Block(sem));
    const int result = Forward(call, Tova::SemPost, TOVA_SemPost, sem);
    TheLongWaits().Posted();
    return result;
}

STAND_IN(int, TOVA_SemWait)(tova_sem_t* sem) {
    Interception call(Tova::SemWait, Block(sem));
    return Forward(call, Tova::SemWait, TOVA_SemWait, sem);
}

STAND_IN(int, TOVA_SemTimedWait)(tova_sem_t* sem, unsigned milliseconds) {
    return TimedWait(sem, milliseconds);
}

STAND_IN(tova_thread_t, TOVA_Thread_Create)
(tova_entry_t entry, void* argument, int a, int b, int c, int d) {
    Interception call(Tova::Thread_Create);
    if (call.IsReplaced()) return reinterpret_cast<tova_thread_t>(call.Result(0));
    const tova_thread_t thread =
        call.Done(CallReal(Tova::Thread_Create, TOVA_Thread_Create, entry, argument, a, b, c, d));
    if (thread != nullptr) CountResource(Resource::kThread, 1);
    return thread;
}

STAND_IN(int, TOVA_Thread_Wait)(tova_thread_t thread) {
    return Close(Tova::Thread_Wait, Resource::kThread, TOVA_Thread_Wait, thread);
}

STAND_IN(int32_t, TOVA_AtomicAdd)(volatile int32_t* target, int32_t delta) {
    Interception call(Tova::AtomicAdd, const_cast<int32_t*>(target));
    return Forward(call, Tova::AtomicAdd, TOVA_AtomicAdd, target, delta);
}

STAND_IN(int32_t, TOVA_AtomicCas)(volatile int32_t* target, int32_t exchange, int32_t comparand) {
    Interception call(Tova::AtomicCas, const_cast<int32_t*>(target));
    return Forward(call, Tova::AtomicCas, TOVA_AtomicCas, target, exchange, comparand);
}

STAND_IN(void*, TOVA_LoadDSo)(const char* path) {
    return Open(Tova::LoadDSo, Resource::kModule, path, TOVA_LoadDSo, path);
}

STAND_IN(void*, TOVA_GetDsoSym)(void* dso, const char* name) {
    Interception call(Tova::GetDsoSym, dso, name);
    return ForwardPointer(call, Tova::GetDsoSym, TOVA_GetDsoSym, dso, name);
}

STAND_IN(int, TOVA_UnloadDSo)(void* dso) {
    return Close(Tova::UnloadDSo, Resource::kModule, TOVA_UnloadDSo, dso);
}

STAND_IN(int, TOVA_AccessFile)(const char* path, int mode) {
    Interception call(Tova::AccessFile, nullptr, path);
    return Forward(call, Tova::AccessFile, TOVA_AccessFile, path, mode);
}

STAND_IN(int, TOVA_GetSystemLastError)(void) {
    Interception call(Tova::GetSystemLastError);
    return Forward(call, Tova::GetSystemLastError, TOVA_GetSystemLastError);
}

STAND_IN(void*, TOVA_OpenDir)(const char* path) {
    return Open(Tova::OpenDir, Resource::kFolder, path, TOVA_OpenDir, path);
}

STAND_IN(int, TOVA_FindFileInDir)(void* dir, tova_dirent_t* entry) {
    Interception call(Tova::FindFileInDir, dir);
    return Forward(call, Tova::FindFileInDir, TOVA_FindFileInDir, dir, entry);
}

STAND_IN(int, TOVA_CloseDir)(void* dir) {
    return Close(Tova::CloseDir, Resource::kFolder, TOVA_CloseDir, dir);
}

STAND_IN(char*, TOVA_Strncpy)(char* to, const char* from, size_t n) {
    Interception call(Tova::Strncpy, to, from);
    if (call.IsReplaced()) return reinterpret_cast<char*>(call.Result(0));
    return call.Done(CallReal(Tova::Strncpy, TOVA_Strncpy, to, from, n));
}
