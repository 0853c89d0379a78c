#include "common/Timer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "ThreadStacks.h"
#include "common/ThreadScope.h"
#include "support/Allocation.h"
#include "support/Runtime.h"
#include "support/Sync.h"
#include "unit/TimerCallback.h"

using vessa_test::AllocationFailure;
using vessa_test::Barrier;
using vessa_test::Callback;
using vessa_test::Gate;
using vessa_test::JoiningThread;
using vessa_test::kErrorNoResources;
using vessa_test::kPeriodMs;
using vessa_test::LiveBlocks;
using vessa_test::NewWatched;
using vessa_test::Runtime;
using vessa_test::RuntimeCall;
using vessa_test::Tova;

namespace {

TEST(Timer, RunsTheCallbackOnItsOwnThreadAfterEachPeriod) {
    const auto before = Runtime::Census();
    {
        Callback callback;
        Runtime runtime;
        Timer timer;
        ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
        EXPECT_EQ(runtime.AwaitWaiters().at(0).milliseconds, kPeriodMs);
        EXPECT_EQ(callback.runs, 0);
        EXPECT_TRUE(runtime.Tick());
        EXPECT_EQ(callback.runs, 1);
        const std::thread::id first = callback.thread;
        EXPECT_NE(first, std::this_thread::get_id());
        EXPECT_TRUE(runtime.Tick());
        EXPECT_EQ(callback.runs, 2);
        EXPECT_EQ(callback.thread, first);
        EXPECT_TRUE(timer.StopTimer());
        EXPECT_EQ(callback.runs, 2);
        EXPECT_TRUE(runtime.Waiters().empty());
        EXPECT_EQ(runtime.Calls(Tova::Thread_Wait), 1);
    }
    EXPECT_EQ(Runtime::Census(), before);
}

TEST(Timer, StopEndsAtOnceWhenItIsStopped) {
    Callback callback;
    Runtime runtime;
    Timer timer;
    const long locks = runtime.Calls(Tova::MutexLock);
    EXPECT_TRUE(timer.StopTimer());
    EXPECT_EQ(runtime.Calls(Tova::MutexLock), locks);
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    EXPECT_TRUE(timer.StopTimer());
    const long locks_after = runtime.Calls(Tova::MutexLock);
    EXPECT_TRUE(timer.StopTimer());
    EXPECT_EQ(runtime.Calls(Tova::MutexLock), locks_after);
}

TEST(Timer, RefusesANullCallbackAndLeavesARunningTimerAlone) {
    Callback callback;
    Runtime runtime;
    Timer timer;
    EXPECT_FALSE(timer.SetTimer(kPeriodMs, ObjectPtrT<Closure>()));
    EXPECT_EQ(runtime.Calls(Tova::Thread_Create), 0);
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    EXPECT_FALSE(timer.SetTimer(kPeriodMs, ObjectPtrT<Closure>()));
    EXPECT_TRUE(runtime.Tick());
    EXPECT_EQ(callback.runs, 1);
    EXPECT_TRUE(timer.StopTimer());
}

TEST(Timer, SetOnARunningTimerJoinsTheOldThreadAndStartsANewOne) {
    std::atomic<int> ends{0};
    Callback callback;
    long joined_before_second_start = -1;
    Runtime runtime;
    runtime.Before(Tova::Thread_Create, [&](RuntimeCall& call) {
        if (call.index == 2) joined_before_second_start = runtime.Calls(Tova::Thread_Wait);
    });
    Timer timer;
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, NewWatched(ends)));
    EXPECT_TRUE(runtime.Tick());
    ASSERT_TRUE(timer.SetTimer(5000, callback.Bound()));
    EXPECT_EQ(joined_before_second_start, 1);
    EXPECT_EQ(ends, 1);
    EXPECT_EQ(runtime.AwaitWaiters().at(0).milliseconds, 5000U);
    EXPECT_EQ(runtime.Waiters().size(), 1U);
    EXPECT_TRUE(runtime.Tick());
    EXPECT_EQ(callback.runs, 1);
    EXPECT_TRUE(timer.StopTimer());
    EXPECT_EQ(runtime.Calls(Tova::Thread_Create), 2);
}

TEST(Timer, LetsTheCallbackGoWhenItIsStopped) {
    std::atomic<int> ends{0};
    Runtime runtime;
    Timer timer;
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, NewWatched(ends)));
    EXPECT_TRUE(runtime.Tick());
    EXPECT_EQ(ends, 0);
    EXPECT_TRUE(timer.StopTimer());
    EXPECT_EQ(ends, 1);
}

