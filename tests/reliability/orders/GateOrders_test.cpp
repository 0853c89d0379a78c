// Orders of the gate: readers and writers, step by step through the windows between what one side
// shows and what the other looks at.
#include <atomic>
#include <functional>
#include <utility>

#include "common/RegistryGate.h"
#include "reliability/orders/Order.h"

namespace vessa_test {
namespace {

class GateOrders : public testing::Test {
  protected:
    // What the gate protects: the thread sanitizer sees whether it does.
    struct Table {
        int entries = 0;
        std::atomic<int> readers{0};
        std::atomic<int> writers{0};
    };

    void SetUp() override {
        // What the first writer does once is done: readers run their own fence from here on.
        if (strict_) Write();
    }
    void TearDown() override {
        EXPECT_FALSE(gate.HasReaders());
        EXPECT_EQ(gate.Writers(), 0);
        EXPECT_EQ(table.entries, writes_.load());
        Write();
        Read();
    }

    void LookInside() {
        table.readers.fetch_add(1, std::memory_order_relaxed);
        EXPECT_EQ(table.writers.load(std::memory_order_relaxed), 0);
        const int before = table.entries;
        At("test.reader.inside");
        EXPECT_EQ(table.entries, before);
        table.readers.fetch_sub(1, std::memory_order_relaxed);
    }
    void ChangeInside() {
        EXPECT_EQ(table.writers.fetch_add(1, std::memory_order_relaxed), 0);
        EXPECT_EQ(table.readers.load(std::memory_order_relaxed), 0);
        ++table.entries;
        writes_.fetch_add(1, std::memory_order_relaxed);
        At("test.writer.inside");
        EXPECT_EQ(table.readers.load(std::memory_order_relaxed), 0);
        table.writers.fetch_sub(1, std::memory_order_relaxed);
    }
    void Read() {
        GatePass pass(gate, GatePass::AsReader());
        LookInside();
    }
    void ReadTwice() {
        GatePass pass(gate, GatePass::AsReader());
        LookInside();
        ReadInside();
    }
    void ReadInside() {
        GatePass inner(gate, GatePass::AsReader());
        At("test.inner.inside");
    }
    void Write() {
        GatePass pass(gate, GatePass::AsWriter());
        ChangeInside();
    }
    void WriteThenRead() {
        GatePass pass(gate, GatePass::AsWriter());
        ChangeInside();
        pass.Downgrade();
        LookInside();
    }

    OrderThread Reader(const char* name) {
        return {name, [this] { Read(); }};
    }
    OrderThread NestedReader(const char* name) {
        return {name, [this] { ReadTwice(); }};
    }
    OrderThread Writer(const char* name) {
        return {name, [this] { Write(); }};
    }
    OrderThread Downgrader(const char* name) {
        return {name, [this] { WriteThenRead(); }};
    }

    explicit GateOrders(bool strict = false) : strict_(strict) {}

    RegistryGate gate;
    Table table;

