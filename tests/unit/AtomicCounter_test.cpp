#include "common/AtomicCounter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

#include "support/Runtime.h"
#include "support/Sync.h"

using vessa_test::Barrier;
using vessa_test::JoiningThread;
using vessa_test::Runtime;
using vessa_test::RuntimeCall;
using vessa_test::Tova;

namespace {

TEST(AtomicCounter, StartsAtZeroOrAtTheGivenValue) {
    EXPECT_EQ(AtomicCounter().Get(), 0);
    EXPECT_EQ(AtomicCounter(2).Get(), 2);
    EXPECT_EQ(AtomicCounter(-7).Get(), -7);
}

TEST(AtomicCounter, AddGivesTheValueBefore) {
    AtomicCounter counter(5);
    EXPECT_EQ(counter.Add(3), 5);
    EXPECT_EQ(counter.Add(-10), 8);
    EXPECT_EQ(counter.Get(), -2);
}

TEST(AtomicCounter, CompareExchangeStoresOnlyOverTheComparand) {
    AtomicCounter counter(1);
    EXPECT_EQ(counter.CompareExchange(2, 9), 1);
    EXPECT_EQ(counter.Get(), 1);
    EXPECT_EQ(counter.CompareExchange(1, 9), 1);
    EXPECT_EQ(counter.Get(), 9);
}

TEST(AtomicCounter, ReadsByAtomicExchangeAndNeverByAPlainLoad) {
    const AtomicCounter counter(4);
    Runtime runtime;
    EXPECT_EQ(counter.Get(), 4);
    EXPECT_EQ(runtime.Calls(Tova::AtomicCas), 1);
    EXPECT_EQ(counter.Get(), 4);
    EXPECT_EQ(runtime.Calls(Tova::AtomicCas), 2);
}

TEST(AtomicCounter, SetStoresEveryValueAlsoTheOneThatIsThere) {
    AtomicCounter counter(0);
    for (const int32_t value : {0, 1, 1, -1, 0, std::numeric_limits<int32_t>::max(),
                                std::numeric_limits<int32_t>::min()}) {
        counter.Set(value);
        EXPECT_EQ(counter.Get(), value);
    }
}

// Another thread's change between the look and the exchange, brought about from a hook.
TEST(AtomicCounter, SetGoesOnUntilItsOwnValueIsStored) {
    AtomicCounter counter(1);
    Runtime runtime;
    int changes = 0;
    runtime.Before(Tova::AtomicCas, [&](RuntimeCall& call) {
        // Before each of the first three exchanges the value changes.
        if (call.index > 1 && call.index <= 4) {
            counter.Add(10);
            ++changes;
        }
    });
    counter.Set(5);
    EXPECT_EQ(changes, 3);
    EXPECT_EQ(counter.Get(), 5);
}

TEST(AtomicCounter, LosesNoChangeOfSeveralThreads) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 20000;
    AtomicCounter sum;
    AtomicCounter tokens(kThreads * kRounds / 2);
    std::atomic<int> taken{0};
    Barrier start(kThreads);
    {
        std::vector<std::unique_ptr<JoiningThread>> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.push_back(std::make_unique<JoiningThread>([&] {
                start.ArriveAndWait();
                for (int round = 0; round < kRounds; ++round) {
                    sum.Add(round % 2 == 0 ? 2 : -1);
                    for (int32_t seen = tokens.Get(); seen > 0;) {
                        const int32_t before = tokens.CompareExchange(seen, seen - 1);
                        if (before == seen) ++taken;
                        seen = before == seen ? 0 : before;
                    }
                }
            }));
        }
    }
    EXPECT_EQ(sum.Get(), kThreads * kRounds / 2);
    EXPECT_EQ(taken, kThreads * kRounds / 2);
    EXPECT_EQ(tokens.Get(), 0);
}

// "Set the flag, then read the counter" against "lower the counter, then read the flag": at
// least one of the two threads sees what the other did.
TEST(AtomicCounter, TwoThreadsNeverBothMissEachOther) {
    constexpr int kRounds = 3000;
    AtomicCounter flag;
    AtomicCounter counter;
    int counter_seen = 0;
    int flag_seen = 0;
    int missed = 0;
    Barrier together(2);
    JoiningThread other([&] {
        for (int round = 0; round < kRounds; ++round) {
            together.ArriveAndWait();
            counter.Add(-1);
            flag_seen = flag.Get();
            together.ArriveAndWait();
            together.ArriveAndWait();
        }
    });
    for (int round = 0; round < kRounds; ++round) {
        flag.Set(0);
        counter.Set(1);
        together.ArriveAndWait();
        flag.Set(1);
        counter_seen = counter.Get();
        together.ArriveAndWait();
        if (counter_seen == 1 && flag_seen == 0) ++missed;
        together.ArriveAndWait();
    }
    other.Join();
    EXPECT_EQ(missed, 0);
}

}  // namespace
