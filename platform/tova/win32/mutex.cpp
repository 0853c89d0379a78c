#include <new>

#include "common.h"
#include "win32/Wide.h"

namespace {

struct Mutex : tova_shared_t {
    CRITICAL_SECTION native;
};

constexpr DWORD kSpins = 4000;

Mutex* Get(tova_mutex_t* mutex) {
    return mutex == nullptr ? nullptr : static_cast<Mutex*>(*mutex);
}

bool IsMine(const CRITICAL_SECTION& section) {
    return reinterpret_cast<uintptr_t>(section.OwningThread) == GetCurrentThreadId();
}

void Release(Mutex* block) {
    if (!tova::DropReference(block)) return;
    DeleteCriticalSection(&block->native);
    delete block;
}

}  // namespace

int TOVA_MutexCreate(tova_mutex_t* mutex, int) {
    if (mutex == nullptr) return tova::Fail(ERROR_INVALID_PARAMETER);
    *mutex = nullptr;
    Mutex* const block = new (std::nothrow) Mutex;
    if (block == nullptr) return tova::Fail(ERROR_NOT_ENOUGH_MEMORY);
    block->references = 1;
    if (!InitializeCriticalSectionAndSpinCount(&block->native, kSpins)) {
        const DWORD error = GetLastError();
        delete block;
        return tova::Fail(error != 0 ? error : DWORD{ERROR_NOT_ENOUGH_MEMORY});
    }
    *mutex = block;
    return 0;
}

int TOVA_MutexDestroy(tova_mutex_t* mutex) {
    if (mutex == nullptr) return tova::Fail(ERROR_INVALID_PARAMETER);
    Mutex* const block = Get(mutex);
    *mutex = nullptr;
    if (block != nullptr) Release(block);
    return 0;
}

int TOVA_MutexLock(tova_mutex_t* mutex) {
    Mutex* const block = Get(mutex);
    if (block == nullptr) return tova::Fail(ERROR_INVALID_PARAMETER);
    if (TryEnterCriticalSection(&block->native)) return 0;
    // At the end of the process its holder may be gone for good: nobody is left to protect from.
    if (!win32::ProcessIsEnding()) EnterCriticalSection(&block->native);
    return 0;
}

int TOVA_MutexUnlock(tova_mutex_t* mutex) {
    Mutex* const block = Get(mutex);
    if (block == nullptr) return tova::Fail(ERROR_INVALID_PARAMETER);
    if (!IsMine(block->native)) {
        return win32::ProcessIsEnding() ? 0 : tova::Fail(ERROR_NOT_OWNER);
    }
    // Whoever gets it next may destroy it before the system is done with it here.
    tova::AddReference(block);
    LeaveCriticalSection(&block->native);
    Release(block);
    return 0;
}
