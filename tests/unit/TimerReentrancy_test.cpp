// A timer that is started and stopped from inside its own callback.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "common/ThreadScope.h"
#include "common/Timer.h"
#include "support/Allocation.h"
#include "support/Runtime.h"
#include "support/Sync.h"
#include "unit/TimerCallback.h"

using vessa_test::AllocationFailure;
using vessa_test::Barrier;
using vessa_test::Callback;
using vessa_test::Gate;
using vessa_test::JoiningThread;
using vessa_test::kPeriodMs;
using vessa_test::NewWatched;
using vessa_test::Runtime;
using vessa_test::RuntimeCall;
using vessa_test::Tova;

namespace {

TEST(TimerReentrancy, StopFromTheCallbackDoesNotJoinItself) {
    const auto before = Runtime::Census();
    {
        bool stopped = false;
        long joins_inside = -1;
        Callback callback;
        Runtime runtime;
        {
            Timer timer;
            callback.body = [&] {
                stopped = timer.StopTimer();
                joins_inside = runtime.Calls(Tova::Thread_Wait);
            };
            ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
            EXPECT_FALSE(runtime.Tick());
            EXPECT_TRUE(stopped);
            EXPECT_EQ(joins_inside, 0);
            EXPECT_EQ(callback.runs, 1);
            EXPECT_TRUE(timer.StopTimer());
        }
        EXPECT_EQ(runtime.Calls(Tova::Thread_Wait), 1);
    }
    EXPECT_EQ(Runtime::Census(), before);
}

TEST(TimerReentrancy, AStartAfterAStopFromTheCallbackJoinsTheFormerThread) {
    Callback callback;
    Callback next;
    Runtime runtime;
    Timer timer;
    callback.body = [&] { timer.StopTimer(); };
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    EXPECT_FALSE(runtime.Tick());
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, next.Bound()));
    EXPECT_EQ(runtime.Calls(Tova::Thread_Wait), 1);
    EXPECT_TRUE(runtime.Tick());
    EXPECT_EQ(callback.runs, 1);
    EXPECT_EQ(next.runs, 1);
    EXPECT_TRUE(timer.StopTimer());
}

TEST(TimerReentrancy, SetFromTheCallbackGivesItsThreadANewPeriodAndCallback) {
    bool set = false;
    Callback callback;
    Callback next;
    Runtime runtime;
    Timer timer;
    callback.body = [&] { set = timer.SetTimer(5000, next.Bound()); };
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    EXPECT_TRUE(runtime.Tick());
    EXPECT_TRUE(set);
    EXPECT_EQ(runtime.AwaitWaiters().at(0).milliseconds, 5000U);
    EXPECT_TRUE(runtime.Tick());
    EXPECT_TRUE(runtime.Tick());
    EXPECT_EQ(callback.runs, 1);
    EXPECT_EQ(next.runs, 2);
    EXPECT_EQ(next.thread, callback.thread);
    EXPECT_EQ(runtime.Calls(Tova::Thread_Create), 1);
    EXPECT_EQ(runtime.Calls(Tova::Thread_Wait), 0);
    EXPECT_TRUE(timer.StopTimer());
    EXPECT_EQ(runtime.Calls(Tova::Thread_Wait), 1);
}

TEST(TimerReentrancy, SetFromTheCallbackNeverWaitsWithoutEnd) {
    Callback callback;
    Callback next;
    Runtime runtime;
    Timer timer;
    callback.body = [&] { timer.SetTimer(0xFFFFFFFF, next.Bound()); };
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    EXPECT_TRUE(runtime.Tick());
    EXPECT_EQ(runtime.AwaitWaiters().at(0).milliseconds, 0xFFFFFFFEU);
    EXPECT_TRUE(timer.StopTimer());
}

TEST(TimerReentrancy, SetFromTheCallbackRefusesANullCallbackAndGoesOn) {
    bool set = true;
    Callback callback;
    Runtime runtime;
    Timer timer;
    callback.body = [&] { set = timer.SetTimer(5000, ObjectPtrT<Closure>()); };
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    EXPECT_TRUE(runtime.Tick());
    EXPECT_FALSE(set);
    EXPECT_EQ(runtime.AwaitWaiters().at(0).milliseconds, kPeriodMs);
    EXPECT_TRUE(runtime.Tick());
    EXPECT_EQ(callback.runs, 2);
    EXPECT_TRUE(timer.StopTimer());
}

