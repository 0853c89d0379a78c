#include "common/InstanceTable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <random>
#include <set>
#include <vector>

#include "support/Allocation.h"
#include "unit/SpinBarrier.h"

using vessa_test::AllocationFailure;
using vessa_test::LiveBlocks;
using vessa_test::RunTogether;
using vessa_test::SpinBarrier;

namespace {

using Found = InstanceTable::Found;
using Record = InstanceTable::Record;

// Emulators and sanitizers are some ten times slower: small enough for them.
constexpr int kRaceRounds = 10000;
constexpr int kRandomSteps = 60000;

// Never followed: the table knows pointers by their value alone.
void* Pointer(size_t number) {
    return reinterpret_cast<void*>(uintptr_t{0x10000} + 16 * number);
}
Record RecordOf(size_t number) {
    return reinterpret_cast<Record>(uintptr_t{0x1000} + 2 * number);
}

// The table's hash, transcribed to find pointers that meet in it.
uint64_t HashOf(const void* instance) {
    const uint64_t value = reinterpret_cast<uintptr_t>(instance) * 0x9E3779B97F4A7C15u;
    return value ^ (value >> 32);
}
size_t StripeOf(const void* instance) {
    return static_cast<size_t>(HashOf(instance) >> 58);
}

// Pointers of one stripe, each of which is at home in one of the homes of 64 slots; with fewer
// slots these are the homes modulo the number of slots.
std::vector<void*> Meeting(size_t count, const std::set<size_t>& homes, size_t stripe = 5) {
    std::vector<void*> pointers;
    for (size_t number = 0; pointers.size() < count; ++number) {
        void* const pointer = Pointer(number);
        if (StripeOf(pointer) == stripe && homes.count(HashOf(pointer) % 64) != 0)
            pointers.push_back(pointer);
    }
    return pointers;
}
const std::set<size_t> kAnyHome = [] {
    std::set<size_t> homes;
    for (size_t home = 0; home < 64; ++home) homes.insert(home);
    return homes;
}();

void Ignore(Record) {}

bool Has(const InstanceTable& table, void* pointer, Record record) {
    const Found found = table.Find(pointer);
    return found.is_there && found.record == record;
}

class InstanceTableCells : public testing::Test {
  protected:
    void MakeHeld() {
        ASSERT_TRUE(table.Insert(pointer, record));
        Record held = nullptr;
        bool was_held = true;
        ASSERT_TRUE(table.Hold(pointer, held, was_held));
        EXPECT_EQ(held, record);
        EXPECT_FALSE(was_held);
    }
    bool IsHeld() {
        Record held = nullptr;
        bool was_held = false;
        const bool is_there = table.Hold(pointer, held, was_held);
        EXPECT_TRUE(is_there);
        if (!was_held) {
            EXPECT_TRUE(table.LetGo(pointer));
        }
        return was_held;
    }

