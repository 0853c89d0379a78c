// LogRow.h: the row "log/suppressed": one record that the threshold keeps back.
#ifndef VESSA_BENCH_LOGROW_H
#define VESSA_BENCH_LOGROW_H

#include <benchmark/benchmark.h>

#include <string>

#include "common/Rows.h"

namespace bench {

// prepare() sets the threshold, log(address, number) writes the record.
template <class Prepare, class Log>
void RegisterSuppressedRecord(const std::string& contestant, Prepare prepare, Log log) {
    benchmark::RegisterBenchmark(RowName(contestant, "log/suppressed").c_str(),
                                 [prepare, log](benchmark::State& state) {
                                     prepare();
                                     int number = 7;
                                     for (auto _ : state) {
                                         benchmark::DoNotOptimize(number);
                                         log(static_cast<void*>(&state), number);
                                     }
                                 })
        ->UseRealTime();
}

}  // namespace bench

#endif
