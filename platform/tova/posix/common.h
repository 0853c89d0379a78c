#ifndef TOVA_POSIX_COMMON_H
#define TOVA_POSIX_COMMON_H

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "tova.h"

namespace tova {

// A failing call's result: the error, which is also the last error.
inline int Fail(int error) {
    errno = error;
    return error;
}

inline void AddReference(tova_shared_t* block) {
    __atomic_fetch_add(&block->references, 1, __ATOMIC_SEQ_CST);
}

// True: that was the last one, the block is the caller's to free.
inline bool DropReference(tova_shared_t* block) {
    return __atomic_fetch_sub(&block->references, 1, __ATOMIC_SEQ_CST) == 1;
}

// Holds off a cancellation: one inside the loader, or between the opening and the closing of a
// file, would leave a lock or a descriptor behind.
class CancelGuard {
  public:
    CancelGuard() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~CancelGuard() { pthread_setcancelstate(before_, nullptr); }
    CancelGuard(const CancelGuard&) = delete;
    CancelGuard& operator=(const CancelGuard&) = delete;

  private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

// An open file, closed with the block; below 0: none.
class Descriptor {
  public:
    explicit Descriptor(int value) : value_(value) {}
    ~Descriptor() {
        if (value_ >= 0) close(value_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int value() const { return value_; }

  private:
    const int value_;
};

constexpr long kNsPerSecond = 1'000'000'000;

inline timespec MonotonicAfter(long seconds, long ns) {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    time.tv_sec += seconds;
    time.tv_nsec += ns;
    if (time.tv_nsec >= kNsPerSecond) {
        time.tv_nsec -= kNsPerSecond;
        ++time.tv_sec;
    }
    return time;
}

inline void SleepUntil(const timespec& deadline) {
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
}

}  // namespace tova

#endif
