#include "common/SpreadCounter.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <functional>
#include <random>
#include <vector>

#include "common/AsymmetricFence.h"
#include "support/Allocation.h"
#include "unit/SpinBarrier.h"

using vessa_test::AllocationFailure;
using vessa_test::LiveBlocks;
using vessa_test::RunTogether;
using vessa_test::SpinBarrier;
using vessa_test::Stagger;

struct AsymmetricFenceAccess {
    static void SetAsymmetric(bool is_asymmetric) {
        AsymmetricFence::is_asymmetric_.store(is_asymmetric);
    }
};

namespace {

constexpr int32_t kCells = SpreadCounter::kCells;
// Emulators and sanitizers are some ten times slower: small enough for them.
constexpr int kRaceRounds = 10000;

// A thread's state with the place that a test wants; the counter looks at nothing else of it.
struct AtPlace : ThreadState {
    explicit AtPlace(int32_t wanted) { place = wanted; }
};

// A counter with the cells that its owner has for it.
struct Counter : CountingCells, SpreadCounter {
    Counter() : SpreadCounter(this) {}
};

// Takes the cells of the first two places, so that others need the further ones.
void TakeOwnCells(SpreadCounter& counter) {
    for (const int32_t place : {kCells - 2, kCells - 3}) {
        const AtPlace thread(place);
        counter.Raise(thread);
        counter.Lower(thread);
    }
}

TEST(SpreadCounter, IsZeroAndUnusedBeforeItIsRaised) {
    const Counter counter;
    EXPECT_TRUE(counter.IsZero());
    EXPECT_EQ(counter.Value(), 0);
    EXPECT_FALSE(counter.WasUsed());
}

TEST(SpreadCounter, CountsInTheCellsOfItsPlacesAndInTheSharedOneOfAllOthers) {
    for (const int32_t place : {0, 1, kCells - 1, kCells, kCells + 1, 1000}) {
        const AtPlace thread(place);
        Counter counter;
        for (int32_t raised = 1; raised <= 3; ++raised) {
            counter.Raise(thread);
            EXPECT_EQ(counter.Value(), raised) << place;
            EXPECT_FALSE(counter.IsZero()) << place;
        }
        for (int32_t left = 2; left >= 0; --left) {
            counter.Lower(thread);
            EXPECT_EQ(counter.Value(), left) << place;
            EXPECT_EQ(counter.IsZero(), left == 0) << place;
        }
        EXPECT_TRUE(counter.WasUsed()) << place;
    }
}

TEST(SpreadCounter, MakesFurtherCellsOnceAndOnlyForAThirdPlaceThatHasOne) {
    const AtPlace first(kCells - 1);
    const AtPlace second(0);
    const AtPlace third(1);
    const AtPlace fourth(2);
    const AtPlace without_cell(kCells);
    const long blocks_before = LiveBlocks();
    {
        Counter counter;
        std::vector<long> counted;
        counted.reserve(6);
        {
            AllocationFailure none(0);
            for (const AtPlace* const thread : {&without_cell, &first, &second, &third, &fourth}) {
                counter.Raise(*thread);
                counted.push_back(none.Count());
            }
            for (const AtPlace* const thread : {&without_cell, &first, &second, &third, &fourth})
                counter.Lower(*thread);
            counted.push_back(none.Count());
        }
        EXPECT_EQ(counted, (std::vector<long>{0, 0, 0, 1, 1, 1}));
        EXPECT_TRUE(counter.IsZero());
    }
    EXPECT_EQ(LiveBlocks(), blocks_before);
}

TEST(SpreadCounter, CountsWithoutMemoryForItsCellsAndGoesOnWhenThereIsSome) {
    const AtPlace thread(0);
    const AtPlace other(1);
    Counter counter;
    TakeOwnCells(counter);
    {
        AllocationFailure none(1, AllocationFailure::Mode::kFromNth);
        counter.Raise(thread);
        counter.Raise(thread);
        counter.Raise(other);
        counter.Lower(other);
    }
    EXPECT_TRUE(counter.WasUsed());
    EXPECT_EQ(counter.Value(), 2);
    EXPECT_FALSE(counter.IsZero());
    // What was raised in the shared cell is lowered in others.
    counter.Lower(thread);
    EXPECT_EQ(counter.Value(), 1);
    EXPECT_FALSE(counter.IsZero());
    counter.Raise(other);
    counter.Lower(thread);
    counter.Lower(other);
    EXPECT_EQ(counter.Value(), 0);
    EXPECT_TRUE(counter.IsZero());
    EXPECT_TRUE(counter.WasUsed());
}

// What one place raises any other may lower, so that single cells go below zero and above. The
// cells come into being in the middle.
TEST(SpreadCounter, HasTheValueOfAPlainNumberWhoeverRaisesAndLowers) {
    std::mt19937 random(1);
    Counter counter;
    int32_t expected = 0;
    for (int step = 0; step < 20000; ++step) {
        const AtPlace thread(static_cast<int32_t>(random() % (kCells + 4)));
        const bool raises = expected == 0 || (expected < 50 && random() % 2 == 0);
        expected += raises ? 1 : -1;
        {
            AllocationFailure failure(step < 10 ? 1 : 0, AllocationFailure::Mode::kFromNth);
            raises ? counter.Raise(thread) : counter.Lower(thread);
        }
        ASSERT_EQ(counter.Value(), expected) << step;
        ASSERT_EQ(counter.IsZero(), expected == 0) << step;
    }
}

TEST(SpreadCounter, IsNeverZeroWhileSomebodyHasRaisedIt) {
    const AtPlace observers[2] = {AtPlace(0), AtPlace(kCells)};
    Counter counter;
    std::atomic<int> wrong{0};
    std::atomic<int> changers{2};
    // What was raised and not lowered, by whomever: a thread lowers what the other one raised.
    std::atomic<int> raised{0};
    const auto change = [&](int32_t place) {
        const AtPlace thread(place);
        std::mt19937 random(static_cast<unsigned>(place));
        for (int round = 0; round < kRaceRounds; ++round) {
            if (random() % 2 == 0) {
                counter.Raise(thread);
                ++raised;
                continue;
            }
            int seen = raised;
            while (seen > 0 && !raised.compare_exchange_weak(seen, seen - 1)) {
            }
            if (seen > 0) counter.Lower(thread);
            wrong += counter.Value() < 0;
        }
        --changers;
    };
    const auto observe = [&](const AtPlace& thread) {
        do {
            counter.Raise(thread);
            wrong += counter.IsZero();
            wrong += counter.Value() < 1;
            counter.Lower(thread);
        } while (changers > 0);
    };
    RunTogether({[&] { change(1); }, [&] { change(kCells + 1); }, [&] { observe(observers[0]); },
                 [&] { observe(observers[1]); }});
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(counter.Value(), raised);
    for (; raised > 0; --raised) counter.Lower(observers[0]);
    EXPECT_TRUE(counter.IsZero());
}

TEST(SpreadCounter, HasTheExactValueAfterManyThreads) {
    constexpr int32_t kThreads = 4;
    Counter counter;
    std::vector<std::function<void()>> bodies;
    for (int32_t thread = 0; thread < kThreads; ++thread)
        bodies.push_back([&, thread] {
            // Two of them share the shared cell.
            const AtPlace own(thread < 2 ? thread : kCells + thread);
            for (int round = 0; round < kRaceRounds; ++round) {
                counter.Raise(own);
                counter.Raise(own);
                counter.Lower(own);
            }
        });
    RunTogether(bodies);
    EXPECT_EQ(counter.Value(), kThreads * kRaceRounds);
}

// Otherwise nobody would carry out what is due with the last one.
void LowerToZeroTogether(const std::vector<int32_t>& places) {
    const int threads = static_cast<int>(places.size());
    SpinBarrier barrier(threads);
    Counter counter;
    std::atomic<int> saw_zero{0};
    std::atomic<int> wrong{0};
    std::vector<std::function<void()>> bodies;
    for (const int32_t place : places)
        bodies.push_back([&, place] {
            const AtPlace own(place);
            for (int round = 0; round < kRaceRounds / 2; ++round) {
                counter.Raise(own);
                barrier.ArriveAndWait();
                Stagger(place == places.front() ? round : round / 40);
                counter.Lower(own);
                if (counter.IsZero()) ++saw_zero;
                barrier.ArriveAndWait();
                if (place == places.front()) wrong += saw_zero.exchange(0) == 0;
                barrier.ArriveAndWait();
            }
        });
    RunTogether(bodies);
    EXPECT_EQ(wrong, 0);
    EXPECT_TRUE(counter.IsZero());
}

TEST(SpreadCounter, OfThreadsThatLowerItToZeroOneAtLeastFindsItZero) {
    // The fence that lowering runs in the one kind must not be what it hangs on.
    for (const bool is_asymmetric : {false, true}) {
        AsymmetricFenceAccess::SetAsymmetric(is_asymmetric);
        LowerToZeroTogether({0, 1});
        LowerToZeroTogether({0, kCells});
        LowerToZeroTogether({0, 1, kCells});
    }
    AsymmetricFenceAccess::SetAsymmetric(false);
}

// One thread raises in a cell, the first one, and lowers in the shared one: who has not seen the
// cells must not see the lowering alone.
TEST(SpreadCounter, IsNotZeroBecauseItsCellsWereMadeInTheMiddleOfALook) {
    const AtPlace with_cell(0);
    const AtPlace without_cell(kCells);
    const AtPlace observer(kCells + 1);
    std::vector<Counter> counters(kRaceRounds);
    for (Counter& counter : counters) TakeOwnCells(counter);
    std::atomic<int> wrong{0};
    SpinBarrier barrier(2);
    RunTogether({[&] {
                     for (Counter& counter : counters) {
                         barrier.ArriveAndWait();
                         Stagger(static_cast<int>(&counter - counters.data()));
                         counter.Raise(with_cell);
                         counter.Lower(without_cell);
                     }
                 },
                 [&] {
                     for (Counter& counter : counters) {
                         counter.Raise(observer);
                         barrier.ArriveAndWait();
                         for (int look = 0; look < 10; ++look) wrong += counter.Value() < 1;
                     }
                 }});
    EXPECT_EQ(wrong, 0);
}

// The cells are made by whoever comes first, while the others count on.
TEST(SpreadCounter, LosesNothingWhileSeveralThreadsMakeItsCells) {
    constexpr int kThreads = 3;
    constexpr int kCounters = kRaceRounds / 10;
    const long blocks_before = LiveBlocks();
    {
        std::vector<Counter> counters(kCounters);
        for (Counter& counter : counters) TakeOwnCells(counter);
        std::vector<std::function<void()>> bodies;
        for (int32_t thread = 0; thread < kThreads; ++thread)
            bodies.push_back([&, thread] {
                const AtPlace own(thread);
                for (Counter& counter : counters) counter.Raise(own);
            });
        RunTogether(bodies);
        for (const Counter& counter : counters) ASSERT_EQ(counter.Value(), kThreads);
    }
    EXPECT_EQ(LiveBlocks(), blocks_before);
}

}  // namespace