    InstanceTable table;
    void* const pointer = Pointer(1);
    const Record record = RecordOf(1);
};

TEST_F(InstanceTableCells, AnAbsentEntryIsNeitherFoundTakenHeldNorLetGo) {
    int uses = 0;
    const auto count = [&](Record) { ++uses; };
    for (int round = 0; round < 2; ++round) {
        EXPECT_FALSE(table.Find(pointer).is_there);
        EXPECT_EQ(table.Take(pointer, false, count), InstanceTable::kAbsent);
        EXPECT_EQ(table.Take(pointer, true, count), InstanceTable::kAbsent);
        EXPECT_FALSE(table.WithEntry(pointer, count));
        Record held = nullptr;
        bool was_held = false;
        EXPECT_FALSE(table.Hold(pointer, held, was_held));
        EXPECT_FALSE(table.LetGo(pointer));
        EXPECT_EQ(table.Size(), 0u);
        // The second time with slots, which an empty table has not.
        ASSERT_TRUE(table.Insert(pointer, record));
        ASSERT_EQ(table.Take(pointer, false, Ignore), InstanceTable::kTaken);
    }
    EXPECT_EQ(uses, 0);
}

TEST_F(InstanceTableCells, InsertEntersAnAbsentEntryAndRefusesAPresentOne) {
    EXPECT_TRUE(table.Insert(pointer, record));
    EXPECT_TRUE(Has(table, pointer, record));
    EXPECT_FALSE(table.Insert(pointer, RecordOf(2)));
    EXPECT_TRUE(Has(table, pointer, record));
    EXPECT_FALSE(IsHeld());
    EXPECT_EQ(table.Size(), 1u);
}

TEST_F(InstanceTableCells, InsertRefusesAHeldEntryAndLeavesItHeld) {
    MakeHeld();
    EXPECT_FALSE(table.Insert(pointer, RecordOf(2)));
    EXPECT_TRUE(Has(table, pointer, record));
    EXPECT_TRUE(IsHeld());
}

TEST_F(InstanceTableCells, TakeTakesAPlainEntryOnceAndTellsItsRecord) {
    for (const bool even_if_held : {false, true}) {
        ASSERT_TRUE(table.Insert(pointer, record));
        Record told = nullptr;
        const auto tell = [&](Record taken) { told = taken; };
        EXPECT_EQ(table.Take(pointer, even_if_held, tell), InstanceTable::kTaken);
        EXPECT_EQ(told, record);
        EXPECT_FALSE(table.Find(pointer).is_there);
        EXPECT_EQ(table.Take(pointer, even_if_held, tell), InstanceTable::kAbsent);
        EXPECT_EQ(table.Size(), 0u);
    }
}

TEST_F(InstanceTableCells, TakeRefusesAHeldEntryUnlessItIsToldSo) {
    MakeHeld();
    Record told = nullptr;
    const auto tell = [&](Record taken) { told = taken; };
    EXPECT_EQ(table.Take(pointer, false, tell), InstanceTable::kHeld);
    EXPECT_EQ(told, nullptr);
    EXPECT_TRUE(Has(table, pointer, record));
    EXPECT_TRUE(IsHeld());
    EXPECT_EQ(table.Take(pointer, true, tell), InstanceTable::kTaken);
    EXPECT_EQ(told, record);
    EXPECT_FALSE(table.Find(pointer).is_there);
}

TEST_F(InstanceTableCells, ANewEntryOfATakenHeldPointerIsPlain) {
    MakeHeld();
    ASSERT_EQ(table.Take(pointer, true, Ignore), InstanceTable::kTaken);
    ASSERT_TRUE(table.Insert(pointer, RecordOf(2)));
    EXPECT_FALSE(IsHeld());
    EXPECT_EQ(table.Take(pointer, false, Ignore), InstanceTable::kTaken);
}

TEST_F(InstanceTableCells, HoldHoldsAndTellsOfAHoldBeforeIt) {
    MakeHeld();
    Record held = nullptr;
    bool was_held = false;
    EXPECT_TRUE(table.Hold(pointer, held, was_held));
    EXPECT_TRUE(was_held);
    EXPECT_EQ(held, record);
    EXPECT_TRUE(Has(table, pointer, record));
}

TEST_F(InstanceTableCells, LetGoMakesAnEntryPlainWhateverItWas) {
    MakeHeld();
    EXPECT_TRUE(table.LetGo(pointer));
    EXPECT_FALSE(IsHeld());
    EXPECT_TRUE(table.LetGo(pointer));
    EXPECT_FALSE(IsHeld());
    EXPECT_TRUE(Has(table, pointer, record));
}

TEST_F(InstanceTableCells, WithEntryTellsTheRecordOfPlainAndHeldEntriesAndLeavesThem) {
    ASSERT_TRUE(table.Insert(pointer, record));
    Record told = nullptr;
    const auto tell = [&](Record there) { told = there; };
    EXPECT_TRUE(table.WithEntry(pointer, tell));
    EXPECT_EQ(told, record);
    EXPECT_FALSE(IsHeld());
    bool was_held = true;
    ASSERT_TRUE(table.Hold(pointer, told, was_held));
    told = nullptr;
    EXPECT_TRUE(table.WithEntry(pointer, tell));
    EXPECT_EQ(told, record);
    EXPECT_TRUE(IsHeld());
}

TEST_F(InstanceTableCells, ANullRecordIsAnEntryLikeOthers) {
    ASSERT_TRUE(table.Insert(pointer, nullptr));
    EXPECT_TRUE(Has(table, pointer, nullptr));
    EXPECT_FALSE(table.Insert(pointer, record));
    Record told = record;
    bool was_held = true;
    EXPECT_TRUE(table.Hold(pointer, told, was_held));
    EXPECT_EQ(told, nullptr);
    EXPECT_FALSE(was_held);
    EXPECT_TRUE(Has(table, pointer, nullptr));
    EXPECT_TRUE(IsHeld());
}

TEST_F(InstanceTableCells, WhatWasFoundIsCurrentUntilItsEntryChanges) {
    const Found none = table.Find(pointer);
    EXPECT_TRUE(InstanceTable::IsCurrent(none));
    ASSERT_TRUE(table.Insert(pointer, record));
    EXPECT_FALSE(InstanceTable::IsCurrent(none));

    const Found found = table.Find(pointer);
    EXPECT_TRUE(InstanceTable::IsCurrent(found));
    EXPECT_TRUE(InstanceTable::IsCurrent(table.Find(pointer)));
    ASSERT_EQ(table.Take(pointer, false, Ignore), InstanceTable::kTaken);
    EXPECT_FALSE(InstanceTable::IsCurrent(found));
    ASSERT_TRUE(table.Insert(pointer, record));
    EXPECT_FALSE(InstanceTable::IsCurrent(found));
}

TEST_F(InstanceTableCells, AChangeInAnotherStripeLeavesWhatWasFoundCurrent) {
    ASSERT_TRUE(table.Insert(pointer, record));
    const Found found = table.Find(pointer);
    for (void* const other : Meeting(40, kAnyHome, (StripeOf(pointer) + 1) % 64))
        ASSERT_TRUE(table.Insert(other, record));
    EXPECT_TRUE(InstanceTable::IsCurrent(found));
}

// Otherwise the tests below would look for pointers that meet and find some that do not.
TEST(InstanceTable, HasTheStripesThatTheseTestsSuppose) {
    InstanceTable table;
    std::map<size_t, const void*> stripes;
    std::set<const void*> different;
    for (size_t number = 0; number < 4000; ++number) {
        const Found found = table.Find(Pointer(number));
        const auto [known, is_new] = stripes.emplace(StripeOf(Pointer(number)), found.stripe);
        EXPECT_EQ(known->second, found.stripe);
        different.insert(found.stripe);
    }
    EXPECT_EQ(stripes.size(), 64u);
    EXPECT_EQ(different.size(), 64u);
}

// Six entries are what the first eight slots take. Each order of removal closes gaps in its own
// way, across the end of the slots too.
TEST(InstanceTable, FindsTheOthersAfterEachRemovalInEveryOrder) {
    const std::set<size_t> neighbourhoods[] = {{7}, {0}, {6, 7, 0}, {5, 6, 7}, {3, 4}, {7, 0, 2}};
    std::mt19937 random(1);
    for (const std::set<size_t>& homes : neighbourhoods) {
        std::vector<void*> pointers = Meeting(6, homes);
        std::vector<size_t> order = {0, 1, 2, 3, 4, 5};
        do {
            InstanceTable table;
            std::shuffle(pointers.begin(), pointers.end(), random);
            for (size_t i = 0; i < 6; ++i) ASSERT_TRUE(table.Insert(pointers[i], RecordOf(i)));
            for (size_t removed = 0; removed < 6; ++removed) {
                ASSERT_EQ(table.Take(pointers[order[removed]], false, Ignore),
                          InstanceTable::kTaken);
                for (size_t i = 0; i < 6; ++i) {
                    const bool is_left = i > removed;
                    const Found found = table.Find(pointers[order[i]]);
                    ASSERT_EQ(found.is_there, is_left);
                    if (is_left) {
                        ASSERT_EQ(found.record, RecordOf(order[i]));
                    }
                }
            }
            ASSERT_EQ(table.Size(), 0u);
        } while (std::next_permutation(order.begin(), order.end()));
    }
}

// A plain transcription of what the table is to do.
class Oracle {
  public:
    Oracle(const std::vector<void*>& pointers, unsigned seed)
        : pointers_(pointers), random_(seed) {}

