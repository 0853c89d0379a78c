// MemoryRow.h: the row "memory": what a contestant keeps allocated for each registered plug-in,
// without the copies of the keys that the benchmark itself holds.
#ifndef VESSA_BENCH_MEMORYROW_H
#define VESSA_BENCH_MEMORYROW_H

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <memory>
#include <string>

#include "common/Keys.h"
#include "common/Rows.h"

namespace bench {

constexpr int kPluginsInMemory = 100000;

inline double AllocatedBytes() {
    const struct mallinfo2 info = mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd);
}

// Of whatever make() returns a pointer to.
template <class Make>
double BytesOf(Make make) {
    const double before = AllocatedBytes();
    const auto made = make();
    return AllocatedBytes() - before;
}

// A Host of CreateRows that holds its keys as a vector of strings.
template <class Host>
void RunMemory(benchmark::State& state) {
    const auto plugins = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        const double keys =
            BytesOf([&] { return std::make_unique<std::vector<std::string>>(Keys(plugins)); });
        const double all = BytesOf([&] { return std::make_unique<Host>(plugins); });
        state.counters["bytes"] = (all - keys) / static_cast<double>(plugins);
    }
}

inline void RegisterMemoryOf(const std::string& contestant, void (*run)(benchmark::State&)) {
    benchmark::RegisterBenchmark(RowName(contestant, "memory").c_str(), run)
        ->ArgName("plugins")
        ->Arg(kPluginsInMemory)
        ->Iterations(1);
}

template <class Host>
void RegisterMemory(const std::string& contestant) {
    RegisterMemoryOf(contestant, RunMemory<Host>);
}

}  // namespace bench

#endif
