// The places in which the library keeps what it knows of each thread.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <new>
#include <random>
#include <set>
#include <vector>

#include "common/ThreadScope.h"
#include "support/Allocation.h"
#include "support/Sync.h"
#include "unit/SpinBarrier.h"

using vessa_test::AllocationFailure;
using vessa_test::Barrier;
using vessa_test::JoiningThread;
using vessa_test::LiveBlocks;
using vessa_test::RunTogether;

namespace {

constexpr int kMoreThanFixed = ThreadPlaces::kFixed + 6;
// Emulators and sanitizers are some ten times slower: small enough for them.
constexpr int kRaceRounds = 5000;

std::vector<ThreadState*> Take(int count) {
    std::vector<ThreadState*> places;
    for (int i = 0; i < count; ++i) places.push_back(ThreadPlaces::Take());
    return places;
}

// Until there is neither a place nor memory for another one.
std::vector<ThreadState*> TakeAllThereAre() {
    std::vector<ThreadState*> places;
    places.reserve(1000);
    AllocationFailure none(1, AllocationFailure::Mode::kFromNth);
    while (ThreadState* const state = ThreadPlaces::Take()) places.push_back(state);
    return places;
}

void GiveBack(const std::vector<ThreadState*>& places) {
    for (ThreadState* const state : places) ThreadPlaces::GiveBack(state);
}

bool IsVisited(const ThreadState* wanted) {
    return ThreadPlaces::AnyOf([&](const ThreadState& state) { return &state == wanted; });
}

class ThreadPlacesTest : public testing::Test {
  protected:
    void TearDown() override { EXPECT_EQ(ThreadPlaces::Owners(), owners_before); }

