// That the random run finds what is wrong: mistakes built into the library, a model that was told a
// wrong rule, modules that do not count; and that it finds nothing else.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/Child.h"

namespace vessa_test {
namespace {

ChildResult RunRandom(std::vector<std::string> more) {
    ChildOptions options;
    options.program = RANDOM_PROGRAM;
    options.arguments = {"--operations", "4000"};
    options.arguments.insert(options.arguments.end(), more.begin(), more.end());
    options.watchdog = std::chrono::seconds(500);
    return RunChild(options);
}

void ExpectFound(const ChildResult& result, const std::string& what) {
    EXPECT_TRUE(result.Exited(1)) << result;
    EXPECT_NE(result.out.find("MISMATCH: seed "), std::string::npos) << result;
    EXPECT_NE(result.out.find("  again:    vessa_random --seed "), std::string::npos) << result;
    EXPECT_NE(result.out.find(what), std::string::npos) << result;
}

ChildResult RunPlanted(const std::string& name) {
    return RunRandom({"--vessa", RANDOM_PLANTED "/" + name + "/libvessa.so.2", "--phases", "40"});
}

TEST(RandomRun, OfASoundLibraryHasNoMismatch) {
    const ChildResult result = RunRandom({"--phases", "5"});
    EXPECT_TRUE(result.Exited(0)) << result;
    EXPECT_NE(result.out.find(": 0 mismatches"), std::string::npos) << result;
}

TEST(RandomRun, FindsACreateOfAnUnregisteredKey) {
    ExpectFound(RunPlanted("unregistered"), "  expected: VESSA_ERR_NOT_REGISTERED");
}

TEST(RandomRun, FindsADestroyThatIsNotCounted) {
    ExpectFound(RunPlanted("counter"), "MISMATCH");
}

TEST(RandomRun, FindsAnInstanceThatIsNotGivenBackForWantOfMemory) {
    ExpectFound(RunPlanted("memory"), "MISMATCH");
}

TEST(RandomRun, FindsADestroyThatTwoThreadsBothCarryOut) {
    ExpectFound(RunPlanted("twice"), "MISMATCH");
}

TEST(RandomRun, FindsThatItsModelBelievesAWrongRule) {
    ExpectFound(RunRandom({"--plant", "rule", "--phases", "12"}), "MISMATCH");
}

TEST(RandomRun, FindsAModuleThatDoesNotCount) {
    ExpectFound(RunRandom({"--plant", "module", "--phases", "12"}), ": instances of module ");
}

TEST(RandomRun, FindsTheSameAgainWithTheSameSeed) {
    const std::vector<std::string> arguments = {"--plant",   "rule", "--phases", "12",
                                                "--threads", "1",    "--seed",   "7"};
    const ChildResult first = RunRandom(arguments);
    ExpectFound(first, "MISMATCH: seed 7");
    EXPECT_EQ(RunRandom(arguments).out, first.out);
}

TEST(RandomRun, ThatNeverComesToSomethingIsNotComplete) {
    const ChildResult result = RunRandom({"--phases", "1", "--complete"});
    EXPECT_TRUE(result.Exited(1)) << result;
    EXPECT_NE(result.out.find("NEVER"), std::string::npos) << result;
}

}  // namespace
}  // namespace vessa_test
