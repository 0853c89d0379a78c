#include "vessa2/RegistrationTable.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "support/Allocation.h"
#include "unit/ConfigItems.h"

namespace {

using vessa_test::AllocationFailure;
using vessa_test::ItemFields;
using vessa_test::LiveBlocks;
using Strings = std::vector<std::string>;

PluginConfigItem Item(const std::string& fkey, const std::string& list = "/list",
                      const std::string& path = "/p") {
    return ItemFields{fkey, path, true, false, list, {}}.Make();
}

PluginConfigList List(const Strings& fkeys) {
    PluginConfigList list;
    for (const std::string& fkey : fkeys) list.push_back(Item(fkey));
    return list;
}

class RegistrationTableTest : public testing::Test {
  protected:
    // The conflicts as "fkey path, stored path".
    Strings Enter(const PluginConfigList& list) {
        Strings conflicts;
        table_.Enter(list, [&](const PluginConfigItem& item, const PluginConfigItem& stored) {
            conflicts.push_back(item.fkey() + " " + item.file_path() + ", " + stored.file_path());
        });
        return conflicts;
    }
    Strings Pending() {
        Strings fkeys;
        RegistrationTable::Place place;
        while (table_.Next(place)) fkeys.push_back(place.item.fkey());
        return fkeys;
    }
    void Register(const std::string& fkey) {
        RegistrationTable::Place place;
        while (table_.Next(place)) {
            if (place.item.fkey() == fkey) table_.MarkRegistered(place);
        }
    }
    // "absent", "pending" or "registered" until now.
    std::string TakeOut(const PluginConfigItem& item) {
        PluginConfigItem taken;
        bool was_registered = false;
        if (!table_.TakeOut(item, taken, was_registered)) return "absent";
        EXPECT_EQ(CompareRegistrationKeys(taken, item), 0);
        return was_registered ? "registered" : "pending";
    }

