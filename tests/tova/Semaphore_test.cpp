#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <memory>
#include <thread>
#include <vector>

#include "Support.h"

using tova_test::Sem;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {
int32_t References(tova_shared_t* block) {
    return TOVA_AtomicAdd(&block->references, 0);
}
}  // namespace

TEST(Semaphore, GivesItsInitialCount) {
    Sem sem(2);
    EXPECT_EQ(TOVA_SemWait(&sem.value), 0);
    EXPECT_EQ(TOVA_SemTimedWait(&sem.value, 0), 0);
    EXPECT_NE(TOVA_SemTimedWait(&sem.value, 0), 0);
}

TEST(Semaphore, KeepsPostsMadeBeforeTheWait) {
    Sem sem;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(TOVA_SemPost(&sem.value), 0);
    EXPECT_EQ(TOVA_SemWait(&sem.value), 0);
    EXPECT_EQ(TOVA_SemTimedWait(&sem.value, 60000), 0);
    EXPECT_EQ(TOVA_SemTimedWait(&sem.value, 0), 0);
    EXPECT_NE(TOVA_SemTimedWait(&sem.value, 0), 0);
}

TEST(Semaphore, ATimedWaitWithoutPostTakesItsTimeAndFails) {
    Sem sem;
    const auto start = Clock::now();
    EXPECT_NE(TOVA_SemTimedWait(&sem.value, 60), 0);
    EXPECT_NE(TOVA_GetSystemLastError(), 0);
    EXPECT_GE(Clock::now() - start, milliseconds(60));
}

TEST(Semaphore, ATimeOutTakesNoCount) {
    Sem sem;
    EXPECT_NE(TOVA_SemTimedWait(&sem.value, 1), 0);
    EXPECT_EQ(TOVA_SemPost(&sem.value), 0);
    EXPECT_EQ(TOVA_SemTimedWait(&sem.value, 0), 0);
    EXPECT_NE(TOVA_SemTimedWait(&sem.value, 0), 0);
}

TEST(Semaphore, APostEndsALongTimedWait) {
    for (int i = 0; i < 200; ++i) {
        Sem sem;
        std::thread poster([&sem] { TOVA_SemPost(&sem.value); });
        EXPECT_EQ(TOVA_SemTimedWait(&sem.value, UINT_MAX), 0);
        poster.join();
    }
}

TEST(Semaphore, HandsTurnsToAndFro) {
    Sem ping;
    Sem pong;
    int plain = 0;
    std::thread other([&] {
        for (int i = 0; i < 5000; ++i) {
            TOVA_SemWait(&ping.value);
            ++plain;
            TOVA_SemPost(&pong.value);
        }
    });
    for (int i = 0; i < 5000; ++i) {
        TOVA_SemPost(&ping.value);
        TOVA_SemWait(&pong.value);
        ASSERT_EQ(plain, i + 1);
    }
    other.join();
}

TEST(Semaphore, LetsExactlyAsManyThroughAsWerePosted) {
    constexpr int kThreads = 3;
    constexpr int kRounds = 4000;
    Sem sem;
    int32_t taken = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&sem] {
            for (int k = 0; k < kRounds; ++k) TOVA_SemPost(&sem.value);
        });
        threads.emplace_back([&sem, &taken, i] {
            for (int k = 0; k < kRounds; ++k) {
                // Waits with every kind of wait, so that all of them meet.
                const bool got = i == 0 ? TOVA_SemWait(&sem.value) == 0
                                        : TOVA_SemTimedWait(&sem.value, 60000) == 0;
                if (got) TOVA_AtomicAdd(&taken, 1);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(taken, kThreads * kRounds);
    EXPECT_NE(TOVA_SemTimedWait(&sem.value, 0), 0);
}

TEST(Semaphore, LosesNoPostToWaitersWhoseTimeRunsOut) {
    constexpr int kPosts = 2000;
    Sem sem;
    int32_t taken = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&sem, &taken] {
            while (TOVA_AtomicCas(&taken, 0, 0) < kPosts) {
                if (TOVA_SemTimedWait(&sem.value, 1) == 0) TOVA_AtomicAdd(&taken, 1);
            }
        });
    }
    for (int i = 0; i < kPosts; ++i) TOVA_SemPost(&sem.value);
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(taken, kPosts);
    EXPECT_NE(TOVA_SemTimedWait(&sem.value, 0), 0);
}

