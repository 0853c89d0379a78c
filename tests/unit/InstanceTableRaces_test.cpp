// The table of instances under several threads, all in one stripe.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "common/InstanceTable.h"
#include "unit/InstanceTablePointers.h"
#include "unit/SpinBarrier.h"

namespace vessa_test {
namespace {

// Emulators and sanitizers are some ten times slower: small enough for them.
constexpr int kRaceRounds = 10000;

using Bodies = std::vector<std::function<void()>>;

class InstanceTableRaces : public testing::Test {
  protected:
    std::atomic<int> wrong{0};
    InstanceTable table;
};

TEST_F(InstanceTableRaces, OfSeveralInsertsAndOfSeveralTakesExactlyOneWins) {
    constexpr size_t kThreads = 3;
    constexpr size_t kPointers = 10;
    constexpr int kRounds = kRaceRounds / 10;
    const std::vector<void*> pointers = Meeting(kPointers, {60, 63, 1});
    std::atomic<int> entered{0};
    std::atomic<int> taken{0};
    SpinBarrier barrier(static_cast<int>(kThreads));
    Bodies bodies;
    for (size_t thread = 0; thread < kThreads; ++thread)
        bodies.push_back([&, thread] {
            for (int round = 0; round < kRounds; ++round) {
                barrier.ArriveAndWait();
                for (size_t i = 0; i < kPointers; ++i)
                    entered += table.Insert(pointers[(i + thread) % kPointers], RecordOf(1));
                barrier.ArriveAndWait();
                for (size_t i = 0; i < kPointers; ++i)
                    taken += table.Take(pointers[(i * 3 + thread) % kPointers], false, Ignore) ==
                             InstanceTable::kTaken;
            }
        });
    RunTogether(bodies);
    EXPECT_EQ(entered, kRounds * static_cast<int>(kPointers));
    EXPECT_EQ(taken, kRounds * static_cast<int>(kPointers));
    EXPECT_EQ(table.Size(), 0u);
}

// Entries with one home: those in front come and go, so that the ones behind are moved all the
// time. A place at the end of the row is new at each coming, so also for those that are looked for.
TEST_F(InstanceTableRaces, FindNeverMissesAnEntryThatStaysAndNeverFindsOneThatWasNotThere) {
    constexpr size_t kComing = 12;
    constexpr size_t kLookedFor = 3;
    const std::vector<void*> all = Meeting(kComing + 2 * kLookedFor + 1, {63});
    std::atomic<int> finders{2};
    const auto find = [&](size_t first) {
        for (int round = 0; round < 4 * kRaceRounds; ++round) {
            for (size_t i = first; i < first + kLookedFor; ++i)
                wrong += !table.Insert(all[i], RecordOf(i));
            for (int look = 0; look < 4; ++look)
                for (size_t i = first; i < first + kLookedFor; ++i)
                    wrong += !Has(table, all[i], RecordOf(i));
            for (size_t i = first; i < first + kLookedFor; ++i)
                wrong += table.Take(all[i], false, Ignore) != InstanceTable::kTaken;
            wrong += table.Find(all[first]).is_there;
            wrong += table.Find(all.back()).is_there;
        }
        --finders;
    };
    RunTogether({[&] { find(kComing); }, [&] { find(kComing + kLookedFor); },
                 [&] {
                     while (finders > 0) {
                         for (size_t i = 0; i < kComing; ++i)
                             wrong += !table.Insert(all[i], RecordOf(i));
                         for (size_t i = 0; i < kComing; ++i)
                             wrong += table.Take(all[i], false, Ignore) != InstanceTable::kTaken;
                     }
                 }});
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(table.Size(), 0u);
}

// Each of them may find the stripe full and double its slots.
TEST_F(InstanceTableRaces, NothingIsLostWhileSeveralThreadsMakeTheTableGrow) {
    constexpr size_t kThreads = 3;
    constexpr size_t kEach = 9;
    constexpr int kRounds = kRaceRounds / 10;
    const std::vector<void*> pointers = Meeting(kThreads * kEach, kAnyHome);
    std::vector<std::unique_ptr<InstanceTable>> tables;
    for (int round = 0; round < kRounds; ++round)
        tables.push_back(std::make_unique<InstanceTable>());
    SpinBarrier barrier(static_cast<int>(kThreads));
    Bodies bodies;
    for (size_t thread = 0; thread < kThreads; ++thread)
        bodies.push_back([&, first = thread * kEach] {
            for (const auto& fresh : tables) {
                barrier.ArriveAndWait();
                for (size_t i = first; i < first + kEach; ++i)
                    wrong += !fresh->Insert(pointers[i], RecordOf(i));
            }
        });
    RunTogether(bodies);
    EXPECT_EQ(wrong, 0);
    for (const auto& grown : tables) {
        ASSERT_EQ(grown->Size(), pointers.size());
        for (size_t i = 0; i < pointers.size(); ++i)
            ASSERT_TRUE(Has(*grown, pointers[i], RecordOf(i)));
    }
}

// Each generation of the entry has a record of its own, by which its finder tells it.
TEST_F(InstanceTableRaces, WhatIsCurrentHasNotBeenTaken) {
    const std::vector<void*> pointers = Meeting(2, {63});
    std::atomic<size_t> last_taken{0};
    std::atomic<bool> done{false};
    std::atomic<int> found_times{0};
    RunTogether({[&] {
                     for (size_t generation = 1; generation < 3 * kRaceRounds; ++generation) {
                         wrong += !table.Insert(pointers[0], RecordOf(generation));
                         wrong += table.Take(pointers[0], false, Ignore) != InstanceTable::kTaken;
                         last_taken = generation;
                     }
                     done = true;
                 },
                 [&] {
                     do {
                         const Found found = table.Find(pointers[0]);
                         const size_t taken = last_taken;
                         if (!found.is_there) continue;
                         ++found_times;
                         if (found.record <= RecordOf(taken))
                             wrong += InstanceTable::IsCurrent(found);
                     } while (!done || found_times == 0);
                 },
                 [&] {
                     while (!done) {
                         wrong += !table.Insert(pointers[1], RecordOf(0));
                         wrong += table.Take(pointers[1], false, Ignore) != InstanceTable::kTaken;
                     }
                     // For a finder that has come too late for all generations.
                     wrong += !table.Insert(pointers[0], RecordOf(4 * kRaceRounds));
                 }});
    EXPECT_EQ(wrong, 0);
}

TEST_F(InstanceTableRaces, AHeldEntryStaysWhileOthersTryToTakeIt) {
    void* const pointer = Meeting(1, {63}).front();
    std::atomic<bool> done{false};
    const auto take = [&] {
        while (!done) static_cast<void>(table.Take(pointer, false, Ignore));
    };
    RunTogether({[&] {
                     for (int round = 0; round < kRaceRounds; ++round) {
                         static_cast<void>(table.Insert(pointer, RecordOf(1)));
                         Record record = nullptr;
                         bool was_held = false;
                         if (!table.Hold(pointer, record, was_held)) continue;
                         wrong += was_held || record != RecordOf(1);
                         for (int look = 0; look < 5; ++look)
                             wrong += !Has(table, pointer, RecordOf(1));
                         wrong += !table.LetGo(pointer);
                     }
                     done = true;
                 },
                 take, take});
    EXPECT_EQ(wrong, 0);
}

// The function runs with its stripe to itself: what it counts is not atomic.
TEST_F(InstanceTableRaces, WhatIsGivenToWithEntryAndTakeRunsAlone) {
    constexpr int kThreads = 3;
    struct Counted {
        int uses = 0;
    } counted;
    const std::vector<void*> pointers = Meeting(kThreads + 1, {63});
    ASSERT_TRUE(table.Insert(pointers[0], &counted));
    const auto use = [](Record record) { ++static_cast<Counted*>(record)->uses; };
    Bodies bodies;
    for (size_t thread = 0; thread < kThreads; ++thread)
        bodies.push_back([&, own = pointers[thread + 1]] {
            for (int round = 0; round < kRaceRounds; ++round) {
                wrong += !table.WithEntry(pointers[0], use);
                wrong += !table.Insert(own, &counted);
                wrong += table.Take(own, false, use) != InstanceTable::kTaken;
            }
        });
    RunTogether(bodies);
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(counted.uses, 2 * kThreads * kRaceRounds);
}

}  // namespace
}  // namespace vessa_test