    void Step() {
        void* const pointer = pointers_[random_() % pointers_.size()];
        const auto known = entries_.find(pointer);
        const bool is_there = known != entries_.end();
        const Record record = is_there ? known->second.record : nullptr;
        const bool is_held = is_there && known->second.is_held;
        switch (random_() % 12) {
            case 0:
            case 1:
            case 2:
            case 3:
                return Insert(pointer, is_there);
            case 4:
            case 5:
            case 6:
                return Take(pointer, is_there, record, is_held);
            case 7:
                return Hold(pointer, is_there, record, is_held);
            case 8:
                ASSERT_EQ(table_.LetGo(pointer), is_there);
                if (is_there) known->second.is_held = false;
                return;
            case 9: {
                Record told = nullptr;
                ASSERT_EQ(table_.WithEntry(pointer, [&](Record there) { told = there; }), is_there);
                ASSERT_EQ(told, record);
                return;
            }
            default:
                ASSERT_NO_FATAL_FAILURE(Compare(pointer));
        }
    }

    void CompareAll() {
        ASSERT_EQ(table_.Size(), entries_.size());
        for (void* const pointer : pointers_) ASSERT_NO_FATAL_FAILURE(Compare(pointer));
    }

  private:
    struct Entry {
        Record record;
        bool is_held;
    };

