#include "common/KeyIndex.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "support/Allocation.h"

using vessa_test::AllocationFailure;
using vessa_test::LiveBlocks;

namespace {

struct Named {
    std::string name;
};
struct NameOf {
    std::string_view operator()(const Named& object) const { return object.name; }
};
using Index = KeyIndex<Named, NameOf>;

// Texts that are at home in one of the homes of the index's first sixteen slots.
std::vector<Named> AtHome(size_t count, const std::vector<size_t>& homes) {
    std::vector<Named> objects;
    for (int number = 0; objects.size() < count; ++number) {
        const std::string name = "key" + std::to_string(number);
        const size_t home = HashOfText(name) % 16;
        if (std::find(homes.begin(), homes.end(), home) != homes.end())
            objects.push_back(Named{name});
    }
    return objects;
}

TEST(KeyIndex, FindsAndTakesNothingThatWasNotAdded) {
    Index index;
    EXPECT_EQ(index.Find("k"), nullptr);
    EXPECT_EQ(index.Take("k"), nullptr);
    EXPECT_EQ(index.Find(""), nullptr);
    EXPECT_EQ(index.Size(), 0u);
    Named other{"other"};
    ASSERT_EQ(index.Add(&other), nullptr);
    EXPECT_EQ(index.Find("k"), nullptr);
    EXPECT_EQ(index.Take("k"), nullptr);
    EXPECT_EQ(index.Size(), 1u);
}

TEST(KeyIndex, RefusesASecondObjectWithAKeyAndTellsTheFirst) {
    Index index;
    Named first{"k"};
    Named second{"k"};
    EXPECT_EQ(index.Add(&first), nullptr);
    EXPECT_EQ(index.Add(&second), &first);
    EXPECT_EQ(index.Add(&first), &first);
    EXPECT_EQ(index.Find("k"), &first);
    EXPECT_EQ(index.Size(), 1u);
}

TEST(KeyIndex, GivesATakenObjectOnceAndTakesAnotherOneInItsPlace) {
    Index index;
    Named first{"k"};
    Named second{"k"};
    ASSERT_EQ(index.Add(&first), nullptr);
    EXPECT_EQ(index.Take("k"), &first);
    EXPECT_EQ(index.Take("k"), nullptr);
    EXPECT_EQ(index.Find("k"), nullptr);
    EXPECT_EQ(index.Size(), 0u);
    EXPECT_EQ(index.Add(&second), nullptr);
    EXPECT_EQ(index.Find("k"), &second);
}

TEST(KeyIndex, TakesAnEmptyKeyAndKeysWithZeroBytesLikeOthers) {
    const std::string keys[] = {"",
                                std::string(1, '\0'),
                                std::string(2, '\0'),
                                std::string("a\0b", 3),
                                std::string("a\0c", 3),
                                "a"};
    std::vector<Named> objects;
    for (const std::string& key : keys) objects.push_back(Named{key});
    Index index;
    for (Named& object : objects) EXPECT_EQ(index.Add(&object), nullptr);
    for (Named& object : objects) EXPECT_EQ(index.Find(object.name), &object);
}

TEST(KeyIndex, VisitsEveryObjectOnceAndForgetsThemWhenCleared) {
    Index index;
    std::vector<Named> objects = AtHome(40, {3, 4, 5});
    const long blocks_before = LiveBlocks();
    for (Named& object : objects) index.Add(&object);
    EXPECT_GT(LiveBlocks(), blocks_before);
    std::map<const Named*, int> visits;
    index.ForEach([&](Named& object) { ++visits[&object]; });
    EXPECT_EQ(visits.size(), objects.size());
    for (const Named& object : objects) EXPECT_EQ(visits[&object], 1);
    visits.clear();
    index.Clear();
    EXPECT_EQ(LiveBlocks(), blocks_before);
    EXPECT_EQ(index.Size(), 0u);
    EXPECT_EQ(index.Find(objects[0].name), nullptr);
    index.ForEach([&](Named&) { ADD_FAILURE() << "there is nothing left"; });
    EXPECT_EQ(index.Add(&objects[0]), nullptr);
    EXPECT_EQ(index.Find(objects[0].name), &objects[0]);
}

// Each order of removal closes gaps in its own way, across the end of the slots too.
TEST(KeyIndex, FindsTheOthersAfterEachRemovalInEveryOrder) {
    const std::vector<size_t> neighbourhoods[] = {{15}, {0}, {14, 15, 0}, {15, 1}, {4, 5, 6}};
    std::mt19937 random(1);
    for (const std::vector<size_t>& homes : neighbourhoods) {
        std::vector<Named> objects = AtHome(6, homes);
        std::vector<size_t> order = {0, 1, 2, 3, 4, 5};
        do {
            Index index;
            std::shuffle(objects.begin(), objects.end(), random);
            for (Named& object : objects) ASSERT_EQ(index.Add(&object), nullptr);
            for (size_t removed = 0; removed < order.size(); ++removed) {
                Named& gone = objects[order[removed]];
                ASSERT_EQ(index.Take(gone.name), &gone);
                for (size_t i = 0; i < order.size(); ++i) {
                    Named& object = objects[order[i]];
                    ASSERT_EQ(index.Find(object.name), i > removed ? &object : nullptr);
                }
            }
        } while (std::next_permutation(order.begin(), order.end()));
    }
}

void CompareWithMap(std::vector<Named> objects, unsigned seed) {
    Index index;
    std::map<std::string, Named*> expected;
    std::mt19937 random(seed);
    for (int step = 0; step < 20000; ++step) {
        Named& object = objects[random() % objects.size()];
        const auto known = expected.find(object.name);
        Named* const there = known != expected.end() ? known->second : nullptr;
        // Grows for a while and shrinks for a while.
        const bool adds = random() % 10 < (step / 1000 % 2 == 0 ? 7u : 3u);
        if (random() % 3 == 0) {
            ASSERT_EQ(index.Find(object.name), there) << step;
        } else if (adds) {
            ASSERT_EQ(index.Add(&object), there) << step;
            expected.emplace(object.name, &object);
        } else {
            ASSERT_EQ(index.Take(object.name), there) << step;
            expected.erase(object.name);
        }
        ASSERT_EQ(index.Size(), expected.size());
        if (step % 500 != 0) continue;
        std::map<std::string, Named*> visited;
        index.ForEach([&](Named& visit) { visited.emplace(visit.name, &visit); });
        ASSERT_EQ(visited, expected) << step;
    }
}

TEST(KeyIndex, DoesWhatAMapDoes) {
    std::vector<Named> objects;
    for (int number = 0; number < 500; ++number)
        objects.push_back(Named{"plugin." + std::to_string(number)});
    CompareWithMap(objects, 1);
    CompareWithMap(AtHome(11, {14, 15, 0}), 2);
    CompareWithMap(AtHome(100, {15}), 3);
}

TEST(KeyIndex, AFailingGrowthLeavesItAsItWasAndTheNextTryWorks) {
    std::vector<Named> objects = AtHome(50, {0, 5, 10, 15});
    // So many that the next one needs more slots: none yet, sixteen, thirty-two.
    for (const size_t full : {size_t{0}, size_t{14}, size_t{28}}) {
        Index index;
        for (size_t i = 0; i < full; ++i) ASSERT_EQ(index.Add(&objects[i]), nullptr);
        bool threw = false;
        {
            AllocationFailure failure(1);
            try {
                index.Add(&objects[full]);
            } catch (const std::bad_alloc&) {
                threw = true;
            }
        }
        EXPECT_TRUE(threw) << full;
        EXPECT_EQ(index.Size(), full);
        for (size_t i = 0; i < objects.size(); ++i)
            EXPECT_EQ(index.Find(objects[i].name), i < full ? &objects[i] : nullptr) << i;
        EXPECT_EQ(index.Add(&objects[full]), nullptr);
        for (size_t i = 0; i <= full; ++i) EXPECT_EQ(index.Find(objects[i].name), &objects[i]) << i;
    }
}

TEST(KeyIndex, NeedsNoMemoryToFindAndToTake) {
    std::vector<Named> objects = AtHome(12, {0, 15});
    Index index;
    for (Named& object : objects) index.Add(&object);
    int found = 0;
    long allocations = 0;
    {
        AllocationFailure none(1, AllocationFailure::Mode::kFromNth);
        for (Named& object : objects) {
            found += index.Find(object.name) == &object;
            found += index.Take(object.name) == &object;
        }
        allocations = none.Count();
    }
    EXPECT_EQ(found, 24);
    EXPECT_EQ(allocations, 0);
}

}  // namespace
