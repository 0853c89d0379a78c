#include "common/RunSort.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "support/Allocation.h"

namespace {

using vessa_test::AllocationFailure;
using Values = std::vector<std::pair<int, size_t>>;

bool ByFirst(const Values::value_type& left, const Values::value_type& right) {
    return left.first < right.first;
}

Values Numbered(const std::vector<int>& keys) {
    Values values;
    for (const int key : keys) values.emplace_back(key, values.size());
    return values;
}

TEST(RunSort, SortsAsAStableSortDoes) {
    std::mt19937 random(7);
    for (int round = 0; round < 3000; ++round) {
        std::vector<int> keys(random() % 40);
        const unsigned long different = 1 + random() % 50;
        for (int& key : keys) key = static_cast<int>(random() % different);
        // Runs of several lengths.
        for (size_t at = 0; at < keys.size();) {
            const size_t end = std::min(keys.size(), at + 1 + random() % 12);
            std::sort(keys.begin() + static_cast<long>(at), keys.begin() + static_cast<long>(end));
            at = end;
        }
        Values values = Numbered(keys);
        Values expected = values;
        std::stable_sort(expected.begin(), expected.end(), ByFirst);
        SortByRuns(values, ByFirst);
        ASSERT_EQ(values, expected) << round;
    }
}

TEST(RunSort, ComparesOnceWhatIsInOrder) {
    std::vector<int> values(1000);
    for (int i = 0; i < 1000; ++i) values[static_cast<size_t>(i)] = i / 2;
    long comparisons = 0;
    SortByRuns(values, [&](int left, int right) {
        ++comparisons;
        return left < right;
    });
    EXPECT_EQ(comparisons, 999);
}

TEST(RunSort, TakesNumberedNamesAsFourRuns) {
    std::vector<std::string> names;
    for (int i = 0; i < 10000; ++i) names.push_back("key" + std::to_string(i));
    std::vector<std::string> expected = names;
    std::sort(expected.begin(), expected.end());
    long comparisons = 0;
    SortByRuns(names, [&](const std::string& left, const std::string& right) {
        ++comparisons;
        return left < right;
    });
    EXPECT_EQ(names, expected);
    EXPECT_LT(comparisons, 30000);
}

TEST(RunSort, LeavesTheValuesWhenMemoryRunsOut) {
    for (long nth = 1;; ++nth) {
        Values values = Numbered({3, 1, 2, 5, 4, 0});
        const Values before = values;
        bool refused = false;
        long failed = 0;
        {
            AllocationFailure failure(nth);
            try {
                SortByRuns(values, ByFirst);
            } catch (const std::bad_alloc&) {
                refused = true;
            }
            failed = failure.Failed();
        }
        EXPECT_EQ(refused, failed != 0) << nth;
        if (failed == 0) break;
        EXPECT_EQ(values, before) << nth;
    }
}

}  // namespace
