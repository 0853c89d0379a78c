// The scans of the library for changes. A program of its own, because it stands in for a function
// of the runtime.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <string>

#include "common/Lists.h"
#include "common/Rows.h"
#include "ours/Library.h"

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
}

namespace {

std::atomic<long> allocations{0};

}  // namespace

// The library's allocations come here as well. What is counted is little beside a scan.
extern "C" {
__attribute__((visibility("default"))) void* malloc(size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}
__attribute__((visibility("default"))) void* calloc(size_t count, size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(count, size);
}
__attribute__((visibility("default"))) void* realloc(void* block, size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_realloc(block, size);
}
}

namespace bench {
namespace {

// A started library whose scans the benchmark causes.
class Scanned {
  public:
    explicit Scanned(const std::string& root) {
        library_.LinkRoot(root);
        Scans::Attach(library_);
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
    const long before = allocations.load();
    for (auto _ : state) state.SetIterationTime(Scans::RunOne());
    state.counters["allocations_each_list"] =
        static_cast<double>(allocations.load() - before) /
        static_cast<double>(state.iterations() * state.range(0));
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

}  // namespace

void RegisterRows() {
    for (const Shape shape : {Shape::kEach, Shape::kDeep}) {
        benchmark::RegisterBenchmark(
            RowName("ours", std::string("rescan/") + NameOf(shape)).c_str(), RunUnchangedScan,
            shape)
            ->ArgName("plugins")
            ->Arg(10000)
            ->Iterations(5)
            ->UseManualTime();
    }
    benchmark::RegisterBenchmark(RowName("ours", "rescan_one_changed").c_str(), RunChangedScan)
        ->ArgName("plugins")
        ->Arg(10000)
        ->Iterations(5)
        ->UseManualTime();
}

}  // namespace bench
