// Life.h: starts and stops by several threads, without anybody who keeps the library running
// meanwhile. A thread that has started it and not stopped it yet finds the stable key there for
// certain; any other finds it there or not.
#ifndef VESSA_TESTS_RELIABILITY_RANDOM_LIFE_H
#define VESSA_TESTS_RELIABILITY_RANDOM_LIFE_H

#include <cstdint>
#include <vector>

#include "Host.h"
#include "Random.h"

namespace vessa_random {

class LifeThread : private Answerer {
  public:
    LifeThread(Host& host, int number, bool may_fail)
        : library_(host.library()), number_(number), may_fail_(may_fail) {}

    // Leaves no user and no instance behind.
    void Run(long phase);

  private:
    RandomAction Answer(RandomCall& call) override;
    void Start();
    void Stop();
    void Create(bool stop_inside);
    void Destroy();

    vessa_test::LoadedLibrary& library_;
    const int number_;
    const bool may_fail_;  // a start may get no thread
    int users_ = 0;
    bool stop_inside_ = false;
    std::vector<void*> instances_;
};

}  // namespace vessa_random

#endif