TEST(Semaphore, WakesEveryWaiterWithOnePostEach) {
    Sem sem;
    Sem done;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] {
            TOVA_SemWait(&sem.value);
            TOVA_SemPost(&done.value);
        });
    }
    for (int i = 0; i < 8; ++i) TOVA_SemPost(&sem.value);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(TOVA_SemTimedWait(&done.value, 60000), 0);
    for (std::thread& thread : threads) thread.join();
}

TEST(Semaphore, PublishesWhatWasWrittenBeforeThePost) {
    for (int i = 0; i < 200; ++i) {
        Sem sem;
        int plain = 0;
        std::thread writer([&] {
            plain = 17;
            TOVA_SemPost(&sem.value);
        });
        TOVA_SemWait(&sem.value);
        EXPECT_EQ(plain, 17);
        writer.join();
    }
}

// The poster is often still inside its post: then that post holds the last reference.
TEST(Semaphore, MayBeDestroyedByWhoeverTookTheCount) {
    for (int i = 0; i < 2000; ++i) {
        tova_sem_t sem = nullptr;
        ASSERT_EQ(TOVA_SemCreate(&sem, 0), 0);
        std::thread poster([copy = sem]() mutable { EXPECT_EQ(TOVA_SemPost(&copy), 0); });
        EXPECT_EQ(i % 2 == 0 ? TOVA_SemWait(&sem) : TOVA_SemTimedWait(&sem, 60000), 0);
        EXPECT_EQ(TOVA_SemDestroy(&sem), 0);
        poster.join();
    }
}

TEST(Semaphore, BeginsWithOneReferenceAndAPostLeavesIt) {
    Sem sem;
    EXPECT_EQ(References(sem.value), 1);
    TOVA_SemPost(&sem.value);
    EXPECT_EQ(References(sem.value), 1);
}

TEST(Semaphore, IsSharedByACopyThatWasCounted) {
    Sem sem;
    tova_sem_t copy = sem.value;
    TOVA_AtomicAdd(&copy->references, 1);
    EXPECT_EQ(TOVA_SemPost(&sem.value), 0);
    EXPECT_EQ(TOVA_SemDestroy(&sem.value), 0);
    EXPECT_EQ(References(copy), 1);
    EXPECT_EQ(TOVA_SemTimedWait(&copy, 0), 0);
    EXPECT_EQ(TOVA_SemDestroy(&copy), 0);
}

TEST(Semaphore, IsNullAfterItsDestruction) {
    Sem sem;
    EXPECT_EQ(TOVA_SemDestroy(&sem.value), 0);
    EXPECT_EQ(sem.value, nullptr);
}

TEST(Semaphore, CountsUpToTheLargestNumber) {
    Sem sem(0x7FFFFFFE);
    EXPECT_EQ(TOVA_SemPost(&sem.value), 0);
    EXPECT_NE(TOVA_SemPost(&sem.value), 0);
    EXPECT_NE(TOVA_GetSystemLastError(), 0);
    EXPECT_EQ(TOVA_SemTimedWait(&sem.value, 0), 0);
    EXPECT_EQ(TOVA_SemPost(&sem.value), 0);
}

TEST(Semaphore, CannotBeginAboveTheLargestNumber) {
    Sem other;
    tova_sem_t sem = other.value;
    EXPECT_NE(TOVA_SemCreate(&sem, 0x80000000u), 0);
    EXPECT_EQ(sem, nullptr);
}

TEST(Semaphore, NullMayBeDestroyedAndFailsAtOnceOtherwise) {
    tova_sem_t null = nullptr;
    EXPECT_EQ(TOVA_SemDestroy(&null), 0);
    EXPECT_NE(TOVA_SemPost(&null), 0);
    EXPECT_NE(TOVA_SemWait(&null), 0);
    // Would outlast the test if it used up the time.
    EXPECT_NE(TOVA_SemTimedWait(&null, UINT_MAX), 0);
}

TEST(Semaphore, NoValueAtAllFails) {
    EXPECT_NE(TOVA_SemCreate(nullptr, 0), 0);
    EXPECT_NE(TOVA_SemDestroy(nullptr), 0);
    EXPECT_NE(TOVA_SemPost(nullptr), 0);
    EXPECT_NE(TOVA_SemWait(nullptr), 0);
    EXPECT_NE(TOVA_SemTimedWait(nullptr, 0), 0);
}
