#include "common/InstanceTable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <new>
#include <random>
#include <set>
#include <vector>

#include "support/Allocation.h"
#include "unit/InstanceTablePointers.h"

namespace vessa_test {
namespace {

// Emulators and sanitizers are some ten times slower: small enough for them.
constexpr int kRandomSteps = 60000;

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

}  // namespace
}  // namespace vessa_test
