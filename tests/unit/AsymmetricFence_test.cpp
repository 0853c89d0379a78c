#include "common/AsymmetricFence.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>

#include "common/ThreadScope.h"
#include "unit/SpinBarrier.h"

using vessa_test::ColdStores;
using vessa_test::RunTogether;
using vessa_test::SpinBarrier;
using vessa_test::Stagger;

struct AsymmetricFenceAccess {
    static bool IsAsymmetric() { return AsymmetricFence::is_asymmetric_.load(); }
    static void SetAsymmetric(bool is_asymmetric) {
        AsymmetricFence::is_asymmetric_.store(is_asymmetric);
    }
};

namespace {

// Emulators and sanitizers are some ten times slower: small enough for them.
constexpr int kRounds = 20000;
// A fence on all threads takes as long as some thousand other steps.
constexpr int kRoundsWithSystem = 4000;

// Both kinds: with a fence that one side runs on all threads, and with one on each side.
class AsymmetricFenceTest : public testing::TestWithParam<bool> {
  protected:
    void SetUp() override {
        AsymmetricFenceAccess::SetAsymmetric(false);
        if (!GetParam()) return;
        AsymmetricFence::Prepare();
        if (!AsymmetricFenceAccess::IsAsymmetric())
            GTEST_SKIP() << "the system runs no fence on all threads";
    }
    void TearDown() override {
        // Or what was to be tested has not been.
        if (!IsSkipped()) {
            EXPECT_EQ(AsymmetricFenceAccess::IsAsymmetric(), GetParam());
        }
        AsymmetricFenceAccess::SetAsymmetric(false);
    }

    // One side shows something and looks, the other one changes something and looks. Neither
    // store orders anything by itself.
    bool ShowsAndMisses(int round) {
        shown.store(round, std::memory_order_relaxed);
        AsymmetricFence::Light();
        return changed.load(std::memory_order_relaxed) != round;
    }
    bool ChangesAndMisses(int round) {
        changed.store(round, std::memory_order_relaxed);
        AsymmetricFence::Heavy();
        return shown.load(std::memory_order_relaxed) != round;
    }

    // Counts the rounds in which both missed the other's store, which must not be.
    void Run(const std::function<bool(int)>& show, const std::function<bool(int)>& change) {
        const int rounds = GetParam() ? kRoundsWithSystem : kRounds;
        SpinBarrier barrier(2);
        ColdStores stores;
        bool show_missed = false;
        int both_missed = 0;
        RunTogether({[&] {
                         for (int round = 1; round <= rounds; ++round) {
                             barrier.ArriveAndWait();
                             Stagger(round);
                             if (round % 4 != 0) stores.Make();
                             show_missed = show(round);
                             barrier.ArriveAndWait();
                         }
                     },
                     [&] {
                         const ThreadScope scope;
                         for (int round = 1; round <= rounds; ++round) {
                             barrier.ArriveAndWait();
                             Stagger(round / 40);
                             if (round % 3 == 0) Stagger(39);
                             const bool missed = change(round);
                             barrier.ArriveAndWait();
                             both_missed += missed && show_missed;
                         }
                     }});
        EXPECT_EQ(both_missed, 0);
    }

    alignas(kPlaceAlignment) std::atomic<int> shown{0};
    alignas(kPlaceAlignment) std::atomic<int> changed{0};
};

INSTANTIATE_TEST_SUITE_P(BothKinds, AsymmetricFenceTest, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& kind) {
                             return kind.param ? "Asymmetric" : "Symmetric";
                         });

TEST_P(AsymmetricFenceTest, OfOneThatShowsAndOneThatChangesOneSeesTheOther) {
    Run(
        [&](int round) {
            const ThreadScope scope;
            return ShowsAndMisses(round);
        },
        [&](int round) { return ChangesAndMisses(round); });
}

TEST_P(AsymmetricFenceTest, OfTwoThatChangeOneSeesTheOther) {
    Run(
        [&](int round) {
            const ThreadScope scope;
            shown.store(round, std::memory_order_relaxed);
            AsymmetricFence::Heavy();
            return changed.load(std::memory_order_relaxed) != round;
        },
        [&](int round) { return ChangesAndMisses(round); });
}

// The one that changes may have been the only one with a place when it looked: then it asks
// nobody for a fence.
TEST_P(AsymmetricFenceTest, OfOneThatTakesItsPlaceAndShowsAndOneThatChangesOneSeesTheOther) {
    ThreadState* place = nullptr;
    Run(
        [&](int round) {
            if (place != nullptr) ThreadPlaces::GiveBack(place);
            place = ThreadPlaces::Take();
            return ShowsAndMisses(round);
        },
        [&](int round) { return ChangesAndMisses(round); });
    ThreadPlaces::GiveBack(place);
}

}  // namespace
