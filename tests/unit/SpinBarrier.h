// SpinBarrier.h: lets threads go on together within a few instructions of each other, for races
// that the sleep of an ordinary barrier, or the start of a thread, would tear apart.
#ifndef VESSA_TESTS_UNIT_SPINBARRIER_H
#define VESSA_TESTS_UNIT_SPINBARRIER_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "support/Sync.h"

namespace vessa_test {

// As Barrier; a wait is bounded by kLongWait.
class SpinBarrier {
  public:
    explicit SpinBarrier(int threads) : threads_(threads) {}

    void ArriveAndWait() {
        const long round = round_.load();
        if (arrived_.fetch_add(1) + 1 == threads_) {
            arrived_.store(0);
            round_.store(round + 1);
            return;
        }
        const auto end = std::chrono::steady_clock::now() + kLongWait;
        for (int looks = 1; round_.load() == round; ++looks) {
            if (looks % kLooks != 0) continue;
            // The one that is waited for may need this processor.
            std::this_thread::yield();
            if (std::chrono::steady_clock::now() > end) ThrowTimedOut("the others at a barrier");
        }
    }

  private:
    static constexpr int kLooks = 256;

    const int threads_;
    std::atomic<int> arrived_{0};
    std::atomic<long> round_{0};
};

// A few instructions, more or fewer by the round: two threads behind a barrier, one of which is
// always a little later, so meet at each distance from one another.
inline void Stagger(int round) {
    constexpr int kSteps = 40;
    for (std::atomic<int> left{round % kSteps}; left.load(std::memory_order_relaxed) > 0;)
        left.store(left.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
}

// Stores to memory that is in no cache. Behind them the next store of the thread waits to be seen
// by others, for far longer than by itself, while loads go ahead: without a fence this shows.
class ColdStores {
  public:
    void Make() {
        for (int i = 0; i < kAtOnce; ++i) {
            at_ = (at_ + kStep) % memory_.size();
            memory_[at_] = static_cast<unsigned char>(i);
        }
    }

  private:
    static constexpr int kAtOnce = 40;
    static constexpr size_t kStep = 64 * 1021;

    std::vector<unsigned char> memory_ = std::vector<unsigned char>(size_t{1} << 25);
    size_t at_ = 0;
};

// Runs each body on a thread of its own, all from the same moment on, to the end of all.
inline void RunTogether(const std::vector<std::function<void()>>& bodies) {
    SpinBarrier start(static_cast<int>(bodies.size()));
    std::vector<std::unique_ptr<JoiningThread>> threads;
    for (const std::function<void()>& body : bodies)
        threads.push_back(std::make_unique<JoiningThread>([&start, &body] {
            start.ArriveAndWait();
            body();
        }));
}

}  // namespace vessa_test

#endif
