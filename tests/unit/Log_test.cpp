// The logging library's functions are watched here on their way: this program defines them and
// goes on to the real ones.
#include "common/Log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "TestPlatform.h"
#include "skrib.h"
#include "support/Allocation.h"
#include "support/Child.h"
#include "support/LogCapture.h"
#include "support/Sync.h"

using vessa_test::AllocationFailure;
using vessa_test::Barrier;
using vessa_test::ChildResult;
using vessa_test::FunctionBehind;
using vessa_test::IsChild;
using vessa_test::JoiningThread;
using vessa_test::LogCapture;
using vessa_test::LogRecord;
using vessa_test::RunChild;
using vessa_test::ThisTestAsChild;

namespace {

struct Watch {
    std::atomic<int> fetched{0};
    std::atomic<int> released{0};
    std::atomic<int> asked{0};
    std::atomic<int> written{0};
    std::atomic<int> null_handles{0};
    std::atomic<void*> handle{nullptr};
    std::atomic<void*> released_handle{nullptr};
    std::atomic<bool> give_none{false};

    // What a LogCapture did itself does not count.
    void Reset() {
        fetched = 0;
        released = 0;
        asked = 0;
        written = 0;
    }
};

Watch& TheWatch() {
    static Watch& watch = *new Watch;
    return watch;
}

}  // namespace

STAND_IN(void*, SKRIB_GetLogger)(const char* name) {
    static const auto real = FunctionBehind<void*(const char*)>("SKRIB_GetLogger");
    void* handle = real(name);
    if (name == nullptr || std::string(name) != "vessa") return handle;
    ++TheWatch().fetched;
    if (TheWatch().give_none) handle = nullptr;
    TheWatch().handle = handle;
    return handle;
}

STAND_IN(void, SKRIB_ReleaseLogger)(void* logger) {
    static const auto real = FunctionBehind<void(void*)>("SKRIB_ReleaseLogger");
    ++TheWatch().released;
    TheWatch().released_handle = logger;
    real(logger);
}

STAND_IN(int, SKRIB_GetThreshold)(void* logger) {
    static const auto real = FunctionBehind<int(void*)>("SKRIB_GetThreshold");
    ++TheWatch().asked;
    if (logger == nullptr) ++TheWatch().null_handles;
    return real(logger);
}

STAND_IN(void, SKRIB_Write)
(void* logger, int level, const char* text, const char* file, const char* function, int line) {
    static const auto real =
        FunctionBehind<void(void*, int, const char*, const char*, const char*, int)>("SKRIB_Write");
    ++TheWatch().written;
    if (logger == nullptr) ++TheWatch().null_handles;
    real(logger, level, text, file, function, line);
}

namespace {

void WriteEachLevel() {
    for (const int32_t level : {kTrace, kDebug, kInformation, kWarning, kError})
        LOG_PLAIN(level, "message");
}

TEST(Log, LevelsHaveTheNumbersOfTheLoggingLibrary) {
    EXPECT_EQ(int{kTrace}, SKRIB_LEVEL_TRACE);
    EXPECT_EQ(int{kDebug}, SKRIB_LEVEL_DEBUG);
    EXPECT_EQ(int{kInformation}, SKRIB_LEVEL_INFORMATION);
    EXPECT_EQ(int{kWarning}, SKRIB_LEVEL_WARNING);
    EXPECT_EQ(int{kError}, SKRIB_LEVEL_ERROR);
}

TEST(Log, APlainMessageGoesAsItStandsToTheLoggerVessa) {
    LogCapture log;
    LogPlain(kInformation, "{0} {{ %s }", "src/x.cpp", "void X::Y()", 77);
    const std::vector<LogRecord> records = log.Records();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].logger, "vessa");
    EXPECT_EQ(records[0].level, 3);
    EXPECT_EQ(records[0].text, "{0} {{ %s }");
    EXPECT_EQ(records[0].file, "src/x.cpp");
    EXPECT_EQ(records[0].function, "void X::Y()");
    EXPECT_EQ(records[0].line, 77);
    EXPECT_TRUE(log.Others().empty());
}

TEST(Log, APlainMessageTellsWhereItIsSaid) {
    LogCapture log;
    const int line = __LINE__ + 1;
    LOG_PLAIN(kWarning, "here");
    const std::vector<LogRecord> records = log.Records();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].file, "tests/unit/Log_test.cpp");
    EXPECT_NE(records[0].function.find("TestBody()"), std::string::npos) << records[0].function;
    EXPECT_EQ(records[0].line, line);
}

TEST(Log, ANullTextWritesNothing) {
    LogCapture log;
    TheWatch().Reset();
    LogPlain(kError, nullptr, "file", "function", 1);
    EXPECT_TRUE(log.Is({}));
    EXPECT_EQ(TheWatch().written, 0);
}

TEST(Log, AnEmptyTextIsWritten) {
    LogCapture log;
    LOG_PLAIN(kError, "");
    EXPECT_TRUE(log.Is({"5 "}));
}

TEST(Log, WritesFromTheThresholdUpwards) {
    const std::vector<std::string> all = {"1 message", "2 message", "3 message", "4 message",
                                          "5 message"};
    for (int threshold = 1; threshold <= 6; ++threshold) {
        LogCapture log(threshold);
        WriteEachLevel();
        const std::vector<std::string> expected(all.begin() + (threshold - 1), all.end());
        EXPECT_TRUE(log.Is(expected)) << threshold;
        for (int32_t level = 1; level <= 5; ++level)
            EXPECT_EQ(LogEnabled(level), threshold <= level) << threshold << " " << level;
    }
}

