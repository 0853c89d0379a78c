// The library loaded and unloaded by path.
#include <gtest/gtest.h>

#include "capi/LoadedByPath.h"
#include "capi/SanitizerOptions.h"

namespace vessa_test {
namespace {

// With few slots for threads' own values left in the process: each round gives its own back.
TEST_F(LoadedByPath, IsUnmappedAfterItsStopAndLoadedAgainTwentyTimes) {
    ExpectSuccess({"again"});
}

TEST_F(LoadedByPath, IsUnmappedWithoutHavingBeenStarted) {
    ExpectSuccess({"unused"});
}

TEST_F(LoadedByPath, StaysMappedAndWorksWhenItIsUnloadedWhileItRuns) {
    ExpectSuccess({"forgotten"});
}

class LeftRunning : public LoadedByPath, public testing::WithParamInterface<const char*> {};

TEST_P(LeftRunning, LetsTheProcessEnd) {
    ChildOptions options = world.Program(CAPI_LOADER, {GetParam()});
    LookForNoUnjoinedThreads(options);
    const ChildResult result = RunChild(options);
    EXPECT_TRUE(result.Exited(0)) << result;
}

INSTANTIATE_TEST_SUITE_P(Ways, LeftRunning,
                         testing::Values("left_running", "left_running_unloaded"),
                         [](const auto& way) { return std::string(way.param); });

TEST_F(LoadedByPath, WorksInExitHandlersOlderThanItself) {
    const ChildResult result = world.Run(CAPI_LOADER, {"late_use"});
    EXPECT_TRUE(result.Exited(0)) << result;
    EXPECT_EQ(result.out, "exit handler\n");
}

TEST_F(LoadedByPath, FindsTheRootBesideARelativeNameAfterTheWorkingFolderChanged) {
    ExpectSuccess({"named", std::string("./") + kVessaName});
    world.dir.MakeFolder("other");
    ChildOptions options = world.Program(CAPI_LOADER, {"named", std::string("../") + kVessaName});
    options.folder = world.dir.Path("other");
    const ChildResult result = RunChild(options);
    EXPECT_TRUE(result.Exited(0)) << result;
}

TEST_F(LoadedByPath, FindsTheRootBesideAnAbsoluteName) {
    ExpectSuccess({"named", world.dir.Path(kVessaName)});
}

TEST_F(LoadedByPath, OffersItsTwoAssignments) {
    ExpectSuccess({"assignments"});
}

}  // namespace
}  // namespace vessa_test