    RegistrationTable table_;
};

TEST_F(RegistrationTableTest, WalksInTheOrderOfTheKeys) {
    Enter(List({"b", "a1", "aB", "a", "ab"}));
    EXPECT_EQ(Pending(), (Strings{"a1", "aB", "a", "ab", "b"}));
}

TEST_F(RegistrationTableTest, EveryEntryOfTheStateTable) {
    const PluginConfigItem item = Item("k");
    EXPECT_EQ(TakeOut(item), "absent");

    EXPECT_EQ(Enter(List({"k"})), Strings{});
    EXPECT_EQ(Pending(), (Strings{"k"}));
    EXPECT_EQ(Enter(List({"k"})).size(), 1u);
    EXPECT_EQ(TakeOut(item), "pending");
    EXPECT_EQ(TakeOut(item), "absent");
    EXPECT_EQ(Pending(), Strings{});
    EXPECT_EQ(table_.pending(), 0u);

    Enter(List({"k"}));
    Register("k");
    EXPECT_EQ(Pending(), Strings{});
    EXPECT_EQ(Enter(List({"k"})).size(), 1u);
    EXPECT_EQ(TakeOut(item), "registered");
    EXPECT_EQ(TakeOut(item), "absent");
}

TEST_F(RegistrationTableTest, ReportsConflictsInTheOrderOfTheListWithWhatIsThere) {
    PluginConfigList list;
    for (const char* const path : {"1", "2"}) list.push_back(Item("z", "/list", path));
    for (const char* const path : {"3", "4", "5"}) list.push_back(Item("a", "/list", path));
    list.push_back(Item("a", "/other", "6"));
    EXPECT_EQ(Enter(list), (Strings{"z 2, 1", "a 4, 3", "a 5, 3"}));
    EXPECT_EQ(Enter(list), (Strings{"z 1, 1", "z 2, 1", "a 3, 3", "a 4, 3", "a 5, 3", "a 6, 6"}));
    EXPECT_EQ(Pending(), (Strings{"a", "a", "z"}));
}

TEST_F(RegistrationTableTest, ARefusedRecordStaysAndIsWalkedAgain) {
    Enter(List({"a", "b", "c"}));
    Register("b");
    EXPECT_EQ(Pending(), (Strings{"a", "c"}));
    EXPECT_EQ(Pending(), (Strings{"a", "c"}));
    EXPECT_EQ(table_.pending(), 2u);
}

TEST_F(RegistrationTableTest, AWalkGoesOnBehindItsKeyWhateverIsChanged) {
    Enter(List({"b", "d", "f"}));
    RegistrationTable::Place place;
    ASSERT_TRUE(table_.Next(place));
    Enter(List({"a", "c"}));
    ASSERT_TRUE(table_.Next(place));
    EXPECT_EQ(place.item.fkey(), "c");
    TakeOut(Item("c"));
    TakeOut(Item("d"));
    table_.Tidy();
    ASSERT_TRUE(table_.Next(place));
    EXPECT_EQ(place.item.fkey(), "f");
    table_.TakeAll();
    table_.MarkRegistered(place);
    EXPECT_FALSE(table_.Next(place));
    EXPECT_EQ(table_.pending(), 0u);
}

TEST_F(RegistrationTableTest, WhatWasTakenOutIsNotMarked) {
    Enter(List({"a", "b"}));
    RegistrationTable::Place place;
    ASSERT_TRUE(table_.Next(place));
    TakeOut(Item("a"));
    table_.MarkRegistered(place);
    EXPECT_EQ(table_.pending(), 1u);
    EXPECT_EQ(TakeOut(Item("a")), "absent");
    // Come again, it is another record under the same key.
    Enter(List({"a"}));
    table_.MarkRegistered(place);
    EXPECT_EQ(TakeOut(Item("a")), "registered");
}

TEST_F(RegistrationTableTest, EntersAllOrNothingWhenMemoryRunsOut) {
    for (long nth = 1;; ++nth) {
        RegistrationTable table;
        const auto ignore = [](const PluginConfigItem&, const PluginConfigItem&) {};
        table.Enter(List({"m", "c"}), ignore);
        const PluginConfigList list = List({"x", "c", "a", "x"});
        const long before = LiveBlocks();
        bool refused = false;
        long failed = 0;
        {
            AllocationFailure failure(nth);
            try {
                table.Enter(list, ignore);
            } catch (const std::bad_alloc&) {
                refused = true;
            }
            failed = failure.Failed();
        }
        EXPECT_EQ(table.pending(), refused ? 2u : 4u) << nth;
        if (refused) {
            EXPECT_EQ(LiveBlocks(), before) << nth;
        }
        if (failed == 0) {
            EXPECT_GT(nth, 3);
            break;
        }
    }
}

TEST_F(RegistrationTableTest, TakesOutWithoutAnAllocation) {
    Enter(List({"a", "b", "c", "d"}));
    Register("b");
    const PluginConfigList list = List({"d", "a", "b", "x"});
    long allocations = -1;
    {
        AllocationFailure count(0);
        PluginConfigItem taken;
        bool was_registered = false;
        for (const PluginConfigItem& item : list) table_.TakeOut(item, taken, was_registered);
        table_.Tidy();
        const std::vector<RegistrationTable::Record> left = table_.TakeAll();
        allocations = count.Count();
    }
    EXPECT_EQ(allocations, 0);
}

// An ordered map of the records and an ordered set of the pending keys.
class Transcription {
  public:
    struct Record {
        PluginConfigItem item;
        bool registered = false;
    };

    static std::string Key(const PluginConfigItem& item) {
        return item.fkey() + "_" + item.config_file_path();
    }
    Strings Enter(const PluginConfigList& list) {
        Strings conflicts;
        for (const PluginConfigItem& item : list) {
            const auto [at, fresh] = records_.try_emplace(Key(item), Record{item, false});
            if (fresh)
                pending_.insert(Key(item));
            else
                conflicts.push_back(Key(item) + " " + item.file_path() + ", " +
                                    at->second.item.file_path());
        }
        return conflicts;
    }
    std::string TakeOut(const PluginConfigItem& item) {
        const auto found = records_.find(Key(item));
        if (found == records_.end()) return "absent";
        const std::string state = (found->second.registered ? "registered " : "pending ") +
                                  found->second.item.file_path();
        records_.erase(found);
        pending_.erase(Key(item));
        return state;
    }
    void MarkRegistered(const std::string& key) {
        const auto found = records_.find(key);
        if (found == records_.end()) return;
        found->second.registered = true;
        pending_.erase(key);
    }
    const std::map<std::string, Record>& records() const { return records_; }
    const std::set<std::string>& pending() const { return pending_; }

