// What the timer's tests run: a callback that does what a test wants, and a closure that tells
// of its end.
#ifndef VESSA_TESTS_UNIT_TIMERCALLBACK_H
#define VESSA_TESTS_UNIT_TIMERCALLBACK_H

#include <atomic>
#include <functional>
#include <thread>

#include "common/Timer.h"

namespace vessa_test {

constexpr unsigned kPeriodMs = 30000;

struct Callback {
    std::atomic<int> runs{0};
    std::function<void()> body;
    std::thread::id thread;

    void Run() {
        thread = std::this_thread::get_id();
        ++runs;
        if (body) body();
    }
    ObjectPtrT<Closure> Bound() { return NewClosure(this, &Callback::Run); }
};

struct Watched final : Closure {
    explicit Watched(std::atomic<int>& ends) : ends_(ends) {}
    ~Watched() override { ++ends_; }
    void Run() override {}

  private:
    std::atomic<int>& ends_;
};

inline ObjectPtrT<Closure> NewWatched(std::atomic<int>& ends) {
    ObjectPtrT<Closure> closure;
    closure.Reset(new Watched(ends));
    return closure;
}

}  // namespace vessa_test

#endif
