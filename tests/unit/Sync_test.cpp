#include "common/Sync.h"

#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/Allocation.h"
#include "support/Runtime.h"
#include "support/Sync.h"

using vessa_test::AllocationFailure;
using vessa_test::Barrier;
using vessa_test::Gate;
using vessa_test::JoiningThread;
using vessa_test::LiveBlocks;
using vessa_test::Runtime;
using vessa_test::RuntimeCall;
using vessa_test::Tova;

namespace {

static_assert(!std::is_copy_constructible_v<TOVA_Mutex>, "a live mutex is not copied");
static_assert(!std::is_copy_constructible_v<TOVA_Sema>, "a live semaphore is not copied");
static_assert(!std::is_move_constructible_v<TOVA_Mutex>);
static_assert(!std::is_move_constructible_v<TOVA_Sema>);
static_assert(
    std::is_same_v<decltype(std::declval<TOVA_Mutex&>() = std::declval<const TOVA_Mutex&>()),
                   TOVA_Mutex&>);
static_assert(std::is_same_v<
              decltype(std::declval<TOVA_Sema&>() = std::declval<const TOVA_Sema&>()), TOVA_Sema&>);
static_assert(sizeof(TOVA_Mutex) == sizeof(tova_mutex_t), "one field, the native mutex");
static_assert(sizeof(TOVA_Sema) == sizeof(tova_sem_t), "one field, the native semaphore");

// Without the analysis, which takes every second lock of a thread for a mistake.
void Lock(TOVA_Mutex& mutex) NO_THREAD_SAFETY_ANALYSIS {
    mutex.Lock();
}
void Unlock(TOVA_Mutex& mutex) NO_THREAD_SAFETY_ANALYSIS {
    mutex.Unlock();
}

// Whether another thread has to wait for the second mutex while this one holds the first:
// it waits exactly if the two are one.
bool ExcludeEachOther(TOVA_Mutex& held, TOVA_Mutex& wanted) {
    Gate about_to_lock;
    bool released = false;
    bool saw_release = false;
    Runtime runtime;
    Lock(held);
    runtime.Before(Tova::MutexLock, [&](RuntimeCall&) { about_to_lock.Open(); });
    JoiningThread other([&] {
        TOVA_MutexGuard guard(wanted);
        saw_release = released;
    });
    about_to_lock.Wait();
    released = true;
    Unlock(held);
    other.Join();
    return saw_release;
}

TEST(TovaMutex, IsReentrant) {
    TOVA_Mutex mutex;
    int depth = 0;
    Runtime runtime;
    Lock(mutex);
    {
        TOVA_MutexGuard inner(mutex);
        depth = 2;
    }
    EXPECT_EQ(depth, 2);
    EXPECT_EQ(runtime.Calls(Tova::MutexLock), 2);
    EXPECT_EQ(runtime.Calls(Tova::MutexUnlock), 1);
    Unlock(mutex);
}

TEST(TovaMutex, MustBeUnlockedAsOftenAsItWasLocked) {
    TOVA_Mutex mutex;
    Gate about_to_lock;
    int unlocks = 0;
    int unlocks_seen = -1;
    Runtime runtime;
    Lock(mutex);
    Lock(mutex);
    runtime.Before(Tova::MutexLock, [&](RuntimeCall&) { about_to_lock.Open(); });
    JoiningThread other([&] {
        TOVA_MutexGuard guard(mutex);
        unlocks_seen = unlocks;
    });
    about_to_lock.Wait();
    unlocks = 1;
    Unlock(mutex);
    unlocks = 2;
    Unlock(mutex);
    other.Join();
    EXPECT_EQ(unlocks_seen, 2);
}

TEST(TovaMutex, KeepsThreadsApart) {
    constexpr int kThreads = 3;
    constexpr int kRounds = 5000;
    TOVA_Mutex mutex;
    int sum = 0;
    Barrier start(kThreads);
    {
        std::vector<std::unique_ptr<JoiningThread>> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.push_back(std::make_unique<JoiningThread>([&] {
                start.ArriveAndWait();
                for (int round = 0; round < kRounds; ++round) {
                    TOVA_MutexGuard guard(mutex);
                    ++sum;
                }
            }));
        }
    }
    EXPECT_EQ(sum, kThreads * kRounds);
}

TEST(TovaMutex, AGuardUnlocksWhenAnExceptionPasses) {
    TOVA_Mutex mutex;
    EXPECT_THROW(
        {
            TOVA_MutexGuard guard(mutex);
            throw std::runtime_error("inside");
        },
        std::runtime_error);
    bool entered = false;
    JoiningThread other([&] {
        TOVA_MutexGuard guard(mutex);
        entered = true;
    });
    other.Join();
    EXPECT_TRUE(entered);
}

