#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

#include "../Support.h"

#if defined(__SANITIZE_THREAD__)
#  define VESSA_THREAD_SANITIZER 1
#elif defined(__has_feature)
#  if __has_feature(thread_sanitizer)
#    define VESSA_THREAD_SANITIZER 1
#  endif
#endif

TEST(MutexPosix, CannotBeUnlockedByAThreadThatDoesNotHoldIt) {
#if VESSA_THREAD_SANITIZER
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
