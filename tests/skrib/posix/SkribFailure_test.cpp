// The log when the system, or memory, fails it: a record may be lost, never a later one, and nothing
// reaches the caller.
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string>

#include "../Support.h"
#include "TestPlatform.h"
#include "skrib.h"
#include "support/Allocation.h"
#include "support/Child.h"
#include "support/TempDir.h"

namespace {

thread_local bool locks_fail = false;
bool working_folder_is_unknown = false;

}  // namespace

STAND_IN(int, pthread_mutex_lock)(pthread_mutex_t* mutex) noexcept {
    static const auto real =
        vessa_test::FunctionBehind<int(pthread_mutex_t*)>("pthread_mutex_lock");
    return locks_fail ? EAGAIN : real(mutex);
}

STAND_IN(char*, getcwd)(char* buffer, size_t size) noexcept {
    static const auto real = vessa_test::FunctionBehind<char*(char*, size_t)>("getcwd");
    if (!working_folder_is_unknown) return real(buffer, size);
    errno = ENOENT;
    return nullptr;
}

namespace vessa_test {
namespace {

void Count(void* user, const char*, int, const char*, const char*, const char*, int) {
    ++*static_cast<int*>(user);
}

TEST(SkribFailure, ALockThatCannotBeHadDropsTheCallAlone) {
    void* const logger = SKRIB_GetLogger("vessa");
    ASSERT_NE(logger, nullptr);
    int records = 0;
    int others = 0;
    ASSERT_EQ(SKRIB_SetSink(&Count, &records), 0);
    const int threshold = SKRIB_GetThreshold(logger);

    locks_fail = true;
    void* const refused = SKRIB_GetLogger("vessa");
    SKRIB_SetThreshold("vessa", SKRIB_LEVEL_TRACE);
    SKRIB_SetThreshold(nullptr, SKRIB_LEVEL_TRACE);
    SKRIB_Write(logger, SKRIB_LEVEL_ERROR, "text", nullptr, nullptr, 0);
    SKRIB_SetSink(&Count, &others);
    SKRIB_ReleaseLogger(logger);
    locks_fail = false;

    EXPECT_EQ(refused, nullptr);
    EXPECT_EQ(SKRIB_GetThreshold(logger), threshold);
    EXPECT_EQ(records, 0);
    SKRIB_Write(logger, SKRIB_LEVEL_ERROR, "text", nullptr, nullptr, 0);
    EXPECT_EQ(records, 1);
    EXPECT_EQ(others, 0);
    EXPECT_EQ(SKRIB_SetSink(nullptr, nullptr), 0);
    SKRIB_ReleaseLogger(logger);
}

// Longer than what the formatter has room for without memory.
const std::string kLongText(2000, 'x');

// Writes with each allocation failing in its turn, and says how many of them there were.
int WriteWithoutMemory(void* logger) {
    for (int n = 1;; ++n) {
        const AllocationFailure failure(n);
        errno = EDOM;
        SKRIB_Write(logger, SKRIB_LEVEL_WARNING, kLongText.c_str(), "file", "function", 1);
        if (errno != EDOM) return -1;
        if (failure.Failed() == 0) return n - 1;
    }
}

TEST(SkribFailure, WantOfMemoryCostsNoLaterRecord) {
    if (IsChild()) {
        void* const logger = SKRIB_GetLogger("vessa");
        ASSERT_NE(logger, nullptr);
        EXPECT_GT(WriteWithoutMemory(logger), 3);
        SKRIB_Write(logger, SKRIB_LEVEL_WARNING, "last", nullptr, nullptr, 0);
        SKRIB_ReleaseLogger(logger);
        return;
    }
    TempDir world;
    ChildOptions options = ThisTestAsChild();
    options.environment["SKRIB_FILE"] = world.Path("log");
    const ChildResult result = RunChild(options);
    ASSERT_TRUE(result.Exited(0)) << result;
    EXPECT_NE(result.err.find(" warning [vessa] last\n"), std::string::npos) << result;
}

TEST(SkribFailure, ARelativeFileStaysRelativeWhereNobodyKnowsTheWorkingFolder) {
    if (IsChild()) {
        working_folder_is_unknown = true;
        void* const logger = SKRIB_GetLogger("vessa");
        working_folder_is_unknown = false;
        SKRIB_Write(logger, SKRIB_LEVEL_WARNING, "text", nullptr, nullptr, 0);
        SKRIB_ReleaseLogger(logger);
        return;
    }
    TempDir world;
    ChildOptions options = ThisTestAsChild();
    options.folder = world.Path();
    options.environment["SKRIB_FILE"] = "log";
    const ChildResult result = RunChild(options);
    ASSERT_TRUE(result.Exited(0)) << result;
    EXPECT_NE(skrib_test::Contents(world.Path("log")).find("[vessa] text\n"), std::string::npos);
}

}  // namespace
}  // namespace vessa_test
