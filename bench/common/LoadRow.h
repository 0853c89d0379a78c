// LoadRow.h: the row "load": the first use of a module file through a contestant, over the bare
// dlopen and dlsym of another copy of the same file. Both are measured in turns in one process, so
// that the system's loader has as much to search for either.
//
// A Host loads copies of one module:
//
//     explicit Host(const std::vector<std::string>& files);
//     bool FirstUse(size_t index);   // up to the first instance of files[index]
//     static std::string Module();   // the built file
//     static const char* Symbol();   // one that it exports
#ifndef VESSA_BENCH_LOADROW_H
#define VESSA_BENCH_LOADROW_H

#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <string>
#include <vector>

#include "common/Folder.h"
#include "common/Rows.h"

namespace bench {

constexpr size_t kLoadedModules = 100;

// Seconds.
inline double TimeBareLoad(const std::string& file, const char* symbol) {
    const auto start = Clock::now();
    void* const module = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    void* const entry = module != nullptr ? dlsym(module, symbol) : nullptr;
    const double seconds = SecondsSince(start);
    return entry != nullptr ? seconds : -1;
}

template <class Host>
void RunLoad(benchmark::State& state) {
    TempFolder folder;
    std::vector<std::string> bare_files;
    std::vector<std::string> host_files;
    for (size_t i = 0; i < kLoadedModules; ++i) {
        const std::string number = std::to_string(100 + i);
        bare_files.push_back(folder.Copy(Host::Module(), "bare/libbare" + number + ".so"));
        host_files.push_back(folder.Copy(Host::Module(), "host/libhost" + number + ".so"));
    }
    Host host(host_files);
    std::vector<double> bare_times;
    std::vector<double> extra_times;
    size_t i = 0;
    for (auto _ : state) {
        const double bare = TimeBareLoad(bare_files[i], Host::Symbol());
        const auto start = Clock::now();
        const bool loaded = host.FirstUse(i);
        const double hosted = SecondsSince(start);
        if (bare < 0 || !loaded) {
            state.SkipWithError("not loaded");
            break;
        }
        state.SetIterationTime(hosted);
        bare_times.push_back(bare);
        extra_times.push_back(hosted - bare);
        ++i;
    }
    state.counters["bare_ns"] = Median(bare_times) * 1e9;
    state.counters["over_bare_ns"] = Median(extra_times) * 1e9;
}

template <class Host>
void RegisterLoad(const std::string& contestant) {
    benchmark::RegisterBenchmark(RowName(contestant, "load").c_str(), RunLoad<Host>)
        ->Iterations(kLoadedModules)
        ->UseManualTime();
}

}  // namespace bench

#endif
