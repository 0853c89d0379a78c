#include "ours/StartRows.h"

#include <benchmark/benchmark.h>

#include <string>

#include "common/Lists.h"
#include "common/MemoryRow.h"
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

// What a start leaves allocated. It holds no keys of the benchmark's.
void RunMemoryOfStart(benchmark::State& state) {
    const auto plugins = static_cast<size_t>(state.range(0));
    Library library;
    library.LinkRoot(RootWith(Shape::kOneFile, plugins));
    for (auto _ : state) {
        state.counters["bytes"] =
            BytesOf([&] { return std::make_unique<StartedLibrary>(library); }) /
            static_cast<double>(plugins);
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
    RegisterMemoryOf("ours", RunMemoryOfStart);
    benchmark::RegisterBenchmark(RowName("ours", "start_stop_empty").c_str(), RunStartAndStop)
        ->UseRealTime();
}

}  // namespace bench
