// Processes that end without having stopped the library: none crashes, hangs or logs after the
// logger's release.
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "ProcessEndCases.h"
#include "capi/CapiWorld.h"
#include "capi/SanitizerOptions.h"

namespace vessa_test {
namespace {

std::vector<Way> Ways() {
    std::vector<Way> ways = {{"Used", {"used"}},
                             {"Started", {"started"}},
                             {"WithALiveInstance", {"with_instance"}},
                             {"WithAnExitHandlerOlderThanTheStart", {"exit_handler"}},
                             {"WithAnExitHandlerYoungerThanTheStart", {"exit_handler_after"}}};
    for (const char* operation :
         {"Entry", "Init", "GetFileVersion", "GetAllInterfaceIkeys", "GetPluginMapFkeys",
          "CreateInstance_V2", "QueryInterface", "DestroyInstance", "Uninit"}) {
        const std::string name = operation;
        ways.push_back({"Inside" + name, {"inside", name}});
        ways.push_back({"Inside" + name + "OnAnotherThread", {"inside_on_thread", name}});
    }
    for (const char* operation : {"Init", "CreateInstance_V2", "Uninit"}) {
        const std::string name = operation;
        ways.push_back({"WhileAnotherThreadIsIn" + name, {"while_held", name}});
    }
    AddSystemsWays(ways);
    return ways;
}

class ProcessEnd : public testing::TestWithParam<Way> {
  protected:
    static ChildResult End(CapiWorld& world) {
        world.Add("a", "map_two", {{"loadfkeys", "true"}});
        ChildOptions options = world.Program(CAPI_PROCESS_END, GetParam().arguments);
        LookForNoUnjoinedThreads(options);
        if (GetParam().forks) LookForNoLeaks(options);
        return RunChild(options);
    }
};

TEST_P(ProcessEnd, IsClean) {
    CapiWorld world;
    const ChildResult result = End(world);
    EXPECT_TRUE(result.Exited(GetParam().status)) << result;
}

TEST_P(ProcessEnd, LogsNothingAfterTheLoggersRelease) {
    CapiWorld world(WatchingSkribFile());
    const ChildResult result = End(world);
    EXPECT_TRUE(result.Exited(GetParam().status)) << result;
    EXPECT_NE(result.err.find("released\n"), std::string::npos) << result;
}

INSTANTIATE_TEST_SUITE_P(Ways, ProcessEnd, testing::ValuesIn(Ways()),
                         [](const auto& way) { return way.param.name; });

TEST(ProcessEndOfHostGlobals, TheirDestructorsUseTheLibrary) {
    CapiWorld world;
    world.Add("a", "good_v2");
    const ChildResult result = world.Run(CAPI_HOST_GLOBALS, {});
    EXPECT_TRUE(result.Exited(0)) << result;
    EXPECT_EQ(result.out, "made after the first use\nmade before main\n");
}

TEST(ProcessEndOfHostGlobals, TheyMayStartTheLibraryBeforeMain) {
    CapiWorld world;
    world.Add("a", "good_v2");
    ChildOptions options = world.Program(CAPI_HOST_GLOBALS, {});
    options.environment["HOST_STARTS_EARLY"] = "1";
    const ChildResult result = RunChild(options);
    EXPECT_TRUE(result.Exited(0)) << result;
    EXPECT_EQ(result.out, "made after the first use\nstarted before main\nmade before main\n");
}

TEST(ProcessEndOfHostGlobals, NothingIsLoggedAfterTheLoggersRelease) {
    CapiWorld world(WatchingSkribFile());
    world.Add("a", "good_v2");
    const ChildResult result = world.Run(CAPI_HOST_GLOBALS, {});
    EXPECT_TRUE(result.Exited(0)) << result;
    EXPECT_NE(result.err.find("released\n"), std::string::npos) << result;
}

TEST(ProcessEndOfHostGlobals, ExitHandlersOlderThanALoadedLibraryDoNotLog) {
    CapiWorld world(WatchingSkribFile());
    world.Add("a", "good_v2");
    const ChildResult result = world.Run(CAPI_LOADER, {"late_use"});
    EXPECT_TRUE(result.Exited(0)) << result;
    EXPECT_EQ(result.out, "exit handler\n");
}

}  // namespace
}  // namespace vessa_test