    void Insert(void* pointer, bool is_there) {
        const Record fresh = RecordOf(random_() % 1000);
        ASSERT_EQ(table_.Insert(pointer, fresh), !is_there);
        if (!is_there) entries_[pointer] = Entry{fresh, false};
    }
    void Take(void* pointer, bool is_there, Record record, bool is_held) {
        const bool even_if_held = random_() % 4 == 0;
        Record told = nullptr;
        const InstanceTable::Taken taken =
            table_.Take(pointer, even_if_held, [&](Record there) { told = there; });
        if (!is_there) {
            ASSERT_EQ(taken, InstanceTable::kAbsent);
        } else if (is_held && !even_if_held) {
            ASSERT_EQ(taken, InstanceTable::kHeld);
        } else {
            ASSERT_EQ(taken, InstanceTable::kTaken);
            ASSERT_EQ(told, record);
            entries_.erase(pointer);
        }
    }
    void Hold(void* pointer, bool is_there, Record record, bool is_held) {
        Record told = nullptr;
        bool was_held = false;
        ASSERT_EQ(table_.Hold(pointer, told, was_held), is_there);
        if (!is_there) return;
        ASSERT_EQ(told, record);
        ASSERT_EQ(was_held, is_held);
        entries_[pointer].is_held = true;
    }
    void Compare(void* pointer) {
        const auto known = entries_.find(pointer);
        const Found found = table_.Find(pointer);
        ASSERT_EQ(found.is_there, known != entries_.end());
        if (found.is_there) {
            ASSERT_EQ(found.record, known->second.record);
        }
        ASSERT_TRUE(InstanceTable::IsCurrent(found));
    }