TEST(Timer, APostThatIsLeftOverDoesNotEndTheNextThread) {
    Callback callback;
    Runtime runtime;
    Timer timer;
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    // The thread takes one post and ends; those after it are left over.
    timer.AskToEnd(kPeriodMs);
    timer.AskToEnd(kPeriodMs);
    EXPECT_TRUE(timer.StopTimer());
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    EXPECT_TRUE(runtime.Tick());
    EXPECT_TRUE(runtime.Tick());
    EXPECT_EQ(callback.runs, 2);
    EXPECT_TRUE(timer.StopTimer());
}

TEST(Timer, APeriodBeginsWhenTheCallbackEnds) {
    Gate inside;
    Gate go_on;
    Callback callback;
    callback.body = [&] {
        inside.Open();
        go_on.Wait();
    };
    Runtime runtime;
    Timer timer;
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    const int waiter = runtime.StartTick();
    inside.Wait();
    // However long the callback takes, no time of the next period passes.
    EXPECT_TRUE(runtime.Waiters().empty());
    go_on.Open();
    EXPECT_TRUE(runtime.AwaitRound(waiter));
    EXPECT_EQ(runtime.Waiters().at(0).milliseconds, kPeriodMs);
    EXPECT_EQ(callback.runs, 1);
    EXPECT_TRUE(runtime.Tick());
    EXPECT_EQ(callback.runs, 2);
    EXPECT_TRUE(timer.StopTimer());
}

TEST(Timer, StopWaitsForTheRunningCallback) {
    Gate inside;
    Gate go_on;
    std::atomic<bool> callback_ended{false};
    bool stop_saw_the_end = false;
    Callback callback;
    callback.body = [&] {
        inside.Open();
        go_on.Wait();
        callback_ended = true;
    };
    Runtime runtime;
    // Opened only when the stop waits for the thread.
    runtime.Before(Tova::Thread_Wait, [&](RuntimeCall&) { go_on.Open(); });
    Timer timer;
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    runtime.StartTick();
    inside.Wait();
    EXPECT_TRUE(timer.StopTimer());
    stop_saw_the_end = callback_ended;
    EXPECT_TRUE(stop_saw_the_end);
    EXPECT_EQ(callback.runs, 1);
}

TEST(Timer, StopsOfTwoThreadsBothEndAfterTheCallback) {
    Gate inside;
    Gate go_on;
    std::atomic<bool> callback_ended{false};
    std::atomic<int> locking{0};
    std::atomic<int> saw_the_end{0};
    Callback callback;
    callback.body = [&] {
        inside.Open();
        go_on.Wait();
        callback_ended = true;
    };
    Runtime runtime;
    Timer timer;
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    runtime.StartTick();
    inside.Wait();
    runtime.Before(Tova::MutexLock, [&](RuntimeCall&) {
        if (++locking == 2) go_on.Open();
    });
    const auto stop = [&] {
        timer.StopTimer();
        if (callback_ended) ++saw_the_end;
    };
    JoiningThread one(stop);
    JoiningThread two(stop);
    one.Join();
    two.Join();
    EXPECT_EQ(saw_the_end, 2);
    EXPECT_EQ(runtime.Calls(Tova::Thread_Wait), 1);
}

TEST(Timer, WhatTheCallbackThrowsEndsWithIt) {
    Callback callback;
    callback.body = [&] {
        if (callback.runs == 1) throw std::runtime_error("first");
        if (callback.runs == 2) throw 2;
    };
    Runtime runtime;
    Timer timer;
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    for (int tick = 1; tick <= 3; ++tick) {
        EXPECT_TRUE(runtime.Tick());
        EXPECT_EQ(callback.runs, tick);
    }
    EXPECT_TRUE(timer.StopTimer());
}

TEST(Timer, ACallbackRunsInsideALibraryFrameOfItsOwn) {
    static std::atomic<int> at_end_runs{0};
    at_end_runs = 0;
    int frames = 0;
    bool in_plugin_call = true;
    int at_end_runs_inside = -1;
    Callback callback;
    callback.body = [&] {
        const ThreadState* const state = ThreadScope::Current();
        frames = state != nullptr ? state->frames : 0;
        in_plugin_call = ThreadScope::InPluginCall();
        ThreadScope().State().at_end = [] { ++at_end_runs; };
        at_end_runs_inside = at_end_runs;
    };
    Runtime runtime;
    Timer timer;
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    EXPECT_TRUE(runtime.Tick());
    EXPECT_EQ(frames, 1);
    EXPECT_FALSE(in_plugin_call);
    EXPECT_EQ(at_end_runs_inside, 0);
    EXPECT_EQ(at_end_runs, 1);
    EXPECT_TRUE(runtime.Tick());
    EXPECT_EQ(at_end_runs, 2);
    EXPECT_TRUE(timer.StopTimer());
}

