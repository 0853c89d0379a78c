// Counts.h: what the library for LD_PRELOAD counts, for all processes in one file.
#ifndef VESSA_TESTS_RELIABILITY_UNLOADED_COUNTS_H
#define VESSA_TESTS_RELIABILITY_UNLOADED_COUNTS_H

#include <atomic>
#include <cstdint>

struct Counts {
    std::atomic<uint64_t> unloads{0};  // calls after which something was mapped no more
    std::atomic<uint64_t> blocked{0};  // files whose address range is closed since
    std::atomic<uint64_t> missed{0};   // the same, but another thread had already mapped something
    std::atomic<uint64_t> faults{0};   // uses of a closed range
};

#endif