TEST(TovaMutex, AnAssignedOneSharesTheNativeMutex) {
    const long blocks_before = LiveBlocks();
    {
        TOVA_Mutex source;
        TOVA_Mutex target;
        EXPECT_EQ(&(target = source), &target);
        EXPECT_TRUE(ExcludeEachOther(source, target));
        EXPECT_TRUE(ExcludeEachOther(target, source));
    }
    EXPECT_EQ(LiveBlocks(), blocks_before);
}

TEST(TovaMutex, BothDestructorsOfASharedOneAreSafe) {
    const long blocks_before = LiveBlocks();
    {
        auto source = std::make_unique<TOVA_Mutex>();
        auto target = std::make_unique<TOVA_Mutex>();
        *target = *source;
        source.reset();
        TOVA_MutexGuard guard(*target);
    }
    {
        auto source = std::make_unique<TOVA_Mutex>();
        TOVA_Mutex target;
        TOVA_Mutex third;
        target = *source;
        third = target;
        target = third;
        source.reset();
        TOVA_MutexGuard guard(target);
        TOVA_MutexGuard again(third);
    }
    EXPECT_EQ(LiveBlocks(), blocks_before);
}

TEST(TovaMutex, AssignedToItselfStaysTheMutexThatItIs) {
    const long blocks_before = LiveBlocks();
    {
        TOVA_Mutex mutex;
        TOVA_Mutex& alias = mutex;
        mutex = alias;
        EXPECT_TRUE(ExcludeEachOther(mutex, alias));
    }
    EXPECT_EQ(LiveBlocks(), blocks_before);
}

TEST(TovaMutex, IsCreatedAndDestroyedOnce) {
    Runtime runtime;
    {
        TOVA_Mutex mutex;
        EXPECT_EQ(runtime.Calls(Tova::MutexCreate), 1);
        EXPECT_EQ(runtime.Calls(Tova::MutexDestroy), 0);
    }
    EXPECT_EQ(runtime.Calls(Tova::MutexDestroy), 1);
}

TEST(TovaSema, StartsWithoutACountAndTakesOneForEachPost) {
    TOVA_Sema semaphore;
    EXPECT_NE(semaphore.TimedWait(0), 0);
    semaphore.Post();
    semaphore.Post();
    EXPECT_EQ(semaphore.TimedWait(0), 0);
    semaphore.Wait();
    EXPECT_NE(semaphore.TimedWait(0), 0);
}

TEST(TovaSema, AWaitEndsWithAPostOfAnotherThread) {
    TOVA_Sema there;
    TOVA_Sema back;
    int value = 0;
    JoiningThread other([&] {
        there.Wait();
        ++value;
        back.Post();
    });
    value = 1;
    there.Post();
    back.Wait();
    EXPECT_EQ(value, 2);
}

TEST(TovaSema, ATimedWaitTellsAPostFromATimeOut) {
    TOVA_Sema semaphore;
    int result = -1;
    Runtime runtime;
    JoiningThread other([&] {
        result = semaphore.TimedWait(30000);
        if (result != 0) result = semaphore.TimedWait(30000) == 0 ? 1 : 2;
    });
    EXPECT_EQ(runtime.AwaitWaiters().at(0).milliseconds, 30000U);
    EXPECT_TRUE(runtime.Tick());
    semaphore.Post();
    other.Join();
    EXPECT_EQ(result, 1);
}

TEST(TovaSema, AnAssignedOneSharesTheNativeSemaphore) {
    const long blocks_before = LiveBlocks();
    {
        TOVA_Sema source;
        TOVA_Sema target;
        EXPECT_EQ(&(target = source), &target);
        source.Post();
        EXPECT_EQ(target.TimedWait(0), 0);
        target.Post();
        EXPECT_EQ(source.TimedWait(0), 0);
    }
    EXPECT_EQ(LiveBlocks(), blocks_before);
}

TEST(TovaSema, BothDestructorsOfASharedOneAreSafe) {
    const long blocks_before = LiveBlocks();
    {
        auto source = std::make_unique<TOVA_Sema>();
        TOVA_Sema target;
        target = *source;
        source->Post();
        source.reset();
        EXPECT_EQ(target.TimedWait(0), 0);
    }
    EXPECT_EQ(LiveBlocks(), blocks_before);
}

TEST(TovaSema, AssignedToItselfStaysTheSemaphoreThatItIs) {
    const long blocks_before = LiveBlocks();
    {
        TOVA_Sema semaphore;
        semaphore.Post();
        TOVA_Sema& alias = semaphore;
        semaphore = alias;
        EXPECT_EQ(semaphore.TimedWait(0), 0);
        EXPECT_NE(semaphore.TimedWait(0), 0);
    }
    EXPECT_EQ(LiveBlocks(), blocks_before);
}

TEST(TovaSema, ThrowsOutOfMemoryWhenItCannotBeMade) {
    Runtime runtime;
    runtime.FailCall(Tova::SemCreate);
    EXPECT_THROW(TOVA_Sema(), std::bad_alloc);
}

}  // namespace