TEST(Timer, HasAStackForTheDeepestListFile) {
    size_t stack_bytes = 0;
    Callback callback;
    callback.body = [&] { stack_bytes = vessa_test::OwnStackBytes(); };
    Runtime runtime;
    Timer timer;
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    EXPECT_TRUE(runtime.Tick());
    EXPECT_TRUE(timer.StopTimer());
    EXPECT_GE(stack_bytes, size_t{1} << 20);
}

TEST(Timer, NeverWaitsWithoutEnd) {
    Callback callback;
    Runtime runtime;
    Timer timer;
    ASSERT_TRUE(timer.SetTimer(0xFFFFFFFF, callback.Bound()));
    EXPECT_EQ(runtime.AwaitWaiters().at(0).milliseconds, 0xFFFFFFFEU);
    EXPECT_TRUE(runtime.Tick());
    EXPECT_EQ(callback.runs, 1);
    EXPECT_TRUE(timer.StopTimer());
}

TEST(Timer, APeriodOfNothingRunsOverAndOverUntilItIsStopped) {
    Gate often;
    Callback callback;
    callback.body = [&] {
        if (callback.runs == 100) often.Open();
    };
    Timer timer;
    ASSERT_TRUE(timer.SetTimer(0, callback.Bound()));
    often.Wait();
    EXPECT_TRUE(timer.StopTimer());
    const int runs = callback.runs;
    EXPECT_GE(runs, 100);
}

TEST(Timer, AFailingWaitIsNoBusyLoop) {
    Callback callback;
    Runtime runtime;
    runtime.FailFrom(Tova::SemTimedWait);
    Timer timer;
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    for (int tick = 1; tick <= 3; ++tick) {
        EXPECT_TRUE(runtime.Tick());
        EXPECT_EQ(callback.runs, tick);
    }
    EXPECT_TRUE(timer.StopTimer());
    EXPECT_EQ(callback.runs, 3);
}

TEST(Timer, WithoutAThreadItIsStoppedAndTheSystemsErrorIsKept) {
    std::atomic<int> ends{0};
    const auto before = Runtime::Census();
    {
        Callback callback;
        Runtime runtime;
        Timer timer;
        runtime.FailCall(Tova::Thread_Create, 1, kErrorNoResources);
        const bool started = timer.SetTimer(kPeriodMs, NewWatched(ends));
        const int error = TOVA_GetSystemLastError();
        EXPECT_FALSE(started);
        EXPECT_EQ(error, kErrorNoResources);
        EXPECT_EQ(ends, 1);
        EXPECT_TRUE(runtime.Waiters().empty());
        EXPECT_TRUE(timer.StopTimer());
        EXPECT_EQ(runtime.Calls(Tova::Thread_Wait), 0);
        ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
        EXPECT_TRUE(runtime.Tick());
        EXPECT_EQ(callback.runs, 1);
        EXPECT_TRUE(timer.StopTimer());
    }
    EXPECT_EQ(Runtime::Census(), before);
}

TEST(Timer, AFailedRestartLeavesItStopped) {
    const auto before = Runtime::Census();
    {
        Callback old_callback;
        Callback new_callback;
        Runtime runtime;
        Timer timer;
        ASSERT_TRUE(timer.SetTimer(kPeriodMs, old_callback.Bound()));
        runtime.AwaitWaiters();
        runtime.FailCall(Tova::Thread_Create);
        EXPECT_FALSE(timer.SetTimer(kPeriodMs, new_callback.Bound()));
        EXPECT_EQ(runtime.Calls(Tova::Thread_Wait), 1);
        EXPECT_TRUE(runtime.Waiters().empty());
        const long locks = runtime.Calls(Tova::MutexLock);
        EXPECT_TRUE(timer.StopTimer());
        EXPECT_EQ(runtime.Calls(Tova::MutexLock), locks);
        EXPECT_EQ(old_callback.runs + new_callback.runs, 0);
    }
    EXPECT_EQ(Runtime::Census(), before);
}

