#include <climits>
#include <new>

#include "common.h"

namespace {

struct Semaphore : tova_shared_t {
    HANDLE native;
};

// The largest number of milliseconds means for ever to the system.
constexpr DWORD kLongestWaitMs = INFINITE - 1;

Semaphore* Get(tova_sem_t* sem) {
    return sem == nullptr ? nullptr : static_cast<Semaphore*>(*sem);
}

void Release(Semaphore* block) {
    if (!tova::DropReference(block)) return;
    CloseHandle(block->native);
    delete block;
}

}  // namespace

int TOVA_SemCreate(tova_sem_t* sem, unsigned initial) {
    if (sem == nullptr) return tova::Fail(ERROR_INVALID_PARAMETER);
    *sem = nullptr;
    if (initial > LONG_MAX) return tova::Fail(ERROR_INVALID_PARAMETER);
    Semaphore* const block = new (std::nothrow) Semaphore;
    if (block == nullptr) return tova::Fail(ERROR_NOT_ENOUGH_MEMORY);
    block->references = 1;
    block->native = CreateSemaphoreW(nullptr, static_cast<LONG>(initial), LONG_MAX, nullptr);
    if (block->native == nullptr) {
        const DWORD error = GetLastError();
        delete block;
        return tova::Fail(error != 0 ? error : DWORD{ERROR_NOT_ENOUGH_MEMORY});
    }
    *sem = block;
    return 0;
}

int TOVA_SemDestroy(tova_sem_t* sem) {
    if (sem == nullptr) return tova::Fail(ERROR_INVALID_PARAMETER);
    Semaphore* const block = Get(sem);
    *sem = nullptr;
    if (block != nullptr) Release(block);
    return 0;
}

int TOVA_SemPost(tova_sem_t* sem) {
    Semaphore* const block = Get(sem);
    if (block == nullptr) return tova::Fail(ERROR_INVALID_PARAMETER);
    // Whoever takes this count may destroy the semaphore before the system's call is back.
    tova::AddReference(block);
    const int result = ReleaseSemaphore(block->native, 1, nullptr) ? 0 : tova::FailWithLastError();
    const DWORD error = GetLastError();
    Release(block);
    SetLastError(error);
    return result;
}

int TOVA_SemWait(tova_sem_t* sem) {
    Semaphore* const block = Get(sem);
    if (block == nullptr) return tova::Fail(ERROR_INVALID_PARAMETER);
    if (WaitForSingleObject(block->native, INFINITE) == WAIT_OBJECT_0) return 0;
    return tova::FailWithLastError();
}

int TOVA_SemTimedWait(tova_sem_t* sem, unsigned milliseconds) {
    Semaphore* const block = Get(sem);
    if (block == nullptr) return tova::Fail(ERROR_INVALID_PARAMETER);
    const DWORD time_ms = milliseconds < kLongestWaitMs ? milliseconds : kLongestWaitMs;
    switch (WaitForSingleObject(block->native, time_ms)) {
        case WAIT_OBJECT_0:
            return 0;
        case WAIT_TIMEOUT:
            return tova::Fail(WAIT_TIMEOUT);
        default:
            break;
    }
    const DWORD error = GetLastError();
    Sleep(time_ms);
    return tova::Fail(error != 0 ? error : DWORD{ERROR_GEN_FAILURE});
}
