#include <gtest/gtest.h>

#include <stdexcept>

#include "skrib.h"
#include "support/LogCapture.h"
#include "support/Sync.h"

namespace vessa_test {
namespace {

using Lines = std::vector<std::string>;

class Logger {
  public:
    explicit Logger(const char* name = "vessa") : handle_(SKRIB_GetLogger(name)) {}
    ~Logger() { SKRIB_ReleaseLogger(handle_); }
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;
    void Write(int level, const char* text) const {
        SKRIB_Write(handle_, level, text, "src/a.cpp", "int F()", 12);
    }
    int Threshold() const { return SKRIB_GetThreshold(handle_); }

  private:
    void* handle_;
};

std::string Complaint(const Lines& lines, const Lines& expected) {
    const testing::AssertionResult result = LinesAre(lines, expected);
    return result ? std::string() : result.message();
}

TEST(LinesAreTest, AcceptsEqualSequencesOnly) {
    EXPECT_TRUE(LinesAre({}, {}));
    EXPECT_TRUE(LinesAre({"3 a", "5 b"}, {"3 a", "5 b"}));
    EXPECT_FALSE(LinesAre({"3 a", "5 b"}, {"5 b", "3 a"}));
    EXPECT_FALSE(LinesAre({"3 a"}, {"4 a"}));
    EXPECT_FALSE(LinesAre({"3 a", "5 b"}, {"3 a"}));
    EXPECT_FALSE(LinesAre({"3 a"}, {"3 a", "5 b"}));
    EXPECT_FALSE(LinesAre({}, {""}));
    EXPECT_FALSE(LinesAre({"3 a "}, {"3 a"}));
}

TEST(LinesAreTest, TakesAnyTextForAPlaceholder) {
    EXPECT_TRUE(LinesAre({"3 handle 7F, error 2/2"}, {"3 handle {*}, error {*}/{*}"}));
    EXPECT_TRUE(LinesAre({"3 handle "}, {"3 handle {*}"}));
    EXPECT_TRUE(LinesAre({"3 a, a, b"}, {"3 {*}, b"}));
    EXPECT_FALSE(LinesAre({"3 handle 7F, mistake"}, {"3 handle {*}, error {*}"}));
    EXPECT_FALSE(LinesAre({"3 handle 7F and more"}, {"3 handle {*}F"}));
    EXPECT_TRUE(LinesAre({"3 {0}"}, {"3 {0}"}));
    EXPECT_FALSE(LinesAre({"3 x"}, {"3 {0}"}));
    EXPECT_TRUE(LinesAre({"3 {*"}, {"3 {*"}));
}

TEST(LinesAreTest, TakesTheSameTextForTheSameName) {
    EXPECT_TRUE(LinesAre({"2 made 10", "2 gone 10"}, {"2 made {*i}", "2 gone {*i}"}));
    EXPECT_FALSE(LinesAre({"2 made 10", "2 gone 11"}, {"2 made {*i}", "2 gone {*i}"}));
    EXPECT_FALSE(LinesAre({"2 made 10", "2 gone 100"}, {"2 made {*i}", "2 gone {*i}"}));
    EXPECT_TRUE(LinesAre({"2 a, a, b", "2 a, a"}, {"2 {*x}, b", "2 {*x}"}));
    EXPECT_TRUE(LinesAre({"2 10 11"}, {"2 {*a} {*b}"}));
}

TEST(LinesAreTest, ShowsTheFirstDifference) {
    const std::string complaint = Complaint({"3 a", "3 c", "3 b"}, {"3 a", "3 b", "3 c"});
    EXPECT_EQ(complaint,
              "the first difference is at line 2 (3 lines expected, 3 written)\n"
              "  1: 3 a\n"
              "- expected 2: 3 b\n"
              "- expected 3: 3 c\n"
              "+ written  2: 3 c\n"
              "+ written  3: 3 b\n"
              "the line expected here stands at line 3\n");
    EXPECT_EQ(Complaint({"3 a"}, {"3 a"}), "");
    EXPECT_NE(Complaint({"3 a"}, {"3 {*n}", "3 b"}).find("{*n} is a"), std::string::npos);
}

TEST(LogCaptureTest, KeepsWholeRecordsOfItsLogger) {
    const Logger logger;
    const Logger other("tova");
    LogCapture log;
    logger.Write(1, "trace");
    logger.Write(5, "error");
    other.Write(5, "somebody else");
    ASSERT_TRUE(log.Is({"1 trace", "5 error"}));
    const LogRecord record = log.Records()[1];
    EXPECT_EQ(record.logger, "vessa");
    EXPECT_EQ(record.level, 5);
    EXPECT_EQ(record.text, "error");
    EXPECT_EQ(record.file, "src/a.cpp");
    EXPECT_EQ(record.function, "int F()");
    EXPECT_EQ(record.line, 12);
    EXPECT_EQ(record.thread, std::this_thread::get_id());
    ASSERT_EQ(log.Others().size(), 1U);
    EXPECT_EQ(log.Others()[0].text, "somebody else");
    EXPECT_FALSE(log.Is({"1 trace"}));
    EXPECT_TRUE(log.Contains("5 err"));
    EXPECT_FALSE(log.Contains("4 err"));
    EXPECT_EQ(log.Count("r"), 2);
    log.Clear();
    EXPECT_TRUE(log.Is({}));
}

TEST(LogCaptureTest, SetsTheThresholdAndPutsItBack) {
    const Logger logger;
    SKRIB_SetThreshold("vessa", 5);
    {
        LogCapture log(2);
        EXPECT_EQ(logger.Threshold(), 2);
    }
    EXPECT_EQ(logger.Threshold(), 5);
    LogCapture log;
    EXPECT_EQ(logger.Threshold(), 1);
    EXPECT_THROW(LogCapture(), std::logic_error);
}

TEST(LogCaptureTest, TellsThreadsApart) {
    const Logger logger;
    LogCapture log;
    logger.Write(3, "here");
    JoiningThread thread([&] { logger.Write(3, "there"); });
    thread.Join();
    logger.Write(3, "here again");
    EXPECT_EQ(log.SequenceFor(std::this_thread::get_id()), (Lines{"3 here", "3 here again"}));
    EXPECT_EQ(log.SequenceFor(thread.Id()), (Lines{"3 there"}));
    EXPECT_EQ(log.Threads(),
              (std::vector<std::thread::id>{std::this_thread::get_id(), thread.Id()}));
}

TEST(LogCaptureTest, WaitsForALine) {
    const Logger logger;
    Gate first_seen;
    LogCapture log;
    JoiningThread thread([&] {
        logger.Write(3, "tick one");
        first_seen.Wait();
        logger.Write(3, "tick two");
    });
    log.WaitFor("3 tick one");
    EXPECT_EQ(log.Count("tick"), 1);
    first_seen.Open();
    log.WaitFor("tick", 2);
    log.WaitFor([](const std::vector<LogRecord>& records) { return records.size() == 2; });
}

TEST(LogCaptureTest, HoldsAThreadAtALine) {
    const Logger logger;
    Gate reached;
    Gate go_on;
    LogCapture log;
    log.OnLine("4 hold", [&] {
        reached.Open();
        go_on.Wait();
    });
    JoiningThread thread([&] {
        logger.Write(3, "hold on");
        logger.Write(4, "hold here");
        logger.Write(3, "after");
    });
    reached.Wait();
    EXPECT_TRUE(log.Is({"3 hold on", "4 hold here"}));
    go_on.Open();
    thread.Join();
    EXPECT_TRUE(log.Contains("3 after"));
}

}  // namespace
}  // namespace vessa_test
