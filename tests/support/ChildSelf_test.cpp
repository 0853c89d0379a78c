#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <system_error>

#include "TestPlatform.h"
#include "support/Child.h"
#include "support/SupportChild.h"
#include "support/TempDir.h"

namespace vessa_test {
namespace {

TEST(ChildTest, TellsTheExitStatusAndBothOutputs) {
    const ChildResult result = RunChild(SupportChild({"say", "one\n", "two\n", "7"}));
    EXPECT_TRUE(result.Exited(7)) << result;
    EXPECT_FALSE(result.Exited(0));
    EXPECT_FALSE(result.Crashed());
    EXPECT_EQ(result.out, "one\n");
    EXPECT_EQ(result.err, "two\n");
    std::ostringstream described;
    described << result;
    EXPECT_EQ(described.str(), "exit status 7\nstandard output:\none\n\nstandard error:\ntwo\n");
}

TEST(ChildTest, TakesMoreOutputThanAPipeHolds) {
    const ChildResult result = RunChild(SupportChild({"repeat", "0123456789", "20000"}));
    EXPECT_TRUE(result.Exited(0));
    EXPECT_EQ(result.out.size(), 20000U * 11U);
}

TEST(ChildTest, EndsAChildThatHangs) {
    ChildOptions options = SupportChild({"hang"});
    options.watchdog = std::chrono::seconds(1);
    const ChildResult result = RunChild(options);
    EXPECT_TRUE(result.hung) << result;
    EXPECT_EQ(result.exit_status, -1);
    EXPECT_EQ(result.out, "hanging\n");
}

TEST(ChildTest, PassesArgumentsEnvironmentAndFolder) {
    TempDir world;
    SetVariable("REMOVED", "here");
    ChildOptions options =
        SupportChild({"show", "two words", "", "a\\", "\\\\\"b\" c\\\\", "d\\e'*"});
    options.environment["ADDED"] = "a b";
    options.environment["REMOVED"] = std::nullopt;
    options.folder = world.Path();
    const ChildResult result = RunChild(options);
    SetVariable("REMOVED", nullptr);
    EXPECT_EQ(result.out,
              "argument two words\nargument \nargument a\\\nargument \\\\\"b\" c\\\\\n"
              "argument d\\e'*\nADDED a b\nREMOVED none\nfolder " +
                  world.Path() + "\nread 0\n")
        << result;
}

TEST(ChildTest, ReportsAProgramThatIsNotThere) {
    ChildOptions options;
    options.program = "/no/such/program";
    EXPECT_THROW(RunChild(options), std::system_error);
}

TEST(ChildTest, RunsTheSameTestInAChild) {
    if (IsChild()) {
        std::fputs("the child's part", stderr);
        std::_Exit(5);
    }
    const ChildResult result = RunChild(ThisTestAsChild());
    EXPECT_TRUE(result.Exited(5)) << result;
    EXPECT_EQ(result.err, "the child's part");
    EXPECT_NE(result.out.find("Running 1 test from 1 test suite"), std::string::npos) << result;
}

TEST(ChildTest, AChildMayRunAChildOfItsOwn) {
    if (IsChild()) std::_Exit(RunChild(SupportChild({"say", "", "", "6"})).exit_status);
    const ChildResult result = RunChild(ThisTestAsChild());
    EXPECT_TRUE(result.Exited(6)) << result;
}

TEST(ChildTest, AFailureInTheChildShowsInItsExitStatus) {
    if (IsChild()) {
        ADD_FAILURE() << "wrong";
        return;
    }
    const ChildResult result = RunChild(ThisTestAsChild());
    EXPECT_TRUE(result.Exited(1)) << result;
    EXPECT_NE(result.out.find("wrong"), std::string::npos) << result;
}

}  // namespace
}  // namespace vessa_test