TEST(TimerReentrancy, SetFromTheCallbackNeedsNoMemory) {
    bool set = false;
    Callback callback;
    Callback next;
    const ObjectPtrT<Closure> bound = next.Bound();
    Runtime runtime;
    Timer timer;
    callback.body = [&] {
        AllocationFailure none(1, AllocationFailure::Mode::kFromNth);
        set = timer.SetTimer(kPeriodMs, bound);
    };
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    EXPECT_TRUE(runtime.Tick());
    EXPECT_TRUE(set);
    EXPECT_TRUE(runtime.Tick());
    EXPECT_EQ(next.runs, 1);
    EXPECT_TRUE(timer.StopTimer());
}

TEST(TimerReentrancy, TheLastRequestOfACallbackHolds) {
    Callback callback;
    Callback next;
    Runtime runtime;
    Timer timer;
    callback.body = [&] {
        timer.StopTimer();
        timer.SetTimer(5000, next.Bound());
    };
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    EXPECT_TRUE(runtime.Tick());
    next.body = [&] {
        timer.SetTimer(kPeriodMs, callback.Bound());
        timer.StopTimer();
    };
    EXPECT_FALSE(runtime.Tick());
    EXPECT_EQ(callback.runs, 1);
    EXPECT_EQ(next.runs, 1);
}

TEST(TimerReentrancy, LetsACallbackGoThatAnotherSetWhenItIsStopped) {
    std::atomic<int> ends{0};
    Callback callback;
    Runtime runtime;
    Timer timer;
    callback.body = [&] { timer.SetTimer(kPeriodMs, NewWatched(ends)); };
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    EXPECT_TRUE(runtime.Tick());
    EXPECT_TRUE(runtime.Tick());
    EXPECT_EQ(ends, 0);
    EXPECT_TRUE(timer.StopTimer());
    EXPECT_EQ(ends, 1);
}

TEST(TimerReentrancy, AStopFromTheEndOfItsFrameDoesNotJoinItself) {
    static Timer* the_timer = nullptr;
    static bool stopped = false;
    stopped = false;
    Callback callback;
    Runtime runtime;
    Timer timer;
    the_timer = &timer;
    callback.body = [&] {
        ThreadScope().State().at_end = [] { stopped = the_timer->StopTimer(); };
    };
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    EXPECT_FALSE(runtime.Tick());
    EXPECT_TRUE(stopped);
    EXPECT_EQ(runtime.Calls(Tova::Thread_Wait), 0);
}

TEST(TimerReentrancy, AnotherTimersCallbackIsNoOwnThread) {
    bool stopped = false;
    Callback first;
    Callback second;
    Runtime runtime;
    Timer one;
    Timer two;
    ASSERT_TRUE(one.SetTimer(kPeriodMs, first.Bound()));
    const int waiter_of_one = runtime.AwaitWaiters(1).at(0).id;
    ASSERT_TRUE(two.SetTimer(kPeriodMs, second.Bound()));
    const int waiter_of_two = runtime.AwaitWaiters(2).at(1).id;
    first.body = [&] { stopped = two.StopTimer(); };
    EXPECT_TRUE(runtime.Tick(waiter_of_one));
    EXPECT_TRUE(stopped);
    EXPECT_EQ(runtime.Calls(Tova::Thread_Wait), 1);
    EXPECT_EQ(runtime.Waiters().size(), 1U);
    EXPECT_NE(waiter_of_one, waiter_of_two);
    EXPECT_TRUE(one.StopTimer());
}

// Another thread holds the mutex and waits for the callback that now asks for the same.
void WhileAnotherStops(const std::function<bool(Timer&)>& ask) {
    Gate inside;
    Gate go_on;
    bool asked = false;
    Callback callback;
    Runtime runtime;
    runtime.Before(Tova::Thread_Wait, [&](RuntimeCall&) { go_on.Open(); });
    Timer timer;
    callback.body = [&] {
        inside.Open();
        go_on.Wait();
        asked = ask(timer);
    };
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    runtime.StartTick();
    inside.Wait();
    JoiningThread other([&] { timer.StopTimer(); });
    other.Join();
    EXPECT_TRUE(asked);
    EXPECT_EQ(callback.runs, 1);
    EXPECT_TRUE(runtime.Waiters().empty());
    // Whatever was asked, the stop that waited for the thread is the last word.
    const long locks = runtime.Calls(Tova::MutexLock);
    EXPECT_TRUE(timer.StopTimer());
    EXPECT_EQ(runtime.Calls(Tova::MutexLock), locks);
}