    const int32_t owners_before = ThreadPlaces::Owners();
};

TEST_F(ThreadPlacesTest, AFreePlaceIsTakenAndATakenOneIsPassedOver) {
    ThreadState* const one = ThreadPlaces::Take();
    ThreadState* const two = ThreadPlaces::Take();
    ASSERT_NE(one, nullptr);
    ASSERT_NE(two, nullptr);
    EXPECT_NE(one, two);
    EXPECT_NE(one->place, two->place);
    EXPECT_EQ(ThreadPlaces::Owners(), owners_before + 2);
    ThreadPlaces::GiveBack(one);
    EXPECT_EQ(ThreadPlaces::Owners(), owners_before + 1);
    EXPECT_EQ(ThreadPlaces::Take(), one);
    ThreadPlaces::GiveBack(two);
    ThreadPlaces::GiveBack(one);
}

TEST_F(ThreadPlacesTest, APlaceIsTakenAfreshWhateverItsFormerOwnerLeft) {
    ThreadState* const state = ThreadPlaces::Take();
    const int32_t place = state->place;
    GateHold* const some_hold = reinterpret_cast<GateHold*>(state);
    state->frames = 3;
    state->plugin_calls = 2;
    state->holds = some_hold;
    state->timer = state;
    state->starting = true;
    state->at_end = [] {};
    state->reading = state;
    state->guarded = state;
    ThreadPlaces::GiveBack(state);
    EXPECT_EQ(state->reading, nullptr);
    EXPECT_EQ(state->guarded, nullptr);
    ASSERT_EQ(ThreadPlaces::Take(), state);
    EXPECT_EQ(state->frames, 0);
    EXPECT_EQ(state->plugin_calls, 0);
    EXPECT_EQ(state->holds, nullptr);
    EXPECT_EQ(state->timer, nullptr);
    EXPECT_FALSE(state->starting);
    EXPECT_EQ(state->at_end, nullptr);
    EXPECT_EQ(state->place, place);
    ThreadPlaces::GiveBack(state);
}

TEST_F(ThreadPlacesTest, FurtherPlacesAreAddedWhenAllAreTakenAndStayForOthers) {
    const std::vector<ThreadState*> first = Take(kMoreThanFixed);
    std::set<const ThreadState*> states(first.begin(), first.end());
    std::set<int32_t> numbers;
    for (const ThreadState* const state : first) {
        ASSERT_NE(state, nullptr);
        EXPECT_TRUE(IsVisited(state));
        numbers.insert(state->place);
    }
    EXPECT_EQ(states.size(), first.size());
    EXPECT_EQ(numbers.size(), first.size());
    EXPECT_EQ(ThreadPlaces::Owners(), owners_before + kMoreThanFixed);
    GiveBack(first);
    for (const ThreadState* const state : first) EXPECT_TRUE(IsVisited(state));

    const long blocks = LiveBlocks();
    {
        const std::vector<ThreadState*> again = Take(kMoreThanFixed);
        for (const ThreadState* const state : again) EXPECT_EQ(states.count(state), 1u);
        GiveBack(again);
    }
    EXPECT_EQ(LiveBlocks(), blocks);
}

TEST_F(ThreadPlacesTest, WithoutMemoryForAFurtherPlaceThereIsNoneAndTheNextTryWorks) {
    const std::vector<ThreadState*> all = TakeAllThereAre();
    EXPECT_GE(static_cast<int32_t>(all.size()) + owners_before, ThreadPlaces::kFixed);
    ThreadState* const added = ThreadPlaces::Take();
    ASSERT_NE(added, nullptr);
    EXPECT_GE(added->place, ThreadPlaces::kFixed);
    EXPECT_EQ(std::count(all.begin(), all.end(), added), 0);
    EXPECT_TRUE(IsVisited(added));
    ThreadPlaces::GiveBack(added);
    GiveBack(all);
}

TEST_F(ThreadPlacesTest, AScopeThrowsWithoutMemoryForAPlaceAndTheNextOneWorks) {
    const std::vector<ThreadState*> all = TakeAllThereAre();
    bool threw = false;
    bool was_outside = false;
    bool works = false;
    JoiningThread([&] {
        {
            AllocationFailure none(1, AllocationFailure::Mode::kFromNth);
            try {
                const ThreadScope scope;
            } catch (const std::bad_alloc&) {
                threw = true;
            }
        }
        was_outside = ThreadScope::Current() == nullptr;
        ThreadScope scope;
        works = ThreadScope::Current() == &scope.State() && scope.State().frames == 1;
    }).Join();
    EXPECT_TRUE(threw);
    EXPECT_TRUE(was_outside);
    EXPECT_TRUE(works);
    GiveBack(all);
}

TEST_F(ThreadPlacesTest, AThreadKeepsItsPlaceBetweenItsFramesAndGivesItBackAtItsEnd) {
    ThreadState* states[2] = {};
    int32_t owners = 0;
    JoiningThread([&] {
        { states[0] = &ThreadScope().State(); }
        owners = ThreadPlaces::Owners();
        { states[1] = &ThreadScope().State(); }
    }).Join();
    EXPECT_NE(states[0], nullptr);
    EXPECT_EQ(states[0], states[1]);
    EXPECT_EQ(owners, owners_before + 1);
    EXPECT_EQ(ThreadPlaces::Owners(), owners_before);
    EXPECT_FALSE(states[0]->taken);
}

TEST_F(ThreadPlacesTest, AThreadThatEndsInTheMiddleLeavesNothingInItsPlace) {
    alignas(ThreadScope) static unsigned char room[sizeof(ThreadScope)];
    ThreadState* left = nullptr;
    JoiningThread([&] {
        left = &(new (room) ThreadScope)->State();
        left->plugin_calls = 1;
        left->reading = left;
        left->guarded = left;
    }).Join();
    EXPECT_EQ(left->reading, nullptr);
    EXPECT_EQ(left->guarded, nullptr);
    ThreadState* reused = nullptr;
    int32_t frames = 0;
    bool in_call = true;
    JoiningThread([&] {
        const bool called = ThreadScope::InPluginCall();
        ThreadScope scope;
        reused = &scope.State();
        frames = scope.State().frames;
        in_call = called || ThreadScope::InPluginCall();
    }).Join();
    EXPECT_EQ(reused, left);
    EXPECT_EQ(frames, 1);
    EXPECT_FALSE(in_call);
}

TEST_F(ThreadPlacesTest, MoreThreadsThanFixedPlacesHaveOneEachAndShowIt) {
    std::set<const ThreadState*> known;
    for (int batch = 0; batch < 2; ++batch) {
        std::vector<const ThreadState*> states(kMoreThanFixed);
        std::atomic<int> unseen{0};
        Barrier barrier(kMoreThanFixed);
        std::vector<std::unique_ptr<JoiningThread>> threads;
        for (size_t i = 0; i < states.size(); ++i)
            threads.push_back(std::make_unique<JoiningThread>([&, i] {
                ThreadScope scope;
                states[i] = &scope.State();
                scope.State().reading = &states[i];
                barrier.ArriveAndWait();
                for (const auto& shown : states)
                    unseen += !ThreadPlaces::AnyOf(
                        [&](const ThreadState& state) { return state.reading.load() == &shown; });
                barrier.ArriveAndWait();
                scope.State().reading = nullptr;
            }));
        threads.clear();
        EXPECT_EQ(unseen, 0);
        const std::set<const ThreadState*> different(states.begin(), states.end());
        EXPECT_EQ(different.size(), states.size());
        // The second ones come into the places of the first.
        known.insert(different.begin(), different.end());
        EXPECT_EQ(known.size(), states.size());
        EXPECT_EQ(ThreadPlaces::Owners(), owners_before);
    }
}

// What the owner alone uses is not atomic: a thread sanitizer sees a place with two owners.
TEST_F(ThreadPlacesTest, APlaceBelongsToOneThreadWhileOthersTakeAndGiveBack) {
    constexpr size_t kThreads = 4;
    std::atomic<int> wrong{0};
    std::vector<std::function<void()>> bodies;
    for (size_t thread = 0; thread < kThreads; ++thread)
        bodies.push_back([&, thread] {
            std::mt19937 random(static_cast<unsigned>(thread));
            std::vector<ThreadState*> own;
            for (int round = 0; round < kRaceRounds; ++round) {
                if (own.empty() || (own.size() < 25 && random() % 2 == 0)) {
                    own.push_back(ThreadPlaces::Take());
                    wrong += own.back()->timer != nullptr || own.back()->frames != 0;
                    own.back()->timer = &own;
                    own.back()->guarded = &own;
                    continue;
                }
                const size_t which = random() % own.size();
                wrong += own[which]->timer != &own || own[which]->guarded.load() != &own;
                wrong += !ThreadPlaces::AnyOf(
                    [&](const ThreadState& state) { return state.guarded.load() == &own; });
                ThreadPlaces::GiveBack(own[which]);
                own[which] = own.back();
                own.pop_back();
            }
            GiveBack(own);
        });
    RunTogether(bodies);
    EXPECT_EQ(wrong, 0);
    EXPECT_FALSE(ThreadPlaces::AnyOf(
        [](const ThreadState& state) { return state.taken && state.guarded != nullptr; }));
}

TEST_F(ThreadPlacesTest, ForgettingFreesWhatWasAddedAndPlacesCanBeAddedAgain) {
    ThreadPlaces::Forget();
    const long blocks = LiveBlocks();
    for (int round = 0; round < 2; ++round) {
        GiveBack(Take(kMoreThanFixed));
        EXPECT_GT(LiveBlocks(), blocks);
        ThreadPlaces::Forget();
        EXPECT_EQ(LiveBlocks(), blocks);
    }
}

}  // namespace