TEST(Log, AsksForTheThresholdOnceForEachPlainMessage) {
    LogCapture log(4);
    TheWatch().Reset();
    LOG_PLAIN(kInformation, "suppressed");
    EXPECT_EQ(TheWatch().asked, 1);
    EXPECT_EQ(TheWatch().written, 0);
    LOG_PLAIN(kWarning, "written");
    EXPECT_EQ(TheWatch().asked, 2);
    EXPECT_EQ(TheWatch().written, 1);
}

TEST(Log, APlainMessageNeedsNoMemoryOfItsOwn) {
    LogCapture log(6);
    LOG_PLAIN(kError, "the handle is fetched");
    long allocations = -1;
    {
        AllocationFailure none(1, AllocationFailure::Mode::kFromNth);
        LOG_PLAIN(kError, "suppressed");
        allocations = none.Count();
    }
    EXPECT_EQ(allocations, 0);
}

TEST(Log, GivesTheSameHandleEveryTime) {
    std::atomic<void*>* const first = GetLogger();
    EXPECT_EQ(GetLogger(), first);
    EXPECT_EQ(first->load(), TheWatch().handle.load());
    EXPECT_NE(first->load(), nullptr);
}

TEST(Log, SeveralThreadsWriteAtOnce) {
    constexpr int kThreads = 4;
    constexpr int kMessages = 50;
    LogCapture log;
    Barrier start(kThreads);
    {
        std::vector<std::unique_ptr<JoiningThread>> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.push_back(std::make_unique<JoiningThread>([&] {
                start.ArriveAndWait();
                for (int n = 0; n < kMessages; ++n) LOG_PLAIN(kError, "from a thread");
            }));
        }
    }
    EXPECT_EQ(log.Count("5 from a thread"), kThreads * kMessages);
    for (const std::thread::id thread : log.Threads())
        EXPECT_EQ(log.SequenceFor(thread).size(), static_cast<size_t>(kMessages));
}

// The first use happens once in a process, so each of these has one of its own.
TEST(LogFirstUse, ThreadsThatLogAtOnceFetchOneHandleAndLoseNothing) {
    if (!IsChild()) {
        const ChildResult result = RunChild(ThisTestAsChild());
        EXPECT_TRUE(result.Exited(0)) << result;
        return;
    }
    constexpr int kThreads = 8;
    LogCapture log;
    TheWatch().Reset();
    Barrier start(kThreads);
    {
        std::vector<std::unique_ptr<JoiningThread>> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.push_back(std::make_unique<JoiningThread>([&] {
                start.ArriveAndWait();
                LOG_PLAIN(kError, "first");
            }));
        }
    }
    EXPECT_EQ(TheWatch().fetched, 1);
    EXPECT_EQ(TheWatch().null_handles, 0);
    EXPECT_EQ(log.Count("5 first"), kThreads);
}

TEST(LogFirstUse, WithoutAHandleMessagesAreDropped) {
    if (!IsChild()) {
        const ChildResult result = RunChild(ThisTestAsChild());
        EXPECT_TRUE(result.Exited(0)) << result;
        return;
    }
    LogCapture log;
    TheWatch().Reset();
    TheWatch().give_none = true;
    LOG_PLAIN(kError, "nobody hears it");
    LOG_PLAIN(kError, "nor this");
    EXPECT_FALSE(LogEnabled(kError));
    EXPECT_EQ(TheWatch().fetched, 1);
    EXPECT_EQ(TheWatch().asked, 0);
    EXPECT_EQ(TheWatch().written, 0);
    EXPECT_EQ(GetLogger()->load(), nullptr);
    EXPECT_TRUE(log.Is({}));
    ReleaseLogger();
    EXPECT_EQ(TheWatch().released, 0);
}

TEST(LogRelease, GivesTheHandleBackOnceAndNothingLogsAfterwards) {
    if (!IsChild()) {
        const ChildResult result = RunChild(ThisTestAsChild());
        EXPECT_TRUE(result.Exited(0)) << result;
        return;
    }
    LogCapture log;
    TheWatch().Reset();
    LOG_PLAIN(kError, "before");
    void* const handle = GetLogger()->load();
    ReleaseLogger();
    EXPECT_EQ(TheWatch().released, 1);
    EXPECT_EQ(TheWatch().released_handle.load(), handle);
    TheWatch().Reset();
    LOG_PLAIN(kError, "after");
    EXPECT_FALSE(LogEnabled(kError));
    ReleaseLogger();
    EXPECT_EQ(TheWatch().released, 0);
    EXPECT_EQ(TheWatch().fetched, 0);
    EXPECT_EQ(TheWatch().asked, 0);
    EXPECT_EQ(TheWatch().written, 0);
    EXPECT_EQ(GetLogger()->load(), nullptr);
    EXPECT_TRUE(log.Is({"5 before"}));
}

TEST(LogRelease, BeforeTheFirstUseNothingIsEverFetched) {
    if (!IsChild()) {
        const ChildResult result = RunChild(ThisTestAsChild());
        EXPECT_TRUE(result.Exited(0)) << result;
        return;
    }
    LogCapture log;
    TheWatch().Reset();
    ReleaseLogger();
    LOG_PLAIN(kError, "too late");
    EXPECT_EQ(TheWatch().fetched, 0);
    EXPECT_EQ(TheWatch().released, 0);
    EXPECT_TRUE(log.Is({}));
}

}  // namespace
