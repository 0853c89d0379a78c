// A module that is cut short: at every length at which something is missing that the system would
// map it is refused, and behind that it is served.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "modules/Files.h"
#include "modules/Row.h"
#include "support/Child.h"

namespace hostile {
namespace {

// 60 lengths that lack something: the borders, and the rest spread evenly.
std::set<std::size_t> ShortLengths(std::size_t end) {
    std::set<std::size_t> lengths = {0, 1, 4, 15, 16, 63, 64, 65, 119, 120, 4095, 4096, end - 1};
    for (std::size_t i = 1; lengths.size() < 60; ++i) lengths.insert(end * i / 61);
    return lengths;
}

std::string Told(const std::string& module, const std::string& first, const std::string& load) {
    std::string differences;
    for (const bool delay_load : {false, true}) {
        HostileWorld world(delay_load);
        world.dir.Write(kModulePath, module);
        const vessa_test::ChildResult result = RunChild(world.Host(1));
        const bool refused = load != "VESSA_OK";
        std::vector<std::string> lines = {
            "start: VESSA_OK", "good: served",
            "start: VESSA_OK", "load: " + (delay_load ? "VESSA_OK" : load),
            "good: served",    first};
        if (!refused) {
            lines.emplace_back("query: VESSA_OK 0 given");
            lines.emplace_back("second: VESSA_OK");
            lines.emplace_back("destroy: VESSA_OK 0");
            lines.emplace_back("twice: VESSA_ERR_ARGUMENT");
        }
        lines.push_back(std::string("mapped: ") + (refused ? "no" : "yes"));
        lines.emplace_back("good: served");
        lines.emplace_back("left: nothing");
        lines.emplace_back("end");
        differences += Differences(lines, result.out);
        if (!result.Exited(0)) differences += result.Describe();
    }
    return differences;
}

TEST(ATruncatedModule, IsRefusedAtEachOfSixtyLengths) {
    const std::string whole = GoodModule();
    const std::set<std::size_t> lengths = ShortLengths(EndOfSegments(whole));
    ASSERT_EQ(lengths.size(), 60u);
    for (const std::size_t length : lengths) {
        EXPECT_EQ(Told(whole.substr(0, length), "create: VESSA_ERR_MODULE_LOAD 0 null",
                       "VESSA_ERR_MODULE_LOAD"),
                  "")
            << "the first " << length << " bytes of " << whole.size();
    }
}

// What is behind the last segment is for tools.
TEST(ATruncatedModule, IsServedWhenNothingIsMissingThatIsMapped) {
    const std::string whole = GoodModule();
    const std::size_t end = EndOfSegments(whole);
    ASSERT_LT(end, whole.size());
    for (const std::size_t length : {end, (end + whole.size()) / 2, whole.size() - 1, whole.size()})
        EXPECT_EQ(Told(whole.substr(0, length), "create: VESSA_OK 0 given", "VESSA_OK"), "")
            << "the first " << length << " bytes of " << whole.size();
}

}  // namespace
}  // namespace hostile