    const std::vector<void*> pointers_;
    std::mt19937 random_;
    InstanceTable table_;
    std::map<void*, Entry> entries_;
};

void CompareWithOracle(const std::vector<void*>& pointers, unsigned seed) {
    Oracle oracle(pointers, seed);
    for (int step = 0; step < kRandomSteps; ++step) {
        ASSERT_NO_FATAL_FAILURE(oracle.Step()) << "step " << step << ", seed " << seed;
        if (step % 1000 == 0) {
            ASSERT_NO_FATAL_FAILURE(oracle.CompareAll()) << "step " << step << ", seed " << seed;
        }
    }
    ASSERT_NO_FATAL_FAILURE(oracle.CompareAll());
}

TEST(InstanceTable, DoesWhatAMapDoesWithPointersOfAllStripes) {
    std::vector<void*> pointers;
    for (size_t number = 0; number < 1500; ++number) pointers.push_back(Pointer(number * 7));
    CompareWithOracle(pointers, 1);
}

TEST(InstanceTable, DoesWhatAMapDoesWithPointersOfOneStripe) {
    CompareWithOracle(Meeting(9, kAnyHome), 2);
    CompareWithOracle(Meeting(100, kAnyHome), 3);
}

TEST(InstanceTable, DoesWhatAMapDoesWithPointersThatAllMeetAtTheEndOfTheSlots) {
    CompareWithOracle(Meeting(9, {63}), 4);
    CompareWithOracle(Meeting(40, {62, 63, 0}), 5);
}

TEST(InstanceTable, KeepsEveryEntryWhileItGrows) {
    InstanceTable table;
    const std::vector<void*> pointers = Meeting(500, kAnyHome);
    Record held = nullptr;
    bool was_held = true;
    for (size_t i = 0; i < pointers.size(); ++i) {
        ASSERT_TRUE(table.Insert(pointers[i], RecordOf(i)));
        if (i % 3 == 0) {
            ASSERT_TRUE(table.Hold(pointers[i], held, was_held));
        }
        for (size_t known = 0; known <= i; ++known)
            ASSERT_TRUE(Has(table, pointers[known], RecordOf(known))) << known << " of " << i;
        ASSERT_EQ(table.Size(), i + 1);
    }
    for (size_t i = 0; i < pointers.size(); ++i) {
        const auto expected = i % 3 == 0 ? InstanceTable::kHeld : InstanceTable::kTaken;
        EXPECT_EQ(table.Take(pointers[i], false, Ignore), expected) << i;
    }
}

TEST(InstanceTable, AFailingGrowthLeavesItAsItWasAndTheNextTryWorks) {
    const std::vector<void*> pointers = Meeting(25, kAnyHome);
    const long blocks_before = LiveBlocks();
    // So many that the next one needs more slots: none yet, eight, sixteen, thirty-two.
    for (const size_t full : {size_t{0}, size_t{6}, size_t{12}, size_t{24}}) {
        long failures = 0;
        for (long nth = 1;; ++nth) {
            InstanceTable table;
            for (size_t i = 0; i < full; ++i) ASSERT_TRUE(table.Insert(pointers[i], RecordOf(i)));
            const long blocks = LiveBlocks();
            bool threw = false;
            long failed = 0;
            {
                AllocationFailure failure(nth);
                try {
                    static_cast<void>(table.Insert(pointers[full], RecordOf(full)));
                } catch (const std::bad_alloc&) {
                    threw = true;
                }
                failed = failure.Failed();
            }
            EXPECT_EQ(threw, failed != 0);
            if (failed == 0) break;
            ++failures;
            EXPECT_EQ(LiveBlocks(), blocks);
            EXPECT_EQ(table.Size(), full);
            EXPECT_FALSE(table.Find(pointers[full]).is_there);
            for (size_t i = 0; i < full; ++i) EXPECT_TRUE(Has(table, pointers[i], RecordOf(i)));
            EXPECT_TRUE(table.Insert(pointers[full], RecordOf(full)));
            EXPECT_TRUE(Has(table, pointers[full], RecordOf(full)));
        }
        EXPECT_GT(failures, 0) << "no growth after " << full;
    }
    EXPECT_EQ(LiveBlocks(), blocks_before);
}

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
        for (int round = 0; round < kRaceRounds / 2; ++round) {
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
