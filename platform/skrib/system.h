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

#  include "win32/Wide.h"
#else
#  include <pthread.h>
#endif

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <string>

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
    // False: its holder went with the process that is ending, and so it cannot be had.
    bool Acquire() SKRIB_ATTRIBUTE(acquire_capability()) {
        if (TryEnterCriticalSection(&mutex_)) return true;
        if (win32::ProcessIsEnding()) return false;
        EnterCriticalSection(&mutex_);
        return true;
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
    bool Acquire() SKRIB_ATTRIBUTE(acquire_capability()) {
        return pthread_mutex_lock(&mutex_) == 0;
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
        held_ = lock_.Acquire();
    }
    ~Held() SKRIB_ATTRIBUTE(release_capability()) {
        if (held_) lock_.Release();
#if !defined(_WIN32)
        pthread_setcancelstate(cancel_state_, nullptr);
#endif
    }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;

    // False at the end of a process, when what the lock guards was left half way for good.
    explicit operator bool() const {
        return held_;
    }

  private:
    Lock& lock_;
    bool held_ = false;
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

// In UTF-8 on Windows. Nothing where the variable is not set, and in a program that runs with more
// rights than its user has: it must not write files where the user says.
inline std::optional<std::string> Environment(const char* name) {
#if defined(_WIN32)
    const std::wstring wide_name(name, name + std::char_traits<char>::length(name));
    const DWORD size = GetEnvironmentVariableW(wide_name.c_str(), nullptr, 0);
    std::wstring value(size, L'\0');
    std::string text;
    if (size == 0 || GetEnvironmentVariableW(wide_name.c_str(), value.data(), size) >= size ||
        !win32::Narrow(value.c_str(), text))
        return std::nullopt;
    return text;
#else
    const char* const value = secure_getenv(name);
    if (value == nullptr) return std::nullopt;
    return value;
#endif
}

// Handles and the receiver outlive every unload of whoever uses them, so does the code. Where
// nothing is done here the linker has said so.
inline void StayLoaded() {
#if defined(_WIN32)
    static const char anchor = 0;
    HMODULE own = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                       reinterpret_cast<LPCWSTR>(&anchor), &own);
#endif
}

}  // namespace skrib

#endif
