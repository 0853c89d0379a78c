#include <gtest/gtest.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <system_error>

#include "support/Child.h"
#include "support/TempDir.h"

namespace vessa_test {
namespace {

ChildOptions Shell(const std::string& script) {
    ChildOptions options;
    options.program = "/bin/sh";
    options.arguments = {"-c", script};
    return options;
}

TEST(ChildTest, TellsTheExitStatusAndBothOutputs) {
    const ChildResult result = RunChild(Shell("echo one; echo two >&2; exit 7"));
    EXPECT_TRUE(result.Exited(7)) << result;
    EXPECT_FALSE(result.Exited(0));
    EXPECT_EQ(result.out, "one\n");
    EXPECT_EQ(result.err, "two\n");
    std::ostringstream described;
    described << result;
    EXPECT_EQ(described.str(), "exit status 7\nstandard output:\none\n\nstandard error:\ntwo\n");
}

TEST(ChildTest, TellsTheSignal) {
    const ChildResult result = RunChild(Shell("kill -TERM $$"));
    EXPECT_EQ(result.signal, SIGTERM) << result;
    EXPECT_EQ(result.exit_status, -1);
    EXPECT_FALSE(result.hung);
}

TEST(ChildTest, EndsAChildThatHangsAndWhatItStarted) {
    // Both shells wait for a line of a FIFO that nobody writes.
    TempDir world;
    ChildOptions options =
        Shell("mkfifo never; echo begun; (read line < never) & read line < never");
    options.folder = world.Path();
    options.watchdog = std::chrono::seconds(1);
    const ChildResult result = RunChild(options);
    EXPECT_TRUE(result.hung) << result;
    EXPECT_FALSE(result.Exited(0));
    EXPECT_EQ(result.signal, SIGKILL);
    EXPECT_EQ(result.out, "begun\n");
    EXPECT_EQ(result.Describe().substr(0, 5), "hung\n");
}

TEST(ChildTest, DoesNotWaitForAGrandchildThatKeepsTheOutputOpen) {
    TempDir world;
    ChildOptions options = Shell("mkfifo never; (read line <> never) & echo $!");
    options.folder = world.Path();
    const ChildResult result = RunChild(options);
    EXPECT_TRUE(result.Exited(0)) << result;
    kill(std::stoi(result.out), SIGKILL);
}

TEST(ChildTest, TakesMoreOutputThanAPipeHolds) {
    const ChildResult result =
        RunChild(Shell("i=0; while [ $i -lt 20000 ]; do echo 0123456789; i=$((i+1)); done"));
    EXPECT_TRUE(result.Exited(0));
    EXPECT_EQ(result.out.size(), 20000U * 11U);
}

TEST(ChildTest, PassesArgumentsEnvironmentAndFolder) {
    TempDir world;
    ChildOptions options = Shell("echo \"$0|$1|$ADDED|${HOME-none}\"; pwd; cat");
    options.arguments.insert(options.arguments.end(), {"first arg", "second"});
    options.environment["ADDED"] = "a b";
    options.environment["HOME"] = std::nullopt;
    options.folder = world.Path();
    const ChildResult result = RunChild(options);
    EXPECT_EQ(result.out, "first arg|second|a b|none\n" + world.Path() + "\n") << result;
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
