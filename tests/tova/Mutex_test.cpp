#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "Support.h"

using tova_test::Mutex;
using tova_test::Sem;

namespace {
int32_t References(tova_shared_t* block) {
    return TOVA_AtomicAdd(&block->references, 0);
}
}  // namespace

TEST(Mutex, KeepsOthersOut) {
    Mutex mutex;
    int plain = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&mutex, &plain] {
            for (int k = 0; k < 5000; ++k) {
                ASSERT_EQ(TOVA_MutexLock(&mutex.value), 0);
                ++plain;
                ASSERT_EQ(TOVA_MutexUnlock(&mutex.value), 0);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(plain, 20000);
}

TEST(Mutex, MayBeLockedAgainByItsHolder) {
    Mutex mutex;
    for (int i = 0; i < 10; ++i) EXPECT_EQ(TOVA_MutexLock(&mutex.value), 0);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(TOVA_MutexUnlock(&mutex.value), 0);
    std::thread other([&mutex] {
        EXPECT_EQ(TOVA_MutexLock(&mutex.value), 0);
        EXPECT_EQ(TOVA_MutexUnlock(&mutex.value), 0);
    });
    other.join();
}

TEST(Mutex, StaysLockedUntilItIsUnlockedAsOften) {
    for (int i = 0; i < 200; ++i) {
        Mutex mutex;
        Sem about_to_lock;
        int stage = 0;
        ASSERT_EQ(TOVA_MutexLock(&mutex.value), 0);
        ASSERT_EQ(TOVA_MutexLock(&mutex.value), 0);
        std::thread other([&] {
            TOVA_SemPost(&about_to_lock.value);
            TOVA_MutexLock(&mutex.value);
            EXPECT_EQ(stage, 1);
            TOVA_MutexUnlock(&mutex.value);
        });
        TOVA_SemWait(&about_to_lock.value);
        EXPECT_EQ(TOVA_MutexUnlock(&mutex.value), 0);
        std::this_thread::yield();
        stage = 1;
        EXPECT_EQ(TOVA_MutexUnlock(&mutex.value), 0);
        other.join();
    }
}

TEST(Mutex, BeginsWithOneReference) {
    Mutex mutex;
    EXPECT_EQ(References(mutex.value), 1);
}

TEST(Mutex, IsSharedByACopyThatWasCounted) {
    Mutex mutex;
    tova_mutex_t copy = mutex.value;
    TOVA_AtomicAdd(&copy->references, 1);
    ASSERT_EQ(TOVA_MutexLock(&mutex.value), 0);
    EXPECT_EQ(TOVA_MutexDestroy(&mutex.value), 0);
    EXPECT_EQ(References(copy), 1);
    EXPECT_EQ(TOVA_MutexUnlock(&copy), 0);
    EXPECT_EQ(TOVA_MutexLock(&copy), 0);
    EXPECT_EQ(TOVA_MutexUnlock(&copy), 0);
    EXPECT_EQ(TOVA_MutexDestroy(&copy), 0);
}

TEST(Mutex, IsNullAfterItsDestruction) {
    Mutex mutex;
    EXPECT_EQ(TOVA_MutexDestroy(&mutex.value), 0);
    EXPECT_EQ(mutex.value, nullptr);
}

TEST(Mutex, NullMayBeDestroyedAndFailsOtherwise) {
    tova_mutex_t null = nullptr;
    EXPECT_EQ(TOVA_MutexDestroy(&null), 0);
    EXPECT_NE(TOVA_MutexLock(&null), 0);
    EXPECT_NE(TOVA_GetSystemLastError(), 0);
    EXPECT_NE(TOVA_MutexUnlock(&null), 0);
}

TEST(Mutex, NoValueAtAllFails) {
    EXPECT_NE(TOVA_MutexCreate(nullptr, 0), 0);
    EXPECT_NE(TOVA_MutexDestroy(nullptr), 0);
    EXPECT_NE(TOVA_MutexLock(nullptr), 0);
    EXPECT_NE(TOVA_MutexUnlock(nullptr), 0);
}

TEST(Mutex, MayBeDestroyedByTheThreadThatGotItNext) {
    for (int i = 0; i < 500; ++i) {
        tova_mutex_t mutex = nullptr;
        ASSERT_EQ(TOVA_MutexCreate(&mutex, 0), 0);
        bool done = false;
        Sem held;
        std::thread other([&, copy = mutex]() mutable {
            TOVA_MutexLock(&copy);
            TOVA_SemPost(&held.value);
            done = true;
            TOVA_MutexUnlock(&copy);
        });
        TOVA_SemWait(&held.value);
        TOVA_MutexLock(&mutex);
        EXPECT_TRUE(done);
        TOVA_MutexUnlock(&mutex);
        EXPECT_EQ(TOVA_MutexDestroy(&mutex), 0);
        other.join();
    }
}
