// What concerns the whole process: the environment, standard error, the file, the exit.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "ProcessTest.h"
#include "Support.h"

namespace {

using skrib_test::Child;
using skrib_test::Contents;
using skrib_test::FileSetting;
using skrib_test::kTime;
using skrib_test::Lines;
using skrib_test::Match;
using skrib_test::Outcome;
using skrib_test::operator+;
using skrib_test::TemporaryFolder;
using skrib_test::WithoutTime;
using skrib_test::Words;
using skrib_test::Writing;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

TEST(SkribStandardError, HasTimeThreadLevelLoggerTextAndPlaceInEachLine) {
    const Outcome outcome =
        Child({"write", "vessa", "4", "a text", "src/a.cpp", "int f(int)", "12"},
              skrib_test::ZoneSetting());
    ASSERT_EQ(outcome.status, 0) << outcome.out;
    const Words match = Match(
        std::string("^") + kTime +
            R"(([-+:0-9]+) ([0-9]+) warning \[vessa\] a text \(src/a\.cpp:12 int f\(int\)\))" +
            "\n$",
        outcome.err);
    ASSERT_THAT(match, SizeIs(3)) << outcome.err;
    EXPECT_EQ(match[1], skrib_test::ZoneShown());
    EXPECT_EQ(match[2], outcome.thread);
}

TEST(SkribStandardError, LeavesOutWhatIsNotGiven) {
    const Outcome outcome = Child({"write", "v", "4", "t", "f.cpp", "-",   "3",  //
                                   "write", "v", "4", "t", "f.cpp", "f()", "0",  //
                                   "write", "v", "4", "t", "f.cpp", "-",   "0",  //
                                   "write", "v", "4", "t", "-",     "f()", "3",  //
                                   "write", "v", "4", "t", "-",     "-",   "3",  //
                                   "write", "v", "4", "-", "f.cpp", "f()", "3"});
    EXPECT_THAT(WithoutTime(outcome.err),
                ElementsAre("warning [v] t (f.cpp:3)", "warning [v] t (f.cpp f())",
                            "warning [v] t (f.cpp)", "warning [v] t (f())", "warning [v] t"));
}

TEST(SkribStandardError, NamesTheLevels) {
    const Outcome outcome =
        Child(Writing("t", "1") + Writing("t", "2") + Writing("t", "3") + Writing("t", "4") +
              Writing("t", "5") + Writing("t", "0") + Writing("t", "6"));
    EXPECT_THAT(
        WithoutTime(outcome.err),
        ElementsAre("trace [vessa] t", "debug [vessa] t", "information [vessa] t",
                    "warning [vessa] t", "error [vessa] t", "trace [vessa] t", "error [vessa] t"));
}

TEST(SkribStandardError, WritesATextAsItIs) {
    const Outcome outcome = Child(Writing("{0} %s %v {} \xc3\xa4\nsecond line\n\nfourth"));
    EXPECT_THAT(WithoutTime(outcome.err),
                ElementsAre("warning [vessa] {0} %s %v {} \xc3\xa4", "second line", "", "fourth"));
}

TEST(SkribStandardError, GetsWholeLinesFromSeveralThreads) {
    const TemporaryFolder folder;
    const std::string file = folder / "log.txt";
    const Outcome outcome = Child({"threads", "vessa", "4", "250"}, {FileSetting(file)});
    ASSERT_EQ(outcome.status, 0);
    const std::string line =
        R"(^warning \[vessa\] writer ([0-9]) record ([0-9]+)\.{300} \(f\.cpp:([0-9]+) f\)$)";
    std::map<int, int> next;
    const Words lines = WithoutTime(outcome.err);
    ASSERT_THAT(lines, SizeIs(1000));
    for (const std::string& text : lines) {
        const Words match = Match(line, text);
        ASSERT_THAT(match, SizeIs(4)) << text;
        EXPECT_EQ(std::stoi(match[2]), next[std::stoi(match[1])]++);
        EXPECT_EQ(std::stoi(match[3]), std::stoi(match[2]) + 1);
    }
    EXPECT_EQ(outcome.err, Contents(file)) << "both get the same lines in the same order";
}

TEST(SkribThreshold, IsWarningUnlessSet) {
    const Outcome outcome = Child({"show", "vessa", "show", "other"});
    EXPECT_EQ(outcome.out, "vessa=4\nother=4\n");
    EXPECT_THAT(outcome.err, IsEmpty());
}

TEST(SkribThreshold, OfAllLoggersReplacesThoseSetByName) {
    const Outcome outcome =
        Child({"get",       "made",  "threshold", "named", "2",     "threshold", "-",
               "5",         "show",  "made",      "show",  "named", "show",      "new",  //
               "threshold", "named", "1",         "show",  "named", "show",      "made"},
              {"SKRIB_LEVEL=made=1"});
    EXPECT_EQ(outcome.out, "made=5\nnamed=5\nnew=5\nnamed=1\nmade=5\n");
}

struct Setting {
    std::string value;
    std::string thresholds;  // of vessa, tova and another one
    std::string refused;
};

void PrintTo(const Setting& setting, std::ostream* out) {
    *out << "SKRIB_LEVEL=" << setting.value;
}

class SkribLevel : public testing::TestWithParam<Setting> {};

TEST_P(SkribLevel, IsReadAsDocumented) {
    const Setting& setting = GetParam();
    const Outcome outcome =
        Child({"show", "vessa", "show", "tova", "show", "x"}, {"SKRIB_LEVEL=" + setting.value});
    std::string shown;
    for (const std::string& line : Lines(outcome.out)) shown += line.substr(line.find('=') + 1);
    EXPECT_EQ(shown, setting.thresholds);
    if (setting.refused.empty()) {
        EXPECT_THAT(outcome.err, IsEmpty());
    } else {
        EXPECT_THAT(WithoutTime(outcome.err),
                    ElementsAre("warning [skrib] SKRIB_LEVEL: ignored " + setting.refused));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Readable, SkribLevel,
    testing::Values(
        Setting{"1", "111", ""}, Setting{"3", "333", ""}, Setting{"6", "666", ""},
        Setting{"trace", "111", ""}, Setting{"debug", "222", ""}, Setting{"information", "333", ""},
        Setting{"info", "333", ""}, Setting{"warning", "444", ""}, Setting{"warn", "444", ""},
        Setting{"error", "555", ""}, Setting{"off", "666", ""}, Setting{"Debug", "222", ""},
        Setting{"ERROR", "555", ""}, Setting{"vessa=debug,tova=error", "254", ""},
        Setting{"vessa=2,tova=INFO,error", "235", ""}, Setting{"error,vessa=2", "255", ""},
        Setting{" vessa = debug , off ", "266", ""}, Setting{"vessa=1,vessa=2", "244", ""},
        Setting{"", "444", ""}, Setting{"  ", "444", ""}));

INSTANTIATE_TEST_SUITE_P(Malformed, SkribLevel,
                         testing::Values(Setting{"0", "444", "\"0\""}, Setting{"7", "444", "\"7\""},
                                         Setting{"-1", "444", "\"-1\""},
                                         Setting{"33", "444", "\"33\""},
                                         Setting{"loud", "444", "\"loud\""},
                                         Setting{"warnings", "444", "\"warnings\""},
                                         Setting{"vessa=loud,tova=debug", "424", "\"vessa=loud\""},
                                         Setting{"=debug,error", "555", "\"=debug\""},
                                         Setting{"vessa=,x=2", "442", "\"vessa=\""},
                                         Setting{"vessa=debug,", "244", "\"\""},
                                         Setting{"a=b,loud,vessa=5", "544", "\"loud\" \"a=b\""}));

TEST(SkribEnvironment, IsReadOnceByWhoeverComesFirst) {
    const Outcome outcome = Child({"race", "vessa", "8", "show", "vessa"}, {"SKRIB_LEVEL=2,bad"});
    EXPECT_EQ(outcome.out, "same\nvessa=2\n");
    EXPECT_THAT(Lines(outcome.err), SizeIs(1)) << "reported once";
}

TEST(SkribFile, GetsTheLinesOfStandardErrorBehindWhatItHolds) {
    const TemporaryFolder folder;
    const std::string file = folder / "log.txt";
    std::ofstream(file) << "from before\n";
    const Outcome outcome = Child(Writing("one") + Writing("two", "2"), {FileSetting(file)});
    EXPECT_THAT(WithoutTime(outcome.err), ElementsAre("warning [vessa] one", "debug [vessa] two"));
    EXPECT_EQ(Contents(file), "from before\n" + outcome.err);
}

TEST(SkribFile, HasWarningsAndErrorsAtOnce) {
    const TemporaryFolder folder;
    const std::string file = folder / "log.txt";
    for (const char* level : {"4", "5"}) {
        const Outcome outcome = Child(Writing("text", level) + Words{"die"}, {FileSetting(file)});
        ASSERT_EQ(outcome.status, 0);
        EXPECT_EQ(Contents(file), outcome.err);
        std::filesystem::remove(file);
    }
}

TEST(SkribFile, HasEverythingAfterTheLastRelease) {
    const TemporaryFolder folder;
    const std::string file = folder / "log.txt";
    const Outcome outcome =
        Child(Writing("text", "2") + Words{"release", "vessa", "die"}, {FileSetting(file)});
    ASSERT_EQ(outcome.status, 0);
    EXPECT_THAT(WithoutTime(Contents(file)), ElementsAre("debug [vessa] text"));
}

TEST(SkribFile, IsMeantFromTheFolderOfTheFirstCall) {
    const TemporaryFolder folder;
    std::filesystem::create_directories(folder / "first");
    std::filesystem::create_directories(folder / "second");
    const Outcome outcome =
        Child(Words{"go-to", folder / "first", "get", "vessa", "go-to", folder / "second"} +
                  Writing("text"),
              {FileSetting("log.txt")});
    EXPECT_EQ(Contents(folder / "first/log.txt"), outcome.err);
    EXPECT_FALSE(std::filesystem::exists(folder / "second/log.txt"));
}

TEST(SkribFile, IsRenamedAtTenMebibytesAndFourOlderOnesAreKept) {
    const TemporaryFolder folder;
    Words commands;
    for (int i = 0; i < 6; ++i) {
        // Nine fit, so do the hundred bytes of a small one; the next large one does not.
        commands = commands + Words{"large", "record " + std::to_string(i), "9437184"};
        commands = commands + Writing("small " + std::to_string(i));
    }
    const Outcome outcome =
        Child(commands, {FileSetting(folder / "log.txt")}, skrib_test::kNowhere);
    ASSERT_EQ(outcome.status, 0);
    const Words names{"log.txt", "log.1.txt", "log.2.txt", "log.3.txt", "log.4.txt"};
    for (std::size_t i = 0; i < names.size(); ++i) {
        const std::string text = Contents(folder / names[i]);
        const std::string number = std::to_string(5 - i);
        EXPECT_LE(std::filesystem::file_size(folder / names[i]), 10U * 1024 * 1024) << names[i];
        EXPECT_THAT(text.substr(0, 100), HasSubstr("[large] record " + number + ".."));
        EXPECT_THAT(text.substr(text.size() - 30), EndsWith("[vessa] small " + number + "\n"));
    }
    EXPECT_FALSE(std::filesystem::exists(folder / "log.5.txt"));
}

TEST(SkribFile, ThatCannotBeOpenedCostsOneReportAndNoRecord) {
    const TemporaryFolder folder;  // a folder is no file
    const Outcome outcome =
        Child(Writing("one") + Writing("two") + Writing("three"), {FileSetting(folder / ".")});
    ASSERT_EQ(outcome.status, 0) << outcome.out;
    const Words lines = WithoutTime(outcome.err);
    ASSERT_THAT(lines, SizeIs(4));
    EXPECT_EQ(lines[0], "warning [vessa] one");
    EXPECT_THAT(lines[1], HasSubstr("warning [skrib] SKRIB_FILE: "));
    EXPECT_EQ(lines[2], "warning [vessa] two");
    EXPECT_EQ(lines[3], "warning [vessa] three");
}

TEST(SkribFile, ThatFailedIsTriedAgainTenSecondsLater) {
    const TemporaryFolder folder;
    const std::string file = folder / "log.txt";
    std::filesystem::create_directories(file);
    const Outcome outcome =
        Child(Writing("one") + Words{"later", "11"} + Writing("two") + Words{"remove", file} +
                  Writing("three") + Words{"later", "11"} + Writing("four") + Writing("five"),
              {FileSetting(file)});
    ASSERT_EQ(outcome.status, 0) << outcome.out;
    EXPECT_THAT(WithoutTime(Contents(file)),
                ElementsAre("warning [vessa] four", "warning [vessa] five"));
    EXPECT_THAT(Lines(outcome.err), SizeIs(7)) << "five records, two reports";
}

TEST(SkribReceiver, StandsInForTheBuiltInSinksUntilItIsTakenAway) {
    const TemporaryFolder folder;
    const std::string file = folder / "log.txt";
    const Outcome outcome = Child(Writing("one") + Words{"receive"} + Writing("two", "2") +
                                      Words{"receive-no-more"} + Writing("three"),
                                  {FileSetting(file)});
    EXPECT_EQ(outcome.out, "vessa 2 two\n");
    EXPECT_THAT(WithoutTime(outcome.err),
                ElementsAre("warning [vessa] one", "warning [vessa] three"));
    EXPECT_EQ(Contents(file), outcome.err);
}

TEST(SkribReceiver, HasItsOwnRecordsWrittenByTheBuiltInSinks) {
    const Outcome outcome = Child(Words{"receive-and-write"} + Writing("one") + Writing("two"));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "one\ntwo\n");
    EXPECT_THAT(WithoutTime(outcome.err), ElementsAre("error [vessa] written by the receiver",
                                                      "error [vessa] written by the receiver"));
}

TEST(SkribExit, LetsExitHandlersAndGlobalObjectsLog) {
    const TemporaryFolder folder;
    const std::string file = folder / "log.txt";
    const Outcome outcome =
        Child(Words{"late", "vessa"} + Writing("from main"), {FileSetting(file)});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(WithoutTime(outcome.err),
                ElementsAre("warning [vessa] from main", "warning [vessa] from an exit handler",
                            "warning [vessa] from a destructor", "warning [new] new and late"));
    EXPECT_EQ(Contents(file), outcome.err);
}

TEST(SkribExit, LetsAReleasedLoggerDoNoHarm) {
    const Outcome outcome =
        Child(Writing("one") + Words{"release", "vessa", "release", "vessa"} + Writing("two"));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(WithoutTime(outcome.err),
                ElementsAre("warning [vessa] one", "warning [vessa] two"));
}

}  // namespace
