#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "support/SupportChild.h"
#include "support/TempDir.h"

namespace vessa_test {
namespace {

ChildOptions Shell(const std::string& script) {
    ChildOptions options;
    options.program = "/bin/sh";
    options.arguments = {"-c", script};
    return options;
}

TEST(ChildTest, TellsTheSignal) {
    const ChildResult result = RunChild(Shell("kill -TERM $$"));
    EXPECT_EQ(result.signal, SIGTERM) << result;
    EXPECT_TRUE(result.Crashed());
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

}  // namespace
}  // namespace vessa_test