TEST(Timer, WithoutASemaphoreItIsStopped) {
    for (int nth = 1; nth <= 2; ++nth) {
        const auto before = Runtime::Census();
        {
            Callback callback;
            Runtime runtime;
            Timer timer;
            runtime.FailCall(Tova::SemCreate, nth);
            EXPECT_FALSE(timer.SetTimer(kPeriodMs, callback.Bound())) << nth;
            EXPECT_EQ(runtime.Failed(Tova::SemCreate), 1) << nth;
            EXPECT_EQ(runtime.Calls(Tova::Thread_Create), 0) << nth;
            EXPECT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound())) << nth;
            EXPECT_TRUE(timer.StopTimer()) << nth;
        }
        EXPECT_EQ(Runtime::Census(), before) << nth;
    }
}

// Each allocation of a start fails once, from a stopped and from a running timer.
void FailEachAllocation(bool running_before) {
    for (long n = 1;; ++n) {
        const long blocks_before = LiveBlocks();
        const auto before = Runtime::Census();
        long failed = 0;
        {
            Callback old_callback;
            Callback callback;
            Callback next;
            Timer timer;
            if (running_before) {
                ASSERT_TRUE(timer.SetTimer(kPeriodMs, old_callback.Bound()));
            }
            const ObjectPtrT<Closure> bound = callback.Bound();
            bool started = false;
            {
                AllocationFailure failure(n);
                started = timer.SetTimer(kPeriodMs, bound);
                failed = failure.Failed();
            }
            EXPECT_EQ(started, failed == 0) << n;
            if (!started) {
                EXPECT_EQ(Runtime::Census().threads, before.threads) << n;
            }
            EXPECT_TRUE(timer.StopTimer()) << n;
            EXPECT_TRUE(timer.SetTimer(kPeriodMs, next.Bound())) << n;
            EXPECT_TRUE(timer.StopTimer()) << n;
            EXPECT_EQ(Runtime::Census().threads, before.threads) << n;
        }
        EXPECT_EQ(Runtime::Census(), before) << n;
        EXPECT_EQ(LiveBlocks(), blocks_before) << n;
        if (failed == 0) {
            EXPECT_GT(n, 5);
            break;
        }
    }
}

TEST(Timer, IsStoppedAndLeavesNothingBehindWhenAnAllocationFails) {
    FailEachAllocation(false);
}

TEST(Timer, IsStoppedWhenAnAllocationOfARestartFails) {
    FailEachAllocation(true);
}

TEST(Timer, ItsDestructionJoinsAThreadThatIsStillThere) {
    const auto before = Runtime::Census();
    {
        Callback callback;
        Runtime runtime;
        {
            Timer timer;
            ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
            runtime.AwaitWaiters();
        }
        EXPECT_EQ(runtime.Calls(Tova::Thread_Wait), 1);
    }
    EXPECT_EQ(Runtime::Census(), before);
}

TEST(Timer, AskToEndOfAStoppedTimerDoesNothing) {
    Callback callback;
    Runtime runtime;
    Timer timer;
    timer.AskToEnd(kPeriodMs);
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    EXPECT_TRUE(timer.StopTimer());
    const long waits = runtime.Calls(Tova::SemTimedWait);
    timer.AskToEnd(kPeriodMs);
    EXPECT_EQ(runtime.Calls(Tova::SemTimedWait), waits);
}

TEST(Timer, AskToEndWaitsForTheThreadsEnd) {
    Callback callback;
    Runtime runtime;
    Timer timer;
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    runtime.AwaitWaiters();
    timer.AskToEnd(kPeriodMs);
    EXPECT_TRUE(runtime.Waiters().empty());
    EXPECT_EQ(runtime.Calls(Tova::Thread_Wait), 0);
    // Asked again it does not wait for what was there already.
    timer.AskToEnd(kPeriodMs);
    EXPECT_TRUE(timer.StopTimer());
    EXPECT_EQ(runtime.Calls(Tova::Thread_Wait), 1);
    EXPECT_EQ(callback.runs, 0);
}

TEST(Timer, AskToEndWaitsABoundedTimeForACallbackThatDoesNotEnd) {
    Gate inside;
    Gate go_on;
    Callback callback;
    callback.body = [&] {
        inside.Open();
        go_on.Wait();
    };
    Runtime runtime;
    Timer timer;
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    const int waiter = runtime.StartTick();
    inside.Wait();
    timer.AskToEnd(20);
    EXPECT_FALSE(go_on.IsOpen());
    go_on.Open();
    EXPECT_FALSE(runtime.AwaitRound(waiter));
    EXPECT_TRUE(timer.StopTimer());
    EXPECT_EQ(callback.runs, 1);
}

}  // namespace
