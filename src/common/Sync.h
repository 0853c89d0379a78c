// The synchronisation wrappers over the runtime's primitives. Their two assignment operators
// are part of the library's binary interface.
#pragma once

#include "common/Compiler.h"
#include "common/ThreadSafety.h"
#include "tova.h"

// A re-entrant mutex.
//
// Thread safety: Lock and Unlock on any thread; assignment and destruction by the owner alone.
// Invariants: one field, the native mutex. An assigned mutex shares its source's native mutex,
// which lives until both are destroyed. Construction throws std::bad_alloc.
class CAPABILITY("mutex") TOVA_Mutex {
  public:
    TOVA_Mutex();
    TOVA_Mutex(const TOVA_Mutex&) = delete;
    VESSA_CLASS_API TOVA_Mutex& operator=(const TOVA_Mutex& other);
    ~TOVA_Mutex();

    void Lock() ACQUIRE();
    void Unlock() RELEASE();

  private:
    tova_mutex_t native_ = nullptr;
};

// Locks for its own lifetime.
class SCOPED_CAPABILITY TOVA_MutexGuard {
  public:
    explicit TOVA_MutexGuard(TOVA_Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
    ~TOVA_MutexGuard() RELEASE() { mutex_.Unlock(); }
    TOVA_MutexGuard(const TOVA_MutexGuard&) = delete;
    TOVA_MutexGuard& operator=(const TOVA_MutexGuard&) = delete;

  private:
    TOVA_Mutex& mutex_;
};

// A counting semaphore, created with count 0.
//
// Thread safety and invariants: as TOVA_Mutex.
class TOVA_Sema {
  public:
    TOVA_Sema();
    TOVA_Sema(const TOVA_Sema&) = delete;
    VESSA_CLASS_API TOVA_Sema& operator=(const TOVA_Sema& other);
    ~TOVA_Sema();

    void Post();
    void Wait();
    // 0 when a count was taken, other on time-out.
    int TimedWait(unsigned milliseconds);

  private:
    tova_sem_t native_ = nullptr;
};
