// Rows.h: a benchmark is called "<contestant>:<row>". The row's name is the same for every
// contestant, so that a script can put them side by side.
#ifndef VESSA_BENCH_ROWS_H
#define VESSA_BENCH_ROWS_H

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace bench {

// Defined by each program: registers its benchmarks.
void RegisterRows();

// Runs after the last benchmark: what rows keep must go before global objects do.
void AtEnd(std::function<void()> function);

inline std::string RowName(const std::string& contestant, const std::string& row) {
    return contestant + ":" + row;
}

using Clock = std::chrono::steady_clock;

inline double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

inline double Median(std::vector<double> values) {
    if (values.empty()) return 0;
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

}  // namespace bench

#endif
