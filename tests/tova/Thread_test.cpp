#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "Support.h"

using tova_test::Sem;

namespace {

int SetToSeventeen(void* argument) {
    *static_cast<int*>(argument) = 17;
    return 5;
}

struct SelfJoin {
    Sem handle_is_set;
    tova_thread_t handle = nullptr;
    int result = 0;
    int error = 0;
    bool went_on = false;
};

int JoinSelf(void* argument) {
    SelfJoin& world = *static_cast<SelfJoin*>(argument);
    TOVA_SemWait(&world.handle_is_set.value);
    world.result = TOVA_Thread_Wait(world.handle);
    world.error = TOVA_GetSystemLastError();
    world.went_on = true;
    return 0;
}

// Touches most of a stack of 8 MiB.
int UseTheStack(void* argument) {
    constexpr size_t kSize = size_t{7} << 20;
    volatile char block[kSize];
    for (size_t i = 0; i < kSize; i += 1024) block[i] = 1;
    int sum = 0;
    for (size_t i = 0; i < kSize; i += 1024) sum += block[i];
    *static_cast<int*>(argument) = sum;
    return 0;
}

int StoreThreadId(void* argument) {
    *static_cast<std::thread::id*>(argument) = std::this_thread::get_id();
    return 0;
}

int FailACall(void*) {
    return TOVA_MutexLock(nullptr);
}

}  // namespace

TEST(Thread, RunsTheEntryWithItsArgumentAndWaitsForItsEnd) {
    int value = 0;
    tova_thread_t thread = TOVA_Thread_Create(&SetToSeventeen, &value, 0, 0, 0, 0);
    ASSERT_NE(thread, nullptr);
    EXPECT_EQ(TOVA_Thread_Wait(thread), 0);
    EXPECT_EQ(value, 17);
}

TEST(Thread, IsAnotherThread) {
    std::thread::id id = std::this_thread::get_id();
    tova_thread_t thread = TOVA_Thread_Create(&StoreThreadId, &id, 0, 0, 0, 0);
    ASSERT_NE(thread, nullptr);
    EXPECT_EQ(TOVA_Thread_Wait(thread), 0);
    EXPECT_NE(id, std::this_thread::get_id());
}

TEST(Thread, CannotWaitForItself) {
    SelfJoin world;
    world.handle = TOVA_Thread_Create(&JoinSelf, &world, 0, 0, 0, 0);
    ASSERT_NE(world.handle, nullptr);
    TOVA_SemPost(&world.handle_is_set.value);
    EXPECT_EQ(TOVA_Thread_Wait(world.handle), 0);
    EXPECT_TRUE(world.went_on);
    EXPECT_NE(world.result, 0);
    EXPECT_NE(world.error, 0);
}

TEST(Thread, MayBeWaitedForByAnother) {
    int value = 0;
    tova_thread_t thread = TOVA_Thread_Create(&SetToSeventeen, &value, 0, 0, 0, 0);
    ASSERT_NE(thread, nullptr);
    std::thread waiter([thread] { EXPECT_EQ(TOVA_Thread_Wait(thread), 0); });
    waiter.join();
    EXPECT_EQ(value, 17);
}

TEST(Thread, HasAStackOfEightMebibytes) {
    int sum = 0;
    tova_thread_t thread = TOVA_Thread_Create(&UseTheStack, &sum, 0, 0, 0, 0);
    ASSERT_NE(thread, nullptr);
    EXPECT_EQ(TOVA_Thread_Wait(thread), 0);
    EXPECT_EQ(sum, 7 * 1024);
}

TEST(Thread, HasALastErrorOfItsOwn) {
    ASSERT_NE(TOVA_AccessFile("", 0), 0);
    const int before = TOVA_GetSystemLastError();
    ASSERT_NE(before, 0);
    tova_thread_t thread = TOVA_Thread_Create(&FailACall, nullptr, 0, 0, 0, 0);
    ASSERT_NE(thread, nullptr);
    ASSERT_EQ(TOVA_Thread_Wait(thread), 0);
    ASSERT_NE(TOVA_AccessFile("", 0), 0);
    EXPECT_EQ(TOVA_GetSystemLastError(), before);
}

TEST(Thread, NeedsAnEntry) {
    EXPECT_EQ(TOVA_Thread_Create(nullptr, nullptr, 0, 0, 0, 0), nullptr);
    EXPECT_NE(TOVA_GetSystemLastError(), 0);
}

TEST(Thread, CannotBeWaitedForByANullHandle) {
    EXPECT_NE(TOVA_Thread_Wait(nullptr), 0);
    EXPECT_NE(TOVA_GetSystemLastError(), 0);
}

TEST(Thread, ManyMayRunAtOnce) {
    std::vector<int> values(32);
    std::vector<tova_thread_t> threads;
    for (int& value : values) {
        threads.push_back(TOVA_Thread_Create(&SetToSeventeen, &value, 0, 0, 0, 0));
    }
    for (tova_thread_t thread : threads) {
        ASSERT_NE(thread, nullptr);
        EXPECT_EQ(TOVA_Thread_Wait(thread), 0);
    }
    EXPECT_EQ(values, std::vector<int>(32, 17));
}
