// What is shown by means that only this system has.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <set>
#include <string>
#include <thread>

#include "../ProcessTest.h"
#include "../SinkTest.h"
#include "../Support.h"

namespace {

using skrib_test::Child;
using skrib_test::Contents;
using skrib_test::FileSetting;
using skrib_test::Outcome;
using skrib_test::operator+;
using skrib_test::SkribSink;
using skrib_test::TemporaryFolder;
using skrib_test::WithoutTime;
using skrib_test::Words;
using skrib_test::Writing;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

TEST(Skrib, ExportsItsSixFunctionsAndNothingElse) {
    const auto listing = skrib_test::Run(SKRIB_NM, {"-D", "--defined-only", SKRIB_LIBRARY});
    ASSERT_EQ(listing.status, 0) << listing.err;
    std::set<std::string> names;
    for (const std::string& line : skrib_test::Lines(listing.out)) {
        names.insert(line.substr(line.rfind(' ') + 1));
    }
    const std::set<std::string> expected{"SKRIB_GetLogger",     "SKRIB_GetThreshold",
                                         "SKRIB_ReleaseLogger", "SKRIB_SetSink",
                                         "SKRIB_SetThreshold",  "SKRIB_Write"};
    EXPECT_EQ(names, expected);
}

TEST(SkribStandardError, MayFailWithoutHarmToTheFile) {
    const TemporaryFolder folder;
    const std::string file = folder / "log.txt";
    const Outcome outcome =
        Child(Writing("one") + Writing("two"), {FileSetting(file)}, "/dev/full");
    EXPECT_EQ(outcome.status, 0) << outcome.out;
    EXPECT_THAT(WithoutTime(Contents(file)),
                ElementsAre("warning [vessa] one", "warning [vessa] two"));
}

TEST(SkribFile, OnAFullDiskCostsOneReportAndNoRecord) {
    const Outcome outcome = Child(Writing("one") + Writing("two", "5") + Words{"release", "vessa"},
                                  {FileSetting("/dev/full")});
    ASSERT_EQ(outcome.status, 0) << outcome.out;
    const Words lines = WithoutTime(outcome.err);
    ASSERT_THAT(lines, SizeIs(3));
    EXPECT_EQ(lines[0], "warning [vessa] one");
    EXPECT_THAT(lines[1], HasSubstr("No space left on device"));
    EXPECT_EQ(lines[2], "error [vessa] two");
}

TEST_F(SkribSink, LetsAThreadEndItselfInTheReceiver) {
    bool after = false;
    const Function leave = [](const std::string&) { pthread_exit(nullptr); };
    Install(leave);
    std::thread([&] {
        Write("text");
        after = true;
    }).join();
    EXPECT_FALSE(after);
    EXPECT_EQ(SKRIB_SetSink(nullptr, nullptr), 0);
}

TEST_F(SkribSink, LetsAThreadBeCancelledInTheReceiver) {
    bool after = false;
    const Function wait = [](const std::string&) {
        pthread_cancel(pthread_self());
        pthread_testcancel();
    };
    Install(wait);
    std::thread([&] {
        Write("text");
        after = true;
    }).join();
    EXPECT_FALSE(after);
    EXPECT_EQ(SKRIB_SetSink(nullptr, nullptr), 0);
}

}  // namespace
