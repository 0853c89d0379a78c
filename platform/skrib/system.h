/*
 * What skrib needs of the system: a lock, the caller's last error kept, the environment.
 *
 * The standard library's mutex is avoided on purpose: on Windows it may rest on a layer that
 * hangs while the process ends, when a thread that held it is already gone.
 */
#ifndef SKRIB_SYSTEM_H
#define SKRIB_SYSTEM_H

#if defined(_WIN32)
#  include <windows.h>
#else
#  include <pthread.h>
#endif

#include <cerrno>
#include <cstdlib>

#if defined(__clang__)
#  define SKRIB_ATTRIBUTE(x) __attribute__((x))
#else
#  define SKRIB_ATTRIBUTE(x)
#endif
#define SKRIB_GUARDED_BY(x) SKRIB_ATTRIBUTE(guarded_by(x))
#define SKRIB_REQUIRES(x) SKRIB_ATTRIBUTE(requires_capability(x))

namespace skrib {

/*
 * A lock with one condition. Recursive, because a host's allocator may write a log record of
 * its own while skrib allocates under the lock. Never destroyed: there is no destructor on
 * purpose, threads may come until the process is gone.
 */
class SKRIB_ATTRIBUTE(capability("mutex")) Lock {
  public:
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

#if defined(_WIN32)
    Lock() {
        InitializeCriticalSection(&mutex_);
    }
    void Acquire() SKRIB_ATTRIBUTE(acquire_capability()) {
        EnterCriticalSection(&mutex_);
    }
    void Release() SKRIB_ATTRIBUTE(release_capability()) {
        LeaveCriticalSection(&mutex_);
    }
    void Wait() SKRIB_REQUIRES(this) {
        SleepConditionVariableCS(&changed_, &mutex_, INFINITE);
    }
    void WakeAll() {
        WakeAllConditionVariable(&changed_);
    }

  private:
    CRITICAL_SECTION mutex_;
    CONDITION_VARIABLE changed_ = CONDITION_VARIABLE_INIT;
#else
    Lock() {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&mutex_, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    void Acquire() SKRIB_ATTRIBUTE(acquire_capability()) {
        pthread_mutex_lock(&mutex_);
    }
    void Release() SKRIB_ATTRIBUTE(release_capability()) {
        pthread_mutex_unlock(&mutex_);
    }
    // May return early; the caller looks again. Must not be held twice.
    void Wait() SKRIB_REQUIRES(this) {
        pthread_cond_wait(&changed_, &mutex_);
    }
    void WakeAll() {
        pthread_cond_broadcast(&changed_);
    }

  private:
    pthread_mutex_t mutex_;
    pthread_cond_t changed_ = PTHREAD_COND_INITIALIZER;
#endif
};

/*
 * Holds a lock for a block. No thread is cancelled meanwhile: writing to a file is a point of
 * cancellation, and the libraries below are not made to be left there half way.
 */
class SKRIB_ATTRIBUTE(scoped_lockable) Held {
  public:
    explicit Held(Lock& lock) SKRIB_ATTRIBUTE(acquire_capability(lock)) : lock_(lock) {
#if !defined(_WIN32)
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state_);
#endif
        lock_.Acquire();
    }
    ~Held() SKRIB_ATTRIBUTE(release_capability()) {
        lock_.Release();
#if !defined(_WIN32)
        pthread_setcancelstate(cancel_state_, nullptr);
#endif
    }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;

  private:
    Lock& lock_;
#if !defined(_WIN32)
    int cancel_state_ = PTHREAD_CANCEL_ENABLE;
#endif
};

// A record is often written between a failing call and the look at the reason.
class LastErrorKept {
  public:
    LastErrorKept() = default;
    LastErrorKept(const LastErrorKept&) = delete;
    LastErrorKept& operator=(const LastErrorKept&) = delete;

#if defined(_WIN32)
    ~LastErrorKept() {
        errno = errno_;
        SetLastError(error_);
    }

  private:
    DWORD error_ = GetLastError();
#else
    ~LastErrorKept() {
        errno = errno_;
    }

  private:
#endif
    int errno_ = errno;
};

// Null where the variable is not set, and in a program that runs with more rights than its
// user has: it must not write files where the user says.
inline const char* Environment(const char* name) {
#if defined(_WIN32)
    return std::getenv(name);
#else
    return secure_getenv(name);
#endif
}

}  // namespace skrib

#endif
