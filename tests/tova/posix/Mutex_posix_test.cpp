#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

#include "../Support.h"

TEST(MutexPosix, CannotBeUnlockedByAThreadThatDoesNotHoldIt) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer reports the caller's mistake itself";
#endif
    tova_test::Mutex mutex;
    EXPECT_EQ(TOVA_MutexUnlock(&mutex.value), EPERM);
    EXPECT_EQ(TOVA_GetSystemLastError(), EPERM);
    ASSERT_EQ(TOVA_MutexLock(&mutex.value), 0);
    std::thread other([&mutex] { EXPECT_EQ(TOVA_MutexUnlock(&mutex.value), EPERM); });
    other.join();
    EXPECT_EQ(TOVA_MutexUnlock(&mutex.value), 0);
}

TEST(MutexPosix, NullIsAnInvalidArgument) {
    tova_mutex_t null = nullptr;
    EXPECT_EQ(TOVA_MutexLock(&null), EINVAL);
    EXPECT_EQ(TOVA_GetSystemLastError(), EINVAL);
}
