#include "ours/StartRows.h"

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <string>

#include "common/Lists.h"
#include "common/Rows.h"
#include "ours/Library.h"

namespace bench {
namespace {

// Only the start is timed.
void RunStart(benchmark::State& state, Shape shape) {
    Library library;
    const std::string root = RootWith(shape, static_cast<size_t>(state.range(0)));
    library.LinkRoot(root);
    WarmUp(root);
    for (auto _ : state) {
        const auto start = Clock::now();
        const int result = library.Init();
        state.SetIterationTime(SecondsSince(start));
        if (result != VESSA_OK) {
            state.SkipWithError("not started");
            break;
        }
        library.Uninit();
    }
}

void RunStartAndStop(benchmark::State& state) {
    Library library;
    library.MakeRoot();
    for (auto _ : state) {
        if (library.Init() != VESSA_OK) state.SkipWithError("not started");
        library.Uninit();
    }
}

size_t AllocatedBytes() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

// What a start leaves allocated, for each plug-in.
void RunMemory(benchmark::State& state) {
    const auto plugins = static_cast<size_t>(state.range(0));
    Library library;
    library.LinkRoot(RootWith(Shape::kOneFile, plugins));
    for (auto _ : state) {
        const size_t before = AllocatedBytes();
        const StartedLibrary started(library);
        const size_t after = AllocatedBytes();
        state.counters["bytes"] =
            static_cast<double>(after - before) / static_cast<double>(plugins);
    }
}

}  // namespace

void RegisterStartRows() {
    ForEachStart([](Shape shape, int plugins, int iterations) {
        benchmark::RegisterBenchmark(RowName("ours", StartRow(shape)).c_str(), RunStart, shape)
            ->ArgName("plugins")
            ->Arg(plugins)
            ->Iterations(iterations)
            ->UseManualTime();
    });
    benchmark::RegisterBenchmark(RowName("ours", "memory").c_str(), RunMemory)
        ->ArgName("plugins")
        ->Arg(100000)
        ->Iterations(1);
    benchmark::RegisterBenchmark(RowName("ours", "start_stop_empty").c_str(), RunStartAndStop)
        ->UseRealTime();
}

}  // namespace bench
