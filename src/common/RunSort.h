#pragma once

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

// Sorts stably by merging the ascending runs that are there already: what comes in order costs
// one comparison each, "key9, key10, …, key99, key100" two more. No memory is reported by
// std::bad_alloc, and the values are as they were then.
template <class T, class Less>
void SortByRuns(std::vector<T>& values, Less less) {
    std::vector<size_t> ends;
    for (size_t i = 1; i < values.size(); ++i) {
        if (less(values[i], values[i - 1])) ends.push_back(i);
    }
    if (ends.empty()) return;
    ends.push_back(values.size());
    std::vector<T> merged(values.size());
    const auto at = [](std::vector<T>& in, size_t index) {
        return in.begin() + static_cast<std::ptrdiff_t>(index);
    };
    while (ends.size() > 1) {
        size_t begin = 0;
        size_t kept = 0;
        for (size_t run = 0; run < ends.size(); run += 2) {
            const size_t middle = ends[run];
            const size_t end = run + 1 < ends.size() ? ends[run + 1] : middle;
            std::merge(at(values, begin), at(values, middle), at(values, middle), at(values, end),
                       at(merged, begin), less);
            ends[kept++] = end;
            begin = end;
        }
        ends.resize(kept);
        values.swap(merged);
    }
}
