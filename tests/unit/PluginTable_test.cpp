#include "vessa2/PluginTable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "support/Allocation.h"

namespace vessa_test {
namespace {

using Visits = std::vector<std::pair<std::string, const PluginRecord*>>;

std::unique_ptr<PluginRecord> NewRecord(const std::string& fkey, const std::string& filename) {
    return std::make_unique<PluginRecord>(fkey, "/p/" + filename, filename, true);
}

// The table, and beside it a plain map of what it is to hold, null without a record.
class PluginTableTest : public testing::Test {
  protected:
    PluginRecord* Add(const std::string& fkey, const std::string& filename) {
        PluginRecord* const record = NewRecord(fkey, filename).release();
        table.Add(record);
        entries[fkey] = record;
        return record;
    }
    void AddWithoutRecord(const std::string& fkey) {
        table.AddWithoutRecord(fkey);
        entries[fkey] = nullptr;
    }
    void Take(const std::string& fkey) {
        PluginRecord* const record = entries.at(fkey);
        table.Take(record);
        delete record;
        entries.erase(fkey);
    }

    // What is to be visited: of all entries in key order those that have the key, or no record,
    // or the file name.
    Visits Expected(const std::string& fkey, const std::string& filename) const {
        Visits expected;
        for (const auto& [key, record] : entries)
            if (key == fkey || record == nullptr || record->filename() == filename)
                expected.emplace_back(key, record);
        return expected;
    }
    Visits Visited(const std::string& fkey, const std::string& filename) {
        Visits visited;
        const int result =
            table.VisitInKeyOrder(fkey, filename, [&](TextRef key, const PluginRecord* record) {
                visited.emplace_back(key.view(), record);
                return 0;
            });
        EXPECT_EQ(result, 0);
        return visited;
    }
    void CompareVisit(const std::string& fkey, const std::string& filename) {
        ASSERT_EQ(Visited(fkey, filename), Expected(fkey, filename)) << fkey << ", " << filename;
    }

