#include "ours/StartRows.h"

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdio>
#include <ctime>
#include <stdexcept>
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

// A started library whose scans the benchmark causes.
class Scanned {
  public:
    explicit Scanned(const std::string& root) {
        library_.LinkRoot(root);
        Scans::Hold();
        if (library_.Init() != VESSA_OK) throw std::runtime_error("the library does not start");
        // The first one fills what later ones find there.
        Scans::RunOne();
    }
    ~Scanned() {
        Scans::Release();
        library_.Uninit();
    }
    Scanned(const Scanned&) = delete;
    Scanned& operator=(const Scanned&) = delete;

  private:
    Library library_;
};

void RunUnchangedScan(benchmark::State& state, Shape shape) {
    const Scanned scanned(RootWith(shape, static_cast<size_t>(state.range(0))));
    for (auto _ : state) state.SetIterationTime(Scans::RunOne());
}

// A file that was written this very moment makes a scan wait until the file system's clock has
// gone on, which is no work.
void WaitForNextFileTime() {
    timespec tick{};
    clock_getres(CLOCK_REALTIME_COARSE, &tick);
    tick.tv_nsec *= 3;
    nanosleep(&tick, nullptr);
}

// One list gets a second plug-in, or loses it again.
void RunChangedScan(benchmark::State& state) {
    const auto plugins = static_cast<size_t>(state.range(0));
    const std::string root = ChangingRootWith(Shape::kEach, plugins);
    const std::string list = root + "/" + Key(plugins / 2) + "/tarnet.xml";
    const Scanned scanned(root);
    bool is_longer = false;
    for (auto _ : state) {
        is_longer = !is_longer;
        WriteFile(list + ".new", is_longer ? ListText(plugins, 2) : ListText(plugins / 2, 1));
        if (std::rename((list + ".new").c_str(), list.c_str()) != 0)
            state.SkipWithError("no rename");
        WaitForNextFileTime();
        state.SetIterationTime(Scans::RunOne());
    }
}

void RegisterOne(const std::string& row, void (*run)(benchmark::State&), int plugins,
                 int iterations) {
    benchmark::RegisterBenchmark(RowName("ours", row).c_str(), run)
        ->ArgName("plugins")
        ->Arg(plugins)
        ->Iterations(iterations)
        ->UseManualTime();
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
    for (const Shape shape : {Shape::kEach, Shape::kDeep}) {
        benchmark::RegisterBenchmark(
            RowName("ours", std::string("rescan/") + NameOf(shape)).c_str(), RunUnchangedScan,
            shape)
            ->ArgName("plugins")
            ->Arg(10000)
            ->Iterations(5)
            ->UseManualTime();
    }
    RegisterOne("rescan_one_changed", RunChangedScan, 10000, 5);
    benchmark::RegisterBenchmark(RowName("ours", "memory").c_str(), RunMemory)
        ->ArgName("plugins")
        ->Arg(100000)
        ->Iterations(1);
    benchmark::RegisterBenchmark(RowName("ours", "start_stop_empty").c_str(), RunStartAndStop)
        ->UseRealTime();
}

}  // namespace bench
