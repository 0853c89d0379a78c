// What carries orders out: that it holds threads where it says, tells what blocks, and reports an
// order that cannot be carried out instead of hanging or passing it over.
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "reliability/orders/Order.h"
#include "support/Sync.h"

namespace vessa_test {
namespace {

// For the step that nobody takes; those before it are to be done by then on a busy machine, too.
constexpr std::chrono::seconds kSoon{5};

// What threads do, in the order in which they did it.
class Diary {
  public:
    void Write(const char* entry) {
        std::lock_guard<std::mutex> lock(mutex_);
        entries_.push_back(entry);
    }
    std::vector<std::string> Entries() {
        std::lock_guard<std::mutex> lock(mutex_);
        return entries_;
    }

  private:
    std::mutex mutex_;
    std::vector<std::string> entries_;
};

using Entries = std::vector<std::string>;

class OrderSelf : public testing::Test {
  protected:
    OrderThread TwoEntries(const char* name, const char* first, const char* second) {
        return {name, [=] {
                    diary.Write(first);
                    At("test.first.written");
                    diary.Write(second);
                    At("test.second.written");
                }};
    }
    std::string Message(const testing::AssertionResult& result) {
        EXPECT_FALSE(result);
        return result.message();
    }

    Diary diary;
};

TEST_F(OrderSelf, ThreadsTakeTheirStepsInTheOrderThatIsWritten) {
    const auto threads = {TwoEntries("A", "a1", "a2"), TwoEntries("B", "b1", "b2")};
    EXPECT_TRUE(CarriedOut(threads, {"B:test.first.written", "A:test.first.written",
                                     "A:test.second.written", "B:ends", "A:ends"}));
    EXPECT_EQ(diary.Entries(), (Entries{"b1", "a1", "a2", "b2"}));
    EXPECT_EQ(Passes("A", "test.first.written"), 1);
    EXPECT_EQ(Passes("A", "test.third.written"), 0);
}

TEST_F(OrderSelf, APointThatIsNotListedDoesNotHold) {
    EXPECT_TRUE(CarriedOut({TwoEntries("A", "a1", "a2"), TwoEntries("B", "b1", "b2")},
                           {"A:test.second.written", "B:ends", "A:ends"}));
    EXPECT_EQ(diary.Entries(), (Entries{"a1", "a2", "b1", "b2"}));
}

TEST_F(OrderSelf, ThreadsThatAreHeldAtTheEndOfTheOrderGoOn) {
    EXPECT_TRUE(CarriedOut({TwoEntries("A", "a1", "a2")}, {"A:test.first.written"}));
    EXPECT_EQ(diary.Entries(), (Entries{"a1", "a2"}));
}

TEST_F(OrderSelf, APointThatIsPassedTwiceIsHeldAtTwice) {
    const auto twice = [this] {
        for (const char* entry : {"1", "2"}) {
            diary.Write(entry);
            At("test.entry.written");
        }
    };
    EXPECT_TRUE(CarriedOut({{"A", twice}, TwoEntries("B", "b1", "b2")},
                           {"A:test.entry.written", "B:test.first.written", "A:test.entry.written",
                            "B:ends", "A:ends"}));
    EXPECT_EQ(diary.Entries(), (Entries{"1", "b1", "2", "b2"}));
    EXPECT_EQ(Passes("A", "test.entry.written"), 2);
}

TEST_F(OrderSelf, AThreadThatStandsInALockBlocks) {
    std::mutex mutex;
    const auto locked = [&](const char* entry) {
        return [this, &mutex, entry] {
            std::lock_guard<std::mutex> lock(mutex);
            diary.Write(entry);
            At("test.lock.held");
        };
    };
    EXPECT_TRUE(CarriedOut({{"A", locked("a")}, {"B", locked("b")}},
                           {"A:test.lock.held", "B:blocks", "A:ends", "B:ends"}));
    EXPECT_EQ(diary.Entries(), (Entries{"a", "b"}));
}

TEST_F(OrderSelf, AThreadThatDoesNotBlockIsReported) {
    EXPECT_EQ(Message(CarriedOut({TwoEntries("A", "a1", "a2"), TwoEntries("B", "b1", "b2")},
                                 {"A:test.first.written", "B:blocks", "A:ends", "B:ends"})),
              "the order's step 'B:blocks' was not reached; A is held at test.first.written; B "
              "has ended;");
    EXPECT_EQ(
        Message(
            CarriedOut({TwoEntries("A", "a1", "a2"), TwoEntries("B", "b1", "b2")},
                       {"A:test.first.written", "B:blocks", "A:ends", "B:test.second.written"})),
        "the order's step 'B:blocks' did not block; A is held at test.first.written; B is held at "
        "test.second.written;");
}

TEST_F(OrderSelf, AThreadThatEndsBeforeItsPointIsReported) {
    EXPECT_EQ(Message(CarriedOut({TwoEntries("A", "a1", "a2"), TwoEntries("B", "b1", "b2")},
                                 {"A:test.first.written", "B:test.third.written", "A:ends"})),
              "the order's step 'B:test.third.written' was not reached; A is held at "
              "test.first.written; B has ended;");
}

// An order that the library's locks forbid: nobody reaches the point, and nobody hangs for it.
TEST_F(OrderSelf, AnOrderThatCannotBeCarriedOutIsReportedAndEnds) {
    std::mutex mutex;
    const auto locked = [&] {
        At("test.lock.wanted");
        std::lock_guard<std::mutex> lock(mutex);
        At("test.lock.held");
    };
    EXPECT_EQ(Message(CarriedOut({{"A", locked}, {"B", locked}, {"C", locked}},
                                 {"A:test.lock.held", "B:test.lock.held", "A:ends"}, kSoon)),
              "the order's step 'B:test.lock.held' took too long; A is held at test.lock.held; B "
              "waits since test.lock.wanted; C has not started;");
}

TEST_F(OrderSelf, AStepOfNobodyIsReported) {
    EXPECT_EQ(Message(CarriedOut({TwoEntries("A", "a1", "a2")}, {"B:test.first.written"})),
              "the step 'B:test.first.written' is of no thread of the order");
    EXPECT_TRUE(diary.Entries().empty());
}

TEST_F(OrderSelf, AnOrderOfTooManyThreadsIsReported) {
    EXPECT_EQ(
        Message(CarriedOut(std::vector<OrderThread>(5, TwoEntries("A", "a1", "a2")), {"A:ends"})),
        "too many threads in the order");
}

TEST_F(OrderSelf, WhatAThreadThrowsIsReported) {
    EXPECT_EQ(
        Message(CarriedOut({{"A", [] { throw std::runtime_error("too much"); }}}, {"A:ends"})),
        "A has thrown: too much");
}

// A thread that the test does not start takes the name that waits for it at a point.
TEST_F(OrderSelf, AnotherThreadTakesItsPlaceAtItsFirstPoint) {
    Gate start;
    JoiningThread other([&] {
        start.Wait();
        At("test.other.begins");
        diary.Write("other");
        At("test.other.wrote");
    });
    EXPECT_TRUE(CarriedOut(
        {TwoEntries("A", "a1", "a2"), {"O", nullptr}, {"starter", [&] { start.Open(); }}},
        {"starter:ends", "O:test.other.begins", "A:test.first.written", "O:test.other.wrote",
         "A:ends"}));
    other.Join();
    EXPECT_EQ(diary.Entries(), (Entries{"a1", "other", "a2"}));
}

#if defined(__has_feature)
#  if __has_feature(thread_sanitizer)
#    define WITH_THREAD_SANITIZER
#  endif
#endif

#ifdef WITH_THREAD_SANITIZER
// Two threads write plain memory one after the other, ordered by the order alone.
void RaceInOrder() {
    int value = 0;
    const auto write = [&] {
        ++value;
        At("test.value.written");
    };
    EXPECT_TRUE(CarriedOut({{"A", write}, {"B", write}},
                           {"A:test.value.written", "B:test.value.written", "A:ends", "B:ends"}));
    EXPECT_EQ(value, 2);
    std::exit(testing::Test::HasFailure() ? 1 : 0);
}

TEST_F(OrderSelf, ARaceIsSeenAlthoughThreadsTakeTurns) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(RaceInOrder(), testing::ExitedWithCode(66), "data race");
}
#endif

}  // namespace
}  // namespace vessa_test