  private:
    const bool strict_;
    std::atomic<int> writes_{0};
};

// With writers having been there: readers run a fence of their own.
class StrictGateOrders : public GateOrders {
  protected:
    StrictGateOrders() : GateOrders(true) {}
};

// ---- A reader comes, a writer comes.

TEST_F(GateOrders, AReaderThatShowsItselfFirstAndLooksSecondIsTurnedAway) {
    EXPECT_TRUE(
        CarriedOut({Reader("A"), Writer("B")},
                   {"A:gate.reader.shown", "B:gate.writer.counted", "A:gate.reader.turned_away",
                    "B:test.writer.inside", "A:blocks", "B:ends", "A:ends"}));
}

TEST_F(GateOrders, AReaderThatLookedBeforeTheWriterCountedIsWaitedFor) {
    EXPECT_TRUE(CarriedOut({Reader("A"), Writer("B")},
                           {"A:gate.reader.looked", "B:gate.writer.sleeps", "A:test.reader.inside",
                            "B:blocks", "A:ends", "B:ends"}));
}

TEST_F(GateOrders, AReaderThatShowsItselfAfterTheWritersLookStaysOut) {
    EXPECT_TRUE(CarriedOut({Reader("A"), Writer("B")},
                           {"B:gate.writer.fenced", "A:gate.reader.shown", "B:gate.writer.waits",
                            "A:gate.reader.turned_away", "B:test.writer.inside",
                            "A:gate.reader.queues", "A:blocks", "B:ends", "A:ends"}));
}

TEST_F(GateOrders, AWriterThatIsCountedKeepsReadersOutBeforeItHasTheMutex) {
    EXPECT_TRUE(CarriedOut({Reader("A"), Writer("B")},
                           {"B:gate.writer.counted", "A:gate.reader.turned_away",
                            "B:test.writer.inside", "A:blocks", "B:ends", "A:ends"}));
}

TEST_F(GateOrders, AReaderComesInByTheMutexBeforeACountedWriterThatHasNotAskedForIt) {
    EXPECT_TRUE(CarriedOut({Reader("A"), Writer("B")},
                           {"B:gate.writer.counted", "A:gate.reader.has_mutex", "B:blocks",
                            "A:test.reader.inside", "B:gate.writer.sleeps", "A:ends", "B:ends"}));
}

TEST_F(GateOrders, AReaderThatIsTurnedAwayIsNotWaitedFor) {
    EXPECT_TRUE(CarriedOut(
        {Reader("A"), Writer("B")},
        {"B:gate.writer.has_mutex", "A:gate.reader.shown", "B:gate.writer.waits",
         "A:gate.reader.turned_away", "B:gate.writer.in", "A:blocks", "B:ends", "A:ends"}));
    EXPECT_EQ(Passes("B", "gate.writer.sleeps"), 0);
}

TEST_F(GateOrders, AReaderThatIsTurnedAwayWakesTheWriterThatSawIt) {
    EXPECT_TRUE(CarriedOut(
        {Reader("A"), Writer("B")},
        {"B:gate.writer.has_mutex", "A:gate.reader.shown", "B:gate.writer.sleeps", "B:goes",
         "A:gate.reader.turned_away", "B:gate.writer.in", "A:blocks", "B:ends", "A:ends"}));
    EXPECT_GE(Passes("B", "gate.writer.woken"), 1);
}

TEST_F(GateOrders, AReaderThatWaitedComesInWhenTheWriterHasLeft) {
    EXPECT_TRUE(CarriedOut({Reader("A"), Writer("B")},
                           {"B:gate.writer.in", "A:gate.reader.turned_away", "B:gate.writer.left",
                            "A:gate.reader.shown_again", "A:ends", "B:ends"}));
    EXPECT_EQ(Passes("A", "gate.reader.queues"), 0);
}

TEST_F(GateOrders, AReaderThatShowsItselfAgainMeetsTheNextWriter) {
    EXPECT_TRUE(
        CarriedOut({Reader("A"), Writer("B"), Writer("C")},
                   {"B:gate.writer.in", "A:gate.reader.turned_away", "B:ends",
                    "A:gate.reader.shown_again", "C:gate.writer.counted", "A:gate.reader.queues",
                    "C:test.writer.inside", "A:blocks", "C:ends", "A:ends"}));
}

TEST_F(GateOrders, AReaderThatShowedItselfAgainAndLookedIsWaitedFor) {
    EXPECT_TRUE(CarriedOut(
        {Reader("A"), Writer("B"), Writer("C")},
        {"B:gate.writer.in", "A:gate.reader.turned_away", "B:ends", "A:gate.reader.shown_again",
         "A:gate.reader.looked_strictly", "C:gate.writer.sleeps", "A:ends", "C:ends"}));
}

// ---- A reader leaves, a writer falls asleep.

TEST_F(GateOrders, AReaderThatLeavesBeforeTheWriterSleepsHasPostedForIt) {
    EXPECT_TRUE(
        CarriedOut({Reader("A"), Writer("B")}, {"A:test.reader.inside", "B:gate.writer.sleeps",
                                                "A:ends", "B:gate.writer.woken", "B:ends"}));
    EXPECT_EQ(Passes("B", "gate.writer.gives_up_slice"), 0);
}

TEST_F(GateOrders, AReaderThatHidesBeforeTheSleeperCountsItselfIsSeenToHaveLeft) {
    EXPECT_TRUE(CarriedOut({Reader("A"), Writer("B")},
                           {"A:test.reader.inside", "B:gate.writer.waits", "A:gate.reader.hidden",
                            "B:gate.writer.asleep", "A:ends", "B:ends"}));
    EXPECT_EQ(Passes("B", "gate.writer.sleeps"), 0);
}

TEST_F(GateOrders, AWriterDoesNotWaitForAReaderThatHasHiddenItself) {
    EXPECT_TRUE(CarriedOut({Reader("A"), Writer("B")},
                           {"A:test.reader.inside", "B:gate.writer.waits", "A:gate.reader.hidden",
                            "B:test.writer.inside", "A:ends", "B:ends"}));
}

TEST_F(GateOrders, AReaderThatFoundNoSleeperHasLeftBeforeTheWriterLooksAgain) {
    EXPECT_TRUE(CarriedOut(
        {Reader("A"), Writer("B")},
        {"A:test.reader.inside", "B:gate.writer.waits", "A:gate.reader.looked_for_sleepers",
         "B:test.writer.inside", "A:ends", "B:ends"}));
    EXPECT_EQ(Passes("B", "gate.writer.sleeps"), 0);
}

TEST_F(GateOrders, APostThatNobodyWaitedForWakesALaterWriterOnceForNothing) {
    EXPECT_TRUE(CarriedOut({Reader("A"), Writer("B"), Reader("C"), Writer("D")},
                           {"A:test.reader.inside", "B:gate.writer.waits", "A:gate.reader.hidden",
                            "B:gate.writer.asleep", "A:ends", "B:ends", "C:test.reader.inside",
                            "D:gate.writer.sleeps", "D:gate.writer.woken", "D:gate.writer.sleeps",
                            "C:ends", "D:gate.writer.woken", "D:ends"}));
    EXPECT_EQ(Passes("D", "gate.writer.gives_up_slice"), 0);
}

TEST_F(GateOrders, AReaderAtTheMutexTakesThePostThatNobodyWaitedFor) {
    EXPECT_TRUE(CarriedOut(
        {Reader("A"), Writer("B"), Reader("C"), Writer("D")},
        {"A:test.reader.inside", "B:gate.writer.waits", "A:gate.reader.hidden",
         "B:gate.writer.asleep", "A:ends", "C:gate.reader.queues", "B:ends", "C:test.reader.inside",
         "D:gate.writer.sleeps", "D:gate.writer.gives_up_slice", "C:ends", "D:ends"}));
    EXPECT_EQ(Passes("D", "gate.writer.woken"), 1);
}

TEST_F(GateOrders, TheLastOfTwoReadersWakesTheWriter) {
    EXPECT_TRUE(CarriedOut({Reader("A"), Writer("B"), Reader("C")},
                           {"A:test.reader.inside", "C:test.reader.inside", "B:gate.writer.sleeps",
                            "A:ends", "B:gate.writer.woken", "B:gate.writer.sleeps", "C:ends",
                            "B:gate.writer.woken", "B:ends"}));
    EXPECT_EQ(Passes("B", "gate.writer.gives_up_slice"), 0);
}

// ---- Reads inside of reads.

TEST_F(GateOrders, ANestedReadPassesAWriterThatSleeps) {
    EXPECT_TRUE(CarriedOut({NestedReader("A"), Writer("B")},
                           {"A:test.reader.inside", "B:gate.writer.sleeps", "A:test.inner.inside",
                            "B:blocks", "A:ends", "B:ends"}));
}

TEST_F(GateOrders, ANestedReadPassesAWriterThatIsOnlyCounted) {
    EXPECT_TRUE(CarriedOut({NestedReader("A"), Writer("B")},
                           {"A:test.reader.inside", "B:gate.writer.counted", "A:test.inner.inside",
                            "B:gate.writer.sleeps", "A:ends", "B:ends"}));
    EXPECT_EQ(Passes("A", "gate.reader.turned_away"), 0);
}

TEST_F(GateOrders, ANestedReadThatEndsLetsNoWriterIn) {
    EXPECT_TRUE(CarriedOut({{"A",
                             [this] {
                                 GatePass pass(gate, GatePass::AsReader());
                                 ReadInside();
                                 LookInside();
                             }},
                            Writer("B")},
                           {"A:gate.reader.in", "B:gate.writer.sleeps", "A:test.reader.inside",
                            "B:blocks", "A:ends", "B:ends"}));
}

TEST_F(GateOrders, AReadOfASecondGateIsWaitedFor) {
    RegistryGate outer;
    EXPECT_TRUE(CarriedOut({{"A",
                             [&] {
                                 GatePass pass(outer, GatePass::AsReader());
                                 Read();
                             }},
                            Writer("B")},
                           {"A:test.reader.inside", "B:gate.writer.sleeps", "A:ends",
                            "B:gate.writer.woken", "B:ends"}));
}

TEST_F(GateOrders, AReadOfASecondGateIsTurnedAwayByTheWriterThatItShowedItselfTo) {
    RegistryGate outer;
    EXPECT_TRUE(CarriedOut(
        {{"A",
          [&] {
              GatePass pass(outer, GatePass::AsReader());
              At("test.outer.inside");
              Read();
          }},
         Writer("B")},
        {"A:test.outer.inside", "A:gate.reader.shown", "B:gate.writer.sleeps", "B:goes",
         "A:gate.reader.turned_away", "B:gate.writer.in", "A:blocks", "B:ends", "A:ends"}));
}

// ---- Slices.

TEST_F(GateOrders, AReaderThatIsWaitedForByAReaderComesInBetweenTwoSlices) {
    EXPECT_TRUE(CarriedOut({Reader("A"), Writer("B"), Reader("C")},
                           {"A:test.reader.inside", "B:gate.writer.sleeps", "C:gate.reader.queues",
                            "C:blocks", "B:gate.writer.gives_up_slice", "C:test.reader.inside",
                            "B:gate.writer.sleeps", "C:ends", "A:ends", "B:ends"}));
}

TEST_F(GateOrders, AReaderThatComesWhileTheMutexIsFreeGetsIt) {
    EXPECT_TRUE(
        CarriedOut({Reader("A"), Writer("B"), Reader("C")},
                   {"A:test.reader.inside", "B:gate.writer.gives_up_slice", "C:test.reader.inside",
                    "B:gate.writer.sleeps", "A:ends", "C:ends", "B:ends"}));
    EXPECT_EQ(Passes("C", "gate.reader.has_mutex"), 1);
}

TEST_F(GateOrders, AWriterGetsInWhenTheReadersLeaveWhileItIsWithoutTheMutex) {
    EXPECT_TRUE(CarriedOut({Reader("A"), Writer("B")},
                           {"A:test.reader.inside", "B:gate.writer.gives_up_slice", "A:ends",
                            "B:gate.writer.has_mutex_again", "B:ends"}));
}

TEST_F(GateOrders, AWriterWaitsForTheMutexThatAReaderTookBetweenTwoSlices) {
    EXPECT_TRUE(CarriedOut({Reader("A"), Writer("B"), Reader("C")},
                           {"A:test.reader.inside", "B:gate.writer.gives_up_slice",
                            "C:gate.reader.has_mutex", "B:blocks", "A:ends", "C:test.reader.inside",
                            "B:gate.writer.sleeps", "C:ends", "B:ends"}));
}

TEST_F(GateOrders, ASecondWriterGetsInBetweenTheSlicesOfTheFirst) {
    EXPECT_TRUE(
        CarriedOut({Reader("A"), Writer("B"), Writer("C")},
                   {"A:test.reader.inside", "B:gate.writer.gives_up_slice", "C:gate.writer.sleeps",
                    "B:blocks", "A:ends", "C:test.writer.inside", "C:ends", "B:ends"}));
}

TEST_F(GateOrders, AWriterWithoutTheMutexGivesBackThePostThatAnotherWriterSleepsFor) {
    EXPECT_TRUE(
        CarriedOut({Reader("A"), Writer("B"), Writer("C")},
                   {"A:test.reader.inside", "B:gate.writer.gives_up_slice", "C:gate.writer.sleeps",
                    "A:ends", "B:blocks", "C:test.writer.inside", "C:ends", "B:ends"}));
    EXPECT_EQ(Passes("C", "gate.writer.woken"), 1);
    EXPECT_EQ(Passes("C", "gate.writer.gives_up_slice"), 0);
}

TEST_F(GateOrders, APostThatAWriterGaveBackWakesItAtMostOnceForNothing) {
    EXPECT_TRUE(CarriedOut(
        {Reader("A"), Writer("B"), Reader("C")},
        {"A:test.reader.inside", "C:test.reader.inside", "B:gate.writer.gives_up_slice", "A:ends",
         "B:gate.writer.has_mutex_again", "B:gate.writer.sleeps", "B:gate.writer.woken",
         "B:gate.writer.sleeps", "B:gate.writer.gives_up_slice", "C:ends", "B:ends"}));
    EXPECT_EQ(Passes("B", "gate.writer.woken"), 3);
    EXPECT_EQ(Passes("B", "gate.writer.gives_up_slice"), 2);
}

// ---- Writers among each other, and downgrades.

TEST_F(GateOrders, ASecondWriterWaitsForTheFirst) {
    EXPECT_TRUE(CarriedOut(
        {Writer("A"), Writer("B")},
        {"A:test.writer.inside", "B:gate.writer.counted", "B:blocks", "A:ends", "B:ends"}));
}

TEST_F(GateOrders, ASecondWriterKeepsReadersOutWhenTheFirstHasLeft) {
    EXPECT_TRUE(CarriedOut(
        {Reader("A"), Writer("B"), Writer("C")},
        {"B:test.writer.inside", "C:gate.writer.counted", "C:blocks", "B:ends", "C:gate.writer.in",
         "A:gate.reader.turned_away", "A:blocks", "C:ends", "A:ends"}));
}

TEST_F(GateOrders, ReadersThatWereTurnedAwayHaveATurnBetweenTwoWriters) {
    EXPECT_TRUE(
        CarriedOut({Reader("A"), Writer("B"), Writer("C")},
                   {"B:gate.writer.in", "A:gate.reader.turned_away", "C:gate.writer.leaves_a_turn",
                    "B:ends", "A:test.reader.inside", "C:gate.writer.sleeps", "A:ends", "C:ends"}));
}

TEST_F(GateOrders, ADowngradedWriterIsWaitedForByTheNextOne) {
    EXPECT_TRUE(CarriedOut({Downgrader("A"), Writer("B")},
                           {"A:gate.writer.shown", "B:gate.writer.counted", "B:blocks",
                            "A:test.reader.inside", "B:gate.writer.sleeps", "A:ends", "B:ends"}));
}

TEST_F(GateOrders, BetweenWritingAndReadingNoWriterGetsIn) {
    EXPECT_TRUE(
        CarriedOut({Downgrader("A"), Writer("B")},
                   {"A:gate.writer.uncounted", "B:gate.writer.counted", "B:blocks",
                    "A:gate.writer.downgraded", "B:gate.writer.sleeps", "A:ends", "B:ends"}));
}

TEST_F(GateOrders, AReaderComesInBesideADowngradedWriterThatStillHasTheMutex) {
    EXPECT_TRUE(CarriedOut({Downgrader("A"), Reader("B")},
                           {"A:gate.writer.uncounted", "B:test.reader.inside",
                            "A:test.reader.inside", "B:ends", "A:ends"}));
    EXPECT_EQ(Passes("B", "gate.reader.turned_away"), 0);
}

TEST_F(GateOrders, AReaderStaysOutOfAWriterThatShowsItselfAsAReader) {
    EXPECT_TRUE(
        CarriedOut({Downgrader("A"), Reader("B")},
                   {"A:gate.writer.shown", "B:gate.reader.turned_away", "A:ends", "B:ends"}));
}

TEST_F(GateOrders, AWriterWaitsForADowngradedOneAndForTheReaderBesideIt) {
    EXPECT_TRUE(CarriedOut({Downgrader("A"), Reader("B"), Writer("C")},
                           {"A:test.reader.inside", "B:test.reader.inside", "C:gate.writer.sleeps",
                            "A:ends", "C:gate.writer.woken", "C:gate.writer.sleeps", "B:ends",
                            "C:gate.writer.woken", "C:ends"}));
}

// ---- Readers' own fence.

TEST_F(StrictGateOrders, AReaderThatSeesAWriterAtItsSecondLookIsTurnedAway) {
    EXPECT_TRUE(
        CarriedOut({Reader("A"), Writer("B")},
                   {"A:gate.reader.looked", "B:gate.writer.counted", "A:gate.reader.turned_away",
                    "B:test.writer.inside", "A:blocks", "B:ends", "A:ends"}));
    EXPECT_EQ(Passes("A", "gate.reader.looked_strictly"), 0);
}

TEST_F(StrictGateOrders, AReaderThatPassedItsSecondLookIsWaitedFor) {
    EXPECT_TRUE(CarriedOut({Reader("A"), Writer("B")},
                           {"A:gate.reader.looked_strictly", "B:gate.writer.sleeps",
                            "A:test.reader.inside", "B:blocks", "A:ends", "B:ends"}));
}

TEST_F(StrictGateOrders, AReaderThatShowsItselfBeforeTheWriterCountsIsTurnedAway) {
    EXPECT_TRUE(CarriedOut(
        {Reader("A"), Writer("B")},
        {"A:gate.reader.shown", "B:gate.writer.sleeps", "B:goes", "A:gate.reader.turned_away",
         "B:test.writer.inside", "A:blocks", "B:ends", "A:ends"}));
}

// ---- Work that a read puts off.

struct WriteTask : GateTask {
    explicit WriteTask(std::function<void()> to_do) : work(std::move(to_do)) {
        run = [](GateTask* task) { static_cast<WriteTask*>(task)->work(); };
    }
    const std::function<void()> work;
};

TEST_F(GateOrders, WhatAReadPutOffWaitsForTheWriterThatWaitedForTheRead) {
    WriteTask task([this] { Write(); });
    EXPECT_TRUE(CarriedOut({{"A",
                             [&] {
                                 GatePass pass(gate, GatePass::AsReader());
                                 gate.AfterRead(&task);
                                 LookInside();
                             }},
                            Writer("B")},
                           {"A:test.reader.inside", "B:gate.writer.sleeps", "A:gate.task.runs",
                            "B:test.writer.inside", "A:blocks", "B:ends", "A:ends"}));
}

TEST_F(GateOrders, WhatTwoReadsPutOffWaitsForBothReads) {
    WriteTask first([this] { Write(); });
    WriteTask second([this] { Write(); });
    const auto read = [this](WriteTask& task) {
        GatePass pass(gate, GatePass::AsReader());
        gate.AfterRead(&task);
        LookInside();
    };
    EXPECT_TRUE(CarriedOut(
        {{"A", [&] { read(first); }}, {"B", [&] { read(second); }}},
        {"A:test.reader.inside", "B:test.reader.inside", "A:gate.task.runs", "A:gate.writer.sleeps",
         "A:blocks", "B:gate.task.runs", "A:test.writer.inside", "B:blocks", "A:ends", "B:ends"}));
}

}  // namespace
}  // namespace vessa_test
