#include "skrib.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Support.h"

extern "C" int SkribUsedFromC(void);

namespace {

TEST(Skrib, GivesTheSameLoggerForTheSameName) {
    void* first = SKRIB_GetLogger("same.one");
    ASSERT_NE(first, nullptr);
    const std::string copy = "same.one";
    EXPECT_EQ(SKRIB_GetLogger(copy.c_str()), first);
    SKRIB_ReleaseLogger(first);
    SKRIB_ReleaseLogger(first);
}

TEST(Skrib, GivesDifferentLoggersForDifferentNames) {
    const std::set<void*> loggers{SKRIB_GetLogger("different"), SKRIB_GetLogger("Different"),
                                  SKRIB_GetLogger("different "), SKRIB_GetLogger("")};
    EXPECT_EQ(loggers.size(), 4U);
    EXPECT_EQ(loggers.count(nullptr), 0U);
    for (void* logger : loggers) SKRIB_ReleaseLogger(logger);
}

TEST(Skrib, GivesNoLoggerForANullName) {
    EXPECT_EQ(SKRIB_GetLogger(nullptr), nullptr);
}

TEST(Skrib, IgnoresNullLoggers) {
    SKRIB_ReleaseLogger(nullptr);
    EXPECT_EQ(SKRIB_GetThreshold(nullptr), SKRIB_LEVEL_OFF);
    int calls = 0;
    SKRIB_SetSink([](void* user, const char*, int, const char*, const char*, const char*,
                     int) { ++*static_cast<int*>(user); },
                  &calls);
    SKRIB_Write(nullptr, SKRIB_LEVEL_ERROR, "text", nullptr, nullptr, 0);
    void* logger = SKRIB_GetLogger("null text");
    SKRIB_Write(logger, SKRIB_LEVEL_ERROR, nullptr, "f.cpp", "f", 1);
    EXPECT_EQ(calls, 0);
    SKRIB_Write(logger, SKRIB_LEVEL_ERROR, "", nullptr, nullptr, 0);
    EXPECT_EQ(calls, 1) << "an empty text is a record";
    SKRIB_SetSink(nullptr, nullptr);
    SKRIB_ReleaseLogger(logger);
}

TEST(Skrib, SetsTheThresholdOfALoggerAlreadyMade) {
    void* logger = SKRIB_GetLogger("threshold.made");
    for (int level = SKRIB_LEVEL_TRACE; level <= SKRIB_LEVEL_OFF; ++level) {
        EXPECT_EQ(SKRIB_SetThreshold("threshold.made", level), 0);
        EXPECT_EQ(SKRIB_GetThreshold(logger), level);
    }
    SKRIB_ReleaseLogger(logger);
}

TEST(Skrib, RemembersAThresholdForALoggerNotMadeYet) {
    EXPECT_EQ(SKRIB_SetThreshold("threshold.later", SKRIB_LEVEL_DEBUG), 0);
    void* logger = SKRIB_GetLogger("threshold.later");
    EXPECT_EQ(SKRIB_GetThreshold(logger), SKRIB_LEVEL_DEBUG);
    SKRIB_ReleaseLogger(logger);
}

TEST(Skrib, KeepsAThresholdOverTheLastRelease) {
    void* logger = SKRIB_GetLogger("threshold.kept");
    SKRIB_SetThreshold("threshold.kept", SKRIB_LEVEL_TRACE);
    SKRIB_ReleaseLogger(logger);
    logger = SKRIB_GetLogger("threshold.kept");
    EXPECT_EQ(SKRIB_GetThreshold(logger), SKRIB_LEVEL_TRACE);
    SKRIB_ReleaseLogger(logger);
}

TEST(Skrib, RefusesLevelsThatAreNone) {
    void* logger = SKRIB_GetLogger("threshold.refused");
    SKRIB_SetThreshold("threshold.refused", SKRIB_LEVEL_ERROR);
    for (const int level : {0, 7, -1, 1000000}) {
        EXPECT_EQ(SKRIB_SetThreshold("threshold.refused", level), -1) << level;
        EXPECT_EQ(SKRIB_SetThreshold(nullptr, level), -1) << level;
    }
    EXPECT_EQ(SKRIB_GetThreshold(logger), SKRIB_LEVEL_ERROR);
    SKRIB_ReleaseLogger(logger);
}

TEST(Skrib, ReadsThresholdsWhileOthersSetThem) {
    void* logger = SKRIB_GetLogger("threshold.shared");
    SKRIB_SetThreshold("threshold.shared", SKRIB_LEVEL_DEBUG);
    skrib_test::Barrier start(2);
    std::thread setter([&] {
        start.Arrive();
        for (int i = 0; i < 2000; ++i) SKRIB_SetThreshold("threshold.shared", i % 2 == 0 ? 5 : 2);
    });
    start.Arrive();
    int others = 0;
    for (int i = 0; i < 2000; ++i) {
        const int level = SKRIB_GetThreshold(logger);
        if (level != SKRIB_LEVEL_ERROR && level != SKRIB_LEVEL_DEBUG) ++others;
    }
    setter.join();
    EXPECT_EQ(others, 0);
    EXPECT_EQ(SKRIB_GetThreshold(logger), SKRIB_LEVEL_DEBUG);
    SKRIB_ReleaseLogger(logger);
}

TEST(Skrib, IsUsableFromC) {
    EXPECT_EQ(SkribUsedFromC(), 507);
}

TEST(Skrib, StaysInTheProcessWhenItIsUnloaded) {
    const auto outcome = skrib_test::Run(SKRIB_UNLOADER, {SKRIB_LIBRARY});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.out, "4 1\n");
}

}  // namespace
