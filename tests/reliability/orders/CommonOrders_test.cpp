// Orders of what knows nothing of plug-ins: the spread counter, the table of instances, the timer.
#include <atomic>
#include <vector>

#include "common/InstanceTable.h"
#include "common/SpreadCounter.h"
#include "common/ThreadScope.h"
#include "common/Timer.h"
#include "reliability/orders/Order.h"
#include "support/Runtime.h"
#include "unit/InstanceTablePointers.h"
#include "unit/TimerCallback.h"

namespace vessa_test {
namespace {

// ---- The counter.

class CounterOrders : public testing::Test {
  protected:
    void Raise() {
        ThreadScope scope;
        counter.Raise(scope.State());
    }
    void Lower() {
        ThreadScope scope;
        counter.Lower(scope.State());
    }
    OrderThread LowersAndLooks(const char* name, bool& is_zero) {
        return {name, [&] {
                    Lower();
                    is_zero = counter.IsZero();
                }};
    }

    CountingCells cells;
    SpreadCounter counter{&cells};
};

TEST_F(CounterOrders, ALookIsHalfWayWhileOneComesAndAnotherGoes) {
    Raise();
    bool is_zero = true;
    EXPECT_TRUE(CarriedOut({{"A", [&] { is_zero = counter.IsZero(); }},
                            {"B",
                             [&] {
                                 Raise();
                                 Lower();
                             }}},
                           {"A:counter.look.half_way", "B:ends", "A:ends"}));
    EXPECT_FALSE(is_zero);
    EXPECT_EQ(counter.Value(), 1);
}

TEST_F(CounterOrders, OfTwoThatLowerItToZeroTheLastFindsItZero) {
    Raise();
    Raise();
    bool first = true;
    bool second = false;
    EXPECT_TRUE(
        CarriedOut({LowersAndLooks("A", first), LowersAndLooks("B", second)},
                   {"A:counter.look.half_way", "B:counter.value.lowered", "A:ends", "B:ends"}));
    EXPECT_FALSE(first);
    EXPECT_TRUE(second);
}

TEST_F(CounterOrders, TwoThatHaveBothLoweredItBothFindItZero) {
    Raise();
    Raise();
    bool first = false;
    bool second = false;
    EXPECT_TRUE(
        CarriedOut({LowersAndLooks("A", first), LowersAndLooks("B", second)},
                   {"A:counter.value.lowered", "B:counter.value.lowered", "A:ends", "B:ends"}));
    EXPECT_TRUE(first);
    EXPECT_TRUE(second);
}

TEST_F(CounterOrders, TwoThatMakeTheFurtherCellsCountInTheSameOnes) {
    Raise();
    const auto raise = [this] {
        ThreadScope scope;
        counter.Raise(scope.State());
        At("test.thread.counted");
    };
    EXPECT_TRUE(CarriedOut({{"A", raise}, {"B", raise}, {"C", raise}},
                           {"C:test.thread.counted", "A:counter.cells.made", "B:counter.cells.made",
                            "A:test.thread.counted", "B:ends", "A:ends", "C:ends"}));
    EXPECT_EQ(counter.Value(), 4);
}

// ---- The table of instances. All pointers are of one stripe.

class TableOrders : public testing::Test {
  protected:
    OrderThread Finds(const char* name, size_t pointer, Found& found) {
        return {name, [this, pointer, &found] { found = table.Find(pointers[pointer]); }};
    }
    OrderThread Inserts(const char* name, size_t pointer) {
        return {name, [this, pointer] { Insert(pointer); }};
    }
    OrderThread Takes(const char* name, size_t pointer, InstanceTable::Taken& taken) {
        return {name, [this, pointer, &taken] { taken = Take(pointer); }};
    }
    void Insert(size_t pointer) { EXPECT_TRUE(table.Insert(pointers[pointer], RecordOf(pointer))); }
    InstanceTable::Taken Take(size_t pointer) {
        return table.Take(pointers[pointer], false, Ignore);
    }
    void Fill(size_t count) {
        for (size_t i = 0; i < count; ++i) Insert(i);
    }

