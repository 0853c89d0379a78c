// The check bites: a stale pointer into an unloaded module faults, also where it would hit another
// module without the library for LD_PRELOAD.
#include <gtest/gtest.h>

#include "support/Child.h"
#include "support/Modules.h"
#include "support/TempDir.h"

namespace vessa_test {
namespace {

ChildResult RunProbe(const std::string& use, bool is_closed) {
    TempDir world;
    ChildOptions options;
    options.program = UNLOADED_PROBE;
    options.arguments = {Install(world, "good_v2", "first.so"),
                         Install(world, "good_v2", "next.so"), use};
    options.environment["LD_PRELOAD"] =
        is_closed ? std::optional<std::string>(UNLOADED_LIBRARY) : std::nullopt;
    return RunChild(options);
}

void ExpectFault(const std::string& use) {
    const ChildResult result = RunProbe(use, true);
    EXPECT_TRUE(result.Crashed()) << result;
    EXPECT_NE(result.err.find("unloaded: first.so is used after its unload"), std::string::npos)
        << result;
    EXPECT_NE(result.out.find("another place"), std::string::npos) << result;
}

TEST(AnUnloadedModule, FaultsWhenItIsCalled) {
    ExpectFault("call");
}

TEST(AnUnloadedModule, FaultsWhenItIsRead) {
    ExpectFault("read");
}

TEST(AnUnloadedModule, DoesNoHarmUnused) {
    const ChildResult result = RunProbe("none", true);
    EXPECT_TRUE(result.Exited(0)) << result;
}

TEST(AnUnloadedModule, IsUsedUnnoticedWithoutTheClosedRange) {
    const ChildResult result = RunProbe("call", false);
    if (result.out.find("the same place") == std::string::npos)
        GTEST_SKIP() << "the system maps the next module elsewhere";
    EXPECT_TRUE(result.Exited(0)) << result;
}

}  // namespace
}  // namespace vessa_test
