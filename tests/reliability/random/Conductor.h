// Conductor.h: the phases, and what is compared between them.
#ifndef VESSA_TESTS_RELIABILITY_RANDOM_CONDUCTOR_H
#define VESSA_TESTS_RELIABILITY_RANDOM_CONDUCTOR_H

#include <memory>
#include <vector>

#include "Host.h"
#include "Shared.h"
#include "Worker.h"

namespace vessa_random {

class Conductor {
  public:
    explicit Conductor(Host& host);

    // Phases until the options say that it is enough.
    void Run();
    long operations() const;

  private:
    void Start();
    void RunPhase(long phase);
    void RunLife(long phase);
    void Stop();

    void Compare(long phase, bool is_running);
    void CompareModules(bool is_running);
    void CompareShared();
    void CompareAllKeys();
    void CompareMappings(size_t modules);
    void CompareStopped();

    Host& host_;
    Shared shared_;
    std::vector<std::unique_ptr<Worker>> workers_;
    long phases_ = 0;
    bool has_baseline_ = false;
    vessa_test::RuntimeCensus baseline_{};
};

}  // namespace vessa_random

#endif