  private:
    std::map<std::string, Record> records_;
    std::set<std::string> pending_;
};

class Comparison {
  public:
    explicit Comparison(unsigned seed) : random_(seed) {}

    void Enter() {
        const PluginConfigList list = RandomList(8);
        Strings conflicts;
        table_.Enter(list, [&](const PluginConfigItem& item, const PluginConfigItem& stored) {
            conflicts.push_back(Transcription::Key(item) + " " + item.file_path() + ", " +
                                stored.file_path());
        });
        EXPECT_EQ(conflicts, plain_.Enter(list));
    }
    void TakeOut() {
        for (const PluginConfigItem& item : RandomList(4)) {
            PluginConfigItem taken;
            bool was_registered = false;
            std::string state = "absent";
            if (table_.TakeOut(item, taken, was_registered))
                state = (was_registered ? "registered " : "pending ") + taken.file_path();
            EXPECT_EQ(state, plain_.TakeOut(item));
        }
        if (random_() % 2 == 0) table_.Tidy();
    }
    // A round of registrations; some are refused, some change the table meanwhile.
    void Walk() {
        RegistrationTable::Place place;
        auto next = plain_.pending().begin();
        while (table_.Next(place)) {
            const std::string key = Transcription::Key(place.item);
            ASSERT_NE(next, plain_.pending().end());
            ASSERT_EQ(key, *next);
            if (random_() % 16 == 0) Enter();
            if (random_() % 16 == 0) TakeOut();
            if (random_() % 3 != 0) {
                table_.MarkRegistered(place);
                plain_.MarkRegistered(key);
            }
            next = plain_.pending().upper_bound(key);
        }
        ASSERT_EQ(next, plain_.pending().end());
        ASSERT_EQ(table_.pending(), plain_.pending().size());
    }
    void TakeAll() {
        Strings expected;
        for (const auto& [key, record] : plain_.records())
            expected.push_back(key + (record.registered ? " registered" : " pending"));
        Strings all;
        for (const RegistrationTable::Record& record : table_.TakeAll()) {
            if (record.state == RegistrationTable::Record::kGone) continue;
            const bool registered = record.state == RegistrationTable::Record::kRegistered;
            all.push_back(Transcription::Key(record.item) +
                          (registered ? " registered" : " pending"));
        }
        EXPECT_EQ(all, expected);
        plain_ = Transcription();
    }
    unsigned Random() { return static_cast<unsigned>(random_()); }

  private:
    // Keys that collide, in order or in none.
    PluginConfigList RandomList(size_t longest) {
        std::set<std::string> sorted;
        Strings fkeys;
        for (size_t count = random_() % (longest + 1); count > 0; --count) {
            std::string fkey = "k" + std::to_string(random_() % 30);
            if (random_() % 4 == 0) fkey += "_/a";
            fkeys.push_back(fkey);
            sorted.insert(fkey);
        }
        if (random_() % 2 == 0) fkeys.assign(sorted.begin(), sorted.end());
        PluginConfigList list;
        for (const std::string& fkey : fkeys)
            list.push_back(
                Item(fkey, random_() % 2 == 0 ? "/a" : "/a_/a", std::to_string(++made_)));
        return list;
    }

    std::mt19937 random_;
    RegistrationTable table_;
    Transcription plain_;
    int made_ = 0;
};

TEST(RegistrationTable, DoesWhatAMapAndASetDo) {
    for (unsigned seed = 0; seed < 300; ++seed) {
        SCOPED_TRACE(seed);
        Comparison comparison(seed);
        for (int step = 0; step < 60 && !testing::Test::HasFailure(); ++step) {
            switch (comparison.Random() % 16) {
                case 0:
                    comparison.TakeAll();
                    break;
                case 1:
                case 2:
                case 3:
                    comparison.TakeOut();
                    break;
                case 4:
                case 5:
                case 6:
                    comparison.Walk();
                    break;
                default:
                    comparison.Enter();
                    break;
            }
        }
        comparison.TakeAll();
    }
}

}  // namespace
