#include "common/Sync.h"

#include <new>

TOVA_Mutex::TOVA_Mutex() {
    if (TOVA_MutexCreate(&native_, 0) != 0) throw std::bad_alloc();
}

TOVA_Mutex& TOVA_Mutex::operator=(const TOVA_Mutex& other) {
    // Kept over the destruction, which clears the value and may be that of the source itself.
    const tova_mutex_t shared = other.native_;
    TOVA_AtomicAdd(&shared->references, 1);
    TOVA_MutexDestroy(&native_);
    native_ = shared;
    return *this;
}

TOVA_Mutex::~TOVA_Mutex() {
    TOVA_MutexDestroy(&native_);
}

void TOVA_Mutex::Lock() NO_THREAD_SAFETY_ANALYSIS {
    TOVA_MutexLock(&native_);
}

void TOVA_Mutex::Unlock() NO_THREAD_SAFETY_ANALYSIS {
    TOVA_MutexUnlock(&native_);
}

TOVA_Sema::TOVA_Sema() {
    if (TOVA_SemCreate(&native_, 0) != 0) throw std::bad_alloc();
}

TOVA_Sema& TOVA_Sema::operator=(const TOVA_Sema& other) {
    const tova_sem_t shared = other.native_;
    TOVA_AtomicAdd(&shared->references, 1);
    TOVA_SemDestroy(&native_);
    native_ = shared;
    return *this;
}

TOVA_Sema::~TOVA_Sema() {
    TOVA_SemDestroy(&native_);
}

void TOVA_Sema::Post() {
    TOVA_SemPost(&native_);
}

void TOVA_Sema::Wait() {
    TOVA_SemWait(&native_);
}

int TOVA_Sema::TimedWait(unsigned milliseconds) {
    return TOVA_SemTimedWait(&native_, milliseconds);
}