    // All at home in one slot, also when the stripe has grown.
    const std::vector<void*> pointers = Meeting(16, {7});
    InstanceTable table;
};

TEST_F(TableOrders, ALookDuringWhichTheEntryGoesIsMadeAgain) {
    Fill(1);
    Found found;
    InstanceTable::Taken taken = InstanceTable::kAbsent;
    EXPECT_TRUE(CarriedOut({Finds("A", 0, found), Takes("B", 0, taken)},
                           {"A:instances.find.looked", "B:ends", "A:ends"}));
    EXPECT_FALSE(found.is_there);
    EXPECT_EQ(taken, InstanceTable::kTaken);
    EXPECT_EQ(Passes("A", "instances.find.has_version"), 2);
}

TEST_F(TableOrders, ALookDuringWhichTheEntryComesFindsIt) {
    Fill(1);
    Found found;
    EXPECT_TRUE(CarriedOut({Finds("A", 1, found), Inserts("B", 1)},
                           {"A:instances.find.looked", "B:ends", "A:ends"}));
    EXPECT_TRUE(found.is_there);
    EXPECT_EQ(found.record, RecordOf(1));
}

TEST_F(TableOrders, ALookFindsAnEntryThatMovesIntoAGap) {
    Fill(3);
    Found found;
    InstanceTable::Taken taken = InstanceTable::kAbsent;
    EXPECT_TRUE(CarriedOut({Finds("A", 2, found), Takes("B", 0, taken)},
                           {"A:instances.find.has_version", "B:ends", "A:ends"}));
    EXPECT_TRUE(found.is_there);
    EXPECT_EQ(found.record, RecordOf(2));
}

TEST_F(TableOrders, ALookLocksAStripeThatIsHalfPut) {
    Fill(1);
    Found found;
    EXPECT_TRUE(CarriedOut({Finds("A", 1, found), Inserts("B", 1)},
                           {"B:instances.entry.half_put", "A:instances.find.locks",
                            "A:instances.change.waits", "A:goes", "B:ends", "A:ends"}));
    EXPECT_TRUE(found.is_there);
    EXPECT_EQ(found.record, RecordOf(1));
}

TEST_F(TableOrders, ALookWaitsForAStripeThatGrows) {
    Fill(6);
    Found found;
    EXPECT_TRUE(CarriedOut({Finds("A", 0, found), Inserts("B", 6)},
                           {"B:instances.grow.moved", "A:instances.find.locks",
                            "A:instances.change.waits", "A:goes", "B:ends", "A:ends"}));
    EXPECT_TRUE(found.is_there);
    EXPECT_EQ(found.record, RecordOf(0));
    EXPECT_EQ(table.Size(), 7u);
}

TEST_F(TableOrders, ALookThatBeganBeforeTheStripeGrewFindsWhatCameAfter) {
    Found found;
    EXPECT_TRUE(CarriedOut({Finds("A", 12, found),
                            {"B",
                             [&] {
                                 for (size_t i = 0; i < pointers.size(); ++i) Insert(i);
                             }}},
                           {"A:instances.find.has_version", "B:ends", "A:ends"}));
    EXPECT_TRUE(found.is_there);
    EXPECT_EQ(found.record, RecordOf(12));
}

TEST_F(TableOrders, TwoThatGrowAStripeGrowItOnce) {
    EXPECT_TRUE(CarriedOut({Inserts("A", 0), Inserts("B", 1)},
                           {"A:instances.grow.made", "B:instances.grow.made", "A:ends", "B:ends"}));
    EXPECT_TRUE(Has(table, pointers[0], RecordOf(0)));
    EXPECT_TRUE(Has(table, pointers[1], RecordOf(1)));
    EXPECT_EQ(Passes("B", "instances.grow.moved"), 0);
}

TEST_F(TableOrders, OfTwoTakersOneHasIt) {
    Fill(1);
    InstanceTable::Taken first = InstanceTable::kHeld;
    InstanceTable::Taken second = InstanceTable::kHeld;
    EXPECT_TRUE(CarriedOut(
        {Takes("A", 0, first), Takes("B", 0, second)},
        {"A:instances.entry.goes", "B:instances.change.waits", "B:goes", "A:ends", "B:ends"}));
    EXPECT_EQ(first, InstanceTable::kTaken);
    EXPECT_EQ(second, InstanceTable::kAbsent);
}

// ---- The timer; T is its thread.

class TimerOrders : public testing::Test {
  protected:
    void SetUp() override {
        callback.body = [this] {
            At("test.closure.inside");
            if (in_closure) in_closure();
        };
        ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    }
    void TearDown() override {
        EXPECT_TRUE(timer.StopTimer());
        // It starts again, with one thread.
        ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
        EXPECT_EQ(runtime.AwaitWaiters().size(), 1u);
        EXPECT_TRUE(timer.StopTimer());
        EXPECT_TRUE(runtime.Waiters().empty());
    }

