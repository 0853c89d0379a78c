// That the rounds of the two programs report what is left behind, and nothing else.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/Child.h"

namespace vessa_test {
namespace {

ChildResult RunProgram(const std::string& program, std::vector<std::string> counts,
                       const std::string& plant = "") {
    ChildOptions options;
    options.program = program;
    options.arguments = std::move(counts);
    if (!plant.empty()) options.arguments.insert(options.arguments.end(), {"--plant", plant});
    options.watchdog = std::chrono::seconds(500);
    return RunChild(options);
}

void ExpectReported(const ChildResult& result, const std::string& name, const std::string& figure) {
    EXPECT_TRUE(result.Exited(1)) << result;
    EXPECT_NE(result.out.find(name + ": LEFT BEHIND: "), std::string::npos) << result;
    // Growth of that figure: "blocks 812 -> 832". A block has more bytes than one.
    const std::size_t at = result.out.find(figure + " ", result.out.find("LEFT BEHIND"));
    ASSERT_NE(at, std::string::npos) << result;
    long before = 0;
    long after = 0;
    const int read =
        std::sscanf(result.out.c_str() + at + figure.size(), " %ld -> %ld", &before, &after);
    EXPECT_EQ(read, 2) << result;
    EXPECT_GE(after - before, 20) << result;
}

class Planted : public testing::TestWithParam<std::string> {};

TEST_P(Planted, AtTheRegistryIsReported) {
    ExpectReported(RunProgram(LEFTOVERS_PROVIDER, {"200"}, GetParam()), "provider", GetParam());
}
TEST_P(Planted, ThroughListFilesIsReported) {
    ExpectReported(RunProgram(LEFTOVERS_LIBRARY, {"200", "0"}, GetParam()), "lists", GetParam());
}
TEST_P(Planted, WithStartsIsReported) {
    ExpectReported(RunProgram(LEFTOVERS_LIBRARY, {"0", "200"}, GetParam()), "starts", GetParam());
}

std::string NameOf(const testing::TestParamInfo<std::string>& about) {
    return about.param;
}

INSTANTIATE_TEST_SUITE_P(Figures, Planted,
                         testing::Values("blocks", "bytes", "descriptors", "threads", "mappings"),
                         NameOf);

TEST(Leftovers, OfHonestRoundsAreNone) {
    const ChildResult provider = RunProgram(LEFTOVERS_PROVIDER, {"200"});
    EXPECT_TRUE(provider.Exited(0)) << provider;
    const ChildResult library = RunProgram(LEFTOVERS_LIBRARY, {"200", "200"});
    EXPECT_TRUE(library.Exited(0)) << library;
}

TEST(Leftovers, OfAnUnknownFigureAreNotCounted) {
    EXPECT_TRUE(RunProgram(LEFTOVERS_PROVIDER, {"200"}, "nothing").Exited(2));
    EXPECT_TRUE(RunProgram(LEFTOVERS_LIBRARY, {"200"}).Exited(2));
}

}  // namespace
}  // namespace vessa_test