TEST(TimerReentrancy, StopFromTheCallbackWhileAnotherThreadStops) {
    WhileAnotherStops([](Timer& timer) { return timer.StopTimer(); });
}

TEST(TimerReentrancy, SetFromTheCallbackWhileAnotherThreadStops) {
    Callback next;
    WhileAnotherStops([&](Timer& timer) { return timer.SetTimer(5000, next.Bound()); });
    EXPECT_EQ(next.runs, 0);
}

// The callback stops the timer and starts it again while a start from outside already waits
// for its thread; that start then fails, and the timer is stopped.
TEST(TimerReentrancy, AFailedStartLeavesItStoppedWhateverTheCallbackAsked) {
    Gate inside;
    Gate go_on;
    Callback callback;
    Callback next;
    Callback last;
    Runtime runtime;
    runtime.Before(Tova::Thread_Wait, [&](RuntimeCall&) { go_on.Open(); });
    Timer timer;
    callback.body = [&] {
        timer.StopTimer();
        inside.Open();
        go_on.Wait();
        timer.SetTimer(kPeriodMs, next.Bound());
    };
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    runtime.StartTick();
    inside.Wait();
    runtime.FailCall(Tova::Thread_Create);
    EXPECT_FALSE(timer.SetTimer(kPeriodMs, last.Bound()));
    EXPECT_TRUE(runtime.Waiters().empty());
    const long locks = runtime.Calls(Tova::MutexLock);
    EXPECT_TRUE(timer.StopTimer());
    EXPECT_EQ(runtime.Calls(Tova::MutexLock), locks);
    EXPECT_EQ(next.runs + last.runs, 0);
}

TEST(TimerReentrancy, AskToEndFromTheCallbackWaitsForNothing) {
    Callback callback;
    Runtime runtime;
    Timer timer;
    callback.body = [&] { timer.AskToEnd(kPeriodMs); };
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    EXPECT_TRUE(runtime.Tick());
    EXPECT_TRUE(runtime.Tick());
    EXPECT_EQ(callback.runs, 2);
    EXPECT_TRUE(timer.StopTimer());
}

// Starts and stops of three sides with real, very short periods. Everybody gets through, and
// no thread is left.
TEST(TimerReentrancy, StandsARandomMixOfStartsAndStops) {
    constexpr int kRounds = 150;
    const auto before = Runtime::Census();
    {
        struct Restless {
            Timer* timer = nullptr;
            TOVA_Sema ran;
            std::atomic<int> runs{0};
            void Run() {
                const int run = ++runs;
                ran.Post();
                if (run % 7 == 0) timer->StopTimer();
                if (run % 3 == 0)
                    timer->SetTimer(static_cast<unsigned>(run % 2),
                                    NewClosure(this, &Restless::Run));
            }
        } callback;
        Timer timer;
        callback.timer = &timer;
        Barrier start(2);
        const auto mix = [&](unsigned seed) {
            std::mt19937 random(seed);
            start.ArriveAndWait();
            for (int round = 0; round < kRounds; ++round) {
                if (random() % 3 == 0)
                    timer.StopTimer();
                else
                    timer.SetTimer(random() % 2, NewClosure(&callback, &Restless::Run));
                // Now and then the callback gets its turn before the next request.
                if (random() % 4 == 0) callback.ran.TimedWait(10);
            }
        };
        {
            JoiningThread one([&] { mix(1); });
            JoiningThread two([&] { mix(2); });
        }
        while (callback.ran.TimedWait(0) == 0) {
        }
        // It works as on the first day. Its destruction ends what the callback started again.
        EXPECT_TRUE(timer.SetTimer(0, NewClosure(&callback, &Restless::Run)));
        EXPECT_EQ(callback.ran.TimedWait(kPeriodMs), 0);
        EXPECT_TRUE(timer.StopTimer());
    }
    EXPECT_EQ(Runtime::Census(), before);
}

}  // namespace