    OrderThread Ticks() {
        return {"tick", [this] { runtime.StartTick(); }};
    }
    OrderThread Stops(const char* name) {
        return {name, [this] { EXPECT_TRUE(timer.StopTimer()); }};
    }
    static OrderThread TimersOwn() { return {"T", nullptr}; }

    Runtime runtime;
    Callback callback;
    Callback other;
    std::function<void()> in_closure;
    Timer timer;
};

TEST_F(TimerOrders, AStopWaitsForTheClosure) {
    EXPECT_TRUE(CarriedOut({Ticks(), TimersOwn(), Stops("A")},
                           {"tick:ends", "T:test.closure.inside", "A:timer.thread.joins",
                            "A:blocks", "T:timer.round.ended", "T:goes", "A:ends"}));
    EXPECT_EQ(callback.runs.load(), 1);
    EXPECT_TRUE(runtime.Waiters().empty());
}

TEST_F(TimerOrders, AStopThatComesBeforeTheClosureRunsWaitsForIt) {
    EXPECT_TRUE(CarriedOut({Ticks(), TimersOwn(), Stops("A")},
                           {"tick:ends", "T:timer.round.begins", "A:timer.thread.joins", "A:blocks",
                            "T:test.closure.inside", "T:goes", "A:ends"}));
    EXPECT_EQ(callback.runs.load(), 1);
}

TEST_F(TimerOrders, TwoStopsBothWaitForTheClosure) {
    EXPECT_TRUE(CarriedOut(
        {Ticks(), TimersOwn(), Stops("A"), Stops("B")},
        {"tick:ends", "T:test.closure.inside", "A:timer.thread.joins", "B:timer.stop.asks",
         "B:blocks", "A:blocks", "T:timer.round.ended", "T:goes", "A:ends", "B:ends"}));
    EXPECT_EQ(Passes("B", "timer.stop.has_mutex"), 0);
}

TEST_F(TimerOrders, AStopFindsThatTheClosureHasStoppedTheTimer) {
    in_closure = [this] { EXPECT_TRUE(timer.StopTimer()); };
    EXPECT_TRUE(CarriedOut({Ticks(), TimersOwn(), Stops("A")},
                           {"tick:ends", "T:test.closure.inside", "A:timer.stop.asks",
                            "T:timer.stop.inside", "A:ends", "T:timer.round.ended"}));
    EXPECT_EQ(Passes("A", "timer.thread.joins"), 0);
}

TEST_F(TimerOrders, TheClosureStopsTheTimerThatIsBeingStopped) {
    in_closure = [this] { EXPECT_TRUE(timer.StopTimer()); };
    EXPECT_TRUE(CarriedOut({Ticks(), TimersOwn(), Stops("A")},
                           {"tick:ends", "T:test.closure.inside", "A:timer.thread.joins",
                            "A:blocks", "T:timer.stop.inside", "T:goes", "A:ends"}));
}

TEST_F(TimerOrders, TheClosureRestartsATimerThatIsBeingStopped) {
    in_closure = [this] { EXPECT_TRUE(timer.SetTimer(kPeriodMs, other.Bound())); };
    EXPECT_TRUE(CarriedOut({Ticks(), TimersOwn(), Stops("A")},
                           {"tick:ends", "T:test.closure.inside", "A:timer.thread.joins",
                            "A:blocks", "T:timer.start.inside", "T:goes", "A:ends"}));
    EXPECT_TRUE(runtime.Waiters().empty());
    EXPECT_EQ(other.runs.load(), 0);
}

TEST_F(TimerOrders, ASecondStartReplacesTheFirstThatIsUnderWay) {
    EXPECT_TRUE(timer.StopTimer());
    const auto starts = [this](const char* name, Callback& what, unsigned period) {
        return OrderThread{
            name, [this, &what, period] { EXPECT_TRUE(timer.SetTimer(period, what.Bound())); }};
    };
    EXPECT_TRUE(CarriedOut(
        {starts("A", callback, kPeriodMs), starts("B", other, 2 * kPeriodMs)},
        {"A:timer.start.has_thread", "B:timer.start.asks", "B:blocks", "A:ends", "B:ends"}));
    const std::vector<RuntimeWaiter> waiters = runtime.AwaitWaiters();
    ASSERT_EQ(waiters.size(), 1u);
    EXPECT_EQ(waiters[0].milliseconds, 2 * kPeriodMs);
}

}  // namespace
}  // namespace vessa_test
