// The checks of this family bite: a library that makes a mistake as soon as something fails is told
// from one that does not, each mistake by its own check.
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "support/Child.h"

namespace {

using vessa_test::ChildOptions;
using vessa_test::ChildResult;
using Strings = std::vector<std::string>;

ChildResult Start(const char* program, const Strings& arguments) {
    ChildOptions options;
    options.program = program;
    options.arguments = arguments;
    options.watchdog = std::chrono::seconds(500);
    return RunChild(options);
}

ChildResult Points(const std::string& kind, Strings options) {
    Strings arguments = {FAULTS_MARKED_LIBRARY, kind, "--log", "warning", "--jobs", "2"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    return Start(FAULTS_POINTS, arguments);
}

struct Mistake {
    const char* plant;
    const char* every;    // of the allocations
    const char* verdict;  // that one line has at least
    const char* reason;
};
std::ostream& operator<<(std::ostream& out, const Mistake& mistake) {
    return out << mistake.plant;
}

class PlantedMistake : public testing::TestWithParam<Mistake> {};

TEST_P(PlantedMistake, IsSeen) {
    const ChildResult result = Points(
        "allocations", {"--plant", GetParam().plant, "--every", GetParam().every, "--mode", "alone",
                        "--watchdog", GetParam().plant == std::string("hang") ? "3" : "60"});
    EXPECT_TRUE(result.Exited(1)) << result;
    const size_t line = result.out.find(std::string(GetParam().verdict) + ": allocation ");
    ASSERT_NE(line, std::string::npos) << result;
    EXPECT_NE(result.out.find(GetParam().reason, line), std::string::npos) << result;
}

INSTANTIATE_TEST_SUITE_P(
    Each, PlantedMistake,
    testing::Values(Mistake{"leak", "200", "LEAK", "blocks of"},
                    Mistake{"parser", "200", "LEAK", "the parser lost"},
                    Mistake{"descriptor", "200", "LEAK", "more descriptors"},
                    Mistake{"thread", "200", "LEAK", "a thread is left"},
                    Mistake{"code", "11", "BROKEN", "CreateInstance gave -2147483638"},
                    Mistake{"out", "11", "BROKEN", "leaves an instance"},
                    Mistake{"half-list", "200", "BROKEN", "declared keys only"},
                    Mistake{"lost-key", "200", "BROKEN", "s2 is served"},
                    Mistake{"stays-on", "200", "BROKEN", "still mapped"},
                    Mistake{"hang", "500", "HANG", "no end after 3 s"},
                    Mistake{"crash", "500", "CRASH", "in \""}),
    [](const auto& mistake) {
        std::string name = mistake.param.plant;
        for (char& c : name) c = c == '-' ? '_' : c;
        return name;
    });

TEST(NoMistake, IsNone) {
    const ChildResult result = Points("allocations", {"--every", "100"});
    EXPECT_TRUE(result.Exited(0)) << result;
    EXPECT_NE(result.out.find("0 crashes, 0 hangs, 0 leaks, 0 broken"), std::string::npos);
}

TEST(PlantedMistakeInMemory, IsSeenByTheAddressSanitizer) {
    if (!FAULTS_WITH_ADDRESS_SANITIZER) GTEST_SKIP() << "not in this build";
    const ChildResult result = Points("allocations", {"--every", "500", "--plant", "stale"});
    EXPECT_TRUE(result.Exited(1)) << result;
    EXPECT_NE(result.out.find("CRASH: allocation 1 alone: "), std::string::npos) << result;
    EXPECT_NE(result.out.find("heap-use-after-free"), std::string::npos) << result;
}

TEST(PlantedMistakeOfTheRuntime, IsSeen) {
    const ChildResult result = Points("runtime", {"--function", "OpenDir", "--plant", "lost-key"});
    EXPECT_TRUE(result.Exited(1)) << result;
    EXPECT_NE(result.out.find("BROKEN: OpenDir 1 alone: "), std::string::npos) << result;
}

TEST(PlantedMistakeOfSystemCalls, IsSeen) {
    const ChildResult result =
        Start(FAULTS_SYSTEM_CALLS, {FAULTS_LIBRARY, "--call", "getdents64", "--plant", "lost-key"});
    if (result.Exited(77)) GTEST_SKIP() << result.out;
    EXPECT_TRUE(result.Exited(1)) << result;
    EXPECT_NE(result.out.find("BROKEN: getdents64:error=EIO:when=1: "), std::string::npos)
        << result;
}

}  // namespace