    PluginTable table;
    std::map<std::string, PluginRecord*> entries;
};

TEST_F(PluginTableTest, HasNothingAtTheBeginning) {
    EXPECT_TRUE(table.IsEmpty());
    EXPECT_EQ(table.Records(), 0u);
    EXPECT_EQ(table.FileNames(), 0u);
    EXPECT_EQ(table.Find("k"), nullptr);
    EXPECT_EQ(table.AnyWithFileName("x"), nullptr);
    EXPECT_FALSE(table.HasEntryWithoutRecord("k"));
    EXPECT_FALSE(table.HasEntriesWithoutRecord());
    CompareVisit("k", "x");
}

TEST_F(PluginTableTest, FindsARecordByItsKeyAndByItsFileNameUntilItIsTaken) {
    PluginRecord* const record = Add("k", "x");
    EXPECT_FALSE(table.IsEmpty());
    EXPECT_EQ(table.Find("k"), record);
    EXPECT_EQ(table.Find("x"), nullptr);
    EXPECT_EQ(table.AnyWithFileName("x"), record);
    EXPECT_EQ(table.AnyWithFileName("k"), nullptr);
    EXPECT_EQ(table.Records(), 1u);
    EXPECT_EQ(table.FileNames(), 1u);
    Take("k");
    EXPECT_TRUE(table.IsEmpty());
    EXPECT_EQ(table.Find("k"), nullptr);
    EXPECT_EQ(table.AnyWithFileName("x"), nullptr);
    EXPECT_EQ(table.FileNames(), 0u);
}

TEST_F(PluginTableTest, KeepsAFileNameAsLongAsOneRecordHasIt) {
    Add("a", "x");
    Add("b", "x");
    Add("c", "y");
    EXPECT_EQ(table.FileNames(), 2u);
    Take("a");
    EXPECT_EQ(table.AnyWithFileName("x"), entries.at("b"));
    EXPECT_EQ(table.FileNames(), 2u);
    Take("b");
    EXPECT_EQ(table.AnyWithFileName("x"), nullptr);
    EXPECT_EQ(table.AnyWithFileName("y"), entries.at("c"));
    EXPECT_EQ(table.FileNames(), 1u);
}

TEST_F(PluginTableTest, KeepsEntriesWithoutARecordApart) {
    AddWithoutRecord("b");
    EXPECT_FALSE(table.IsEmpty());
    EXPECT_TRUE(table.HasEntriesWithoutRecord());
    EXPECT_TRUE(table.HasEntryWithoutRecord("b"));
    EXPECT_FALSE(table.HasEntryWithoutRecord("a"));
    EXPECT_EQ(table.Find("b"), nullptr);
    EXPECT_EQ(table.Records(), 0u);
    table.EraseWithoutRecord("a");
    EXPECT_TRUE(table.HasEntryWithoutRecord("b"));
    table.EraseWithoutRecord("b");
    EXPECT_FALSE(table.HasEntryWithoutRecord("b"));
    EXPECT_TRUE(table.IsEmpty());
}

TEST_F(PluginTableTest, TakesTheFileNameOfItsNormalFormWhateverThePathEndsWith) {
    PluginRecord plain("a", "/p/x", "x", true);
    PluginRecord slash("b", "/p/x/", "x", true);
    PluginRecord whole("c", "x", "x", true);
    EXPECT_EQ(plain.filename(), "x");
    EXPECT_EQ(slash.filename(), "x");
    EXPECT_EQ(whole.filename(), "x");
    table.Add(&plain);
    table.Add(&slash);
    table.Add(&whole);
    EXPECT_EQ(table.FileNames(), 1u);
    table.Take(&plain);
    table.Take(&slash);
    table.Take(&whole);
}

TEST_F(PluginTableTest, VisitsInKeyOrderWhateverTheOrderOfAdding) {
    for (const char* const fkey : {"m", "b", "z", "a", "aa", "Z", "\xc3\xa9", "n"}) Add(fkey, "x");
    Add("c", "y");
    AddWithoutRecord("l");
    AddWithoutRecord("0");
    // Own keys with the file name and without it, before and behind all others, and unknown ones.
    for (const char* const fkey : {"m", "a", "Z", "\xc3\xa9", "c", "0", "l", "k", "~"})
        for (const char* const filename : {"x", "y", "none"}) CompareVisit(fkey, filename);
}

TEST_F(PluginTableTest, StaysInOrderThroughAddsBehindAFormerSort) {
    Add("b", "x");
    Add("a", "x");
    CompareVisit("k", "x");
    Add("c", "x");
    CompareVisit("k", "x");
    Add("B", "x");
    Add("d", "x");
    CompareVisit("k", "x");
    Take("d");
    Add("bb", "x");
    CompareVisit("k", "x");
    Take("B");
    Take("b");
    CompareVisit("k", "x");
}

TEST_F(PluginTableTest, EndsTheVisitWithTheFirstResultOtherThanZero) {
    for (const char* const fkey : {"d", "a", "c"}) Add(fkey, "x");
    AddWithoutRecord("b");
    const Visits all = Expected("d", "x");
    ASSERT_EQ(all.size(), 4u);
    for (size_t last = 0; last < all.size(); ++last) {
        Visits visited;
        const int result =
            table.VisitInKeyOrder("d", "x", [&](TextRef key, const PluginRecord* record) {
                visited.emplace_back(key.view(), record);
                return visited.size() == last + 1 ? -7 : 0;
            });
        EXPECT_EQ(result, -7);
        EXPECT_EQ(visited, Visits(all.begin(), all.begin() + static_cast<long>(last) + 1));
    }
}

TEST_F(PluginTableTest, VisitsWhatAMapDoesAfterAddsAndTakesInRandomOrder) {
    std::mt19937 random(1);
    const auto filename = [&] { return std::string(1, static_cast<char>('x' + random() % 3)); };
    const auto fkey = [&] { return std::to_string(random() % 60); };
    for (int step = 0; step < 10000; ++step) {
        const std::string key = fkey();
        const auto known = entries.find(key);
        if (known == entries.end()) {
            if (random() % 20 == 0)
                AddWithoutRecord(key);
            else
                Add(key, filename());
        } else if (known->second != nullptr) {
            Take(key);
        } else {
            table.EraseWithoutRecord(key);
            entries.erase(key);
        }
        const std::string asked = fkey();
        ASSERT_NO_FATAL_FAILURE(CompareVisit(asked, filename())) << "step " << step;
        const auto expected = entries.find(asked);
        PluginRecord* const record = expected != entries.end() ? expected->second : nullptr;
        ASSERT_EQ(table.Find(asked), record);
        ASSERT_EQ(table.HasEntryWithoutRecord(asked),
                  expected != entries.end() && record == nullptr);
        ASSERT_EQ(table.IsEmpty(), entries.empty());
    }
}

TEST_F(PluginTableTest, AFailingAddLeavesItAsItWasAndTheRecordWithTheCaller) {
    // So many that the keys, the file names, both or none of them need more room.
    for (const int full : {0, 5, 12, 13, 24}) {
        for (const char* const filename : {"x", "fresh"}) {
            for (long nth = 1;; ++nth) {
                PluginTable own;
                for (int i = 0; i < full; ++i)
                    own.Add(
                        NewRecord(std::to_string(i), i % 2 ? "x" : std::to_string(i)).release());
                const size_t names = own.FileNames();
                const PluginRecord* const with_name = own.AnyWithFileName(filename);
                std::unique_ptr<PluginRecord> record = NewRecord("new", filename);
                const long blocks = LiveBlocks();
                bool threw = false;
                long failed = 0;
                {
                    AllocationFailure failure(nth);
                    try {
                        own.Add(record.get());
                    } catch (const std::bad_alloc&) {
                        threw = true;
                    }
                    failed = failure.Failed();
                }
                ASSERT_EQ(threw, failed != 0);
                if (failed == 0) {
                    EXPECT_EQ(own.Find("new"), record.release());
                    break;
                }
                EXPECT_EQ(own.Records(), static_cast<size_t>(full));
                EXPECT_EQ(own.FileNames(), names);
                EXPECT_EQ(own.Find("new"), nullptr);
                EXPECT_EQ(own.AnyWithFileName(filename), with_name);
                // Room that was made and not used is kept; nothing else is.
                EXPECT_LE(LiveBlocks(), blocks + 1);
                own.Add(record.get());
                EXPECT_EQ(own.Find("new"), record.release());
            }
        }
    }
}

TEST_F(PluginTableTest, WithoutMemoryToSortNobodyIsVisitedAndTheNextVisitIsInOrder) {
    for (const char* const fkey : {"d", "a", "c", "b"}) Add(fkey, "x");
    long failures = 0;
    for (long nth = 1;; ++nth) {
        int visits = 0;
        bool threw = false;
        long failed = 0;
        {
            AllocationFailure failure(nth);
            try {
                table.VisitInKeyOrder("k", "x", [&](TextRef, const PluginRecord*) {
                    ++visits;
                    return 0;
                });
            } catch (const std::bad_alloc&) {
                threw = true;
            }
            failed = failure.Failed();
        }
        EXPECT_EQ(threw, failed != 0);
        EXPECT_EQ(visits, threw ? 0 : 4);
        if (failed == 0) break;
        ++failures;
        EXPECT_EQ(table.Records(), 4u);
    }
    EXPECT_GT(failures, 0);
    // What is in order is not sorted again.
    int visits = 0;
    {
        AllocationFailure none(1, AllocationFailure::Mode::kFromNth);
        table.VisitInKeyOrder("k", "x", [&](TextRef, const PluginRecord*) {
            ++visits;
            return 0;
        });
    }
    EXPECT_EQ(visits, 4);
    CompareVisit("k", "x");
}

TEST_F(PluginTableTest, DeletesItsRecordsWhenItIsClearedAndWhenItGoes) {
    const long blocks = LiveBlocks();
    {
        PluginTable own;
        for (const char* const fkey : {"a", "b", "c"}) own.Add(NewRecord(fkey, "x").release());
        own.AddWithoutRecord("d");
        own.Clear();
        EXPECT_EQ(LiveBlocks(), blocks);
        EXPECT_TRUE(own.IsEmpty());
        EXPECT_EQ(own.FileNames(), 0u);
        own.Add(NewRecord("a", "x").release());
    }
    EXPECT_EQ(LiveBlocks(), blocks);
}

}  // namespace
}  // namespace vessa_test
