#include <gtest/gtest.h>

#include <cstdlib>

#include "TestPlatform.h"
#include "skrib.h"
#include "support/Sync.h"
#include "tova.h"

namespace {

int thresholds_read = 0;

}  // namespace

STAND_IN(int, SKRIB_GetThreshold)(void* logger) {
    static const auto real = vessa_test::FunctionBehind<int(void*)>("SKRIB_GetThreshold");
    ++thresholds_read;
    return real(logger);
}

namespace vessa_test {
namespace {

TEST(TestPlatformTest, SetsAndRemovesVariables) {
    SetVariable("VESSA_TEST_A_VARIABLE", "value");
    EXPECT_STREQ(std::getenv("VESSA_TEST_A_VARIABLE"), "value");
    SetVariable("VESSA_TEST_A_VARIABLE", nullptr);
    EXPECT_EQ(std::getenv("VESSA_TEST_A_VARIABLE"), nullptr);
}

TEST(TestPlatformTest, HasTheLastErrorThatTheRuntimeTells) {
    SetLastSystemError(kErrorBadModule);
    EXPECT_EQ(TOVA_GetSystemLastError(), kErrorBadModule);
    EXPECT_NE(TOVA_AccessFile("no/such/file", 0), 0);
    EXPECT_EQ(LastSystemError(), kErrorFolderNotFound);
    EXPECT_NE(TOVA_AccessFile("no-such-file", 0), 0);
    EXPECT_EQ(LastSystemError(), kErrorNotFound);
    EXPECT_NE(TOVA_SemPost(nullptr), 0);
    EXPECT_EQ(LastSystemError(), kErrorInvalid);
    tova_sem_t sem = nullptr;
    ASSERT_EQ(TOVA_SemCreate(&sem, 0), 0);
    EXPECT_NE(TOVA_SemTimedWait(&sem, 0), 0);
    EXPECT_EQ(LastSystemError(), kErrorTimeout);
    TOVA_SemDestroy(&sem);
}

TEST(TestPlatformTest, StandsInForAFunctionOfALibrary) {
    void* const logger = SKRIB_GetLogger("stand-in");
    ASSERT_EQ(SKRIB_SetThreshold("stand-in", 2), 0);
    const int read_before = thresholds_read;
    EXPECT_EQ(SKRIB_GetThreshold(logger), 2);
    EXPECT_EQ(thresholds_read, read_before + 1);
    SKRIB_ReleaseLogger(logger);
}

TEST(TestPlatformTest, TellsThreadsApart) {
    long other = ThreadId();
    JoiningThread([&] { other = ThreadId(); }).Join();
    EXPECT_NE(other, ThreadId());
    EXPECT_NE(ProcessId(), 0);
}

}  // namespace
}  // namespace vessa_test
