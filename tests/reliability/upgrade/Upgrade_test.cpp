// The upgrade while it runs: each way to change a list or a module, in each state that the plug-in
// may be in, has the result that docs/upgrading.md tells. The rows, and how one is added, are in
// Rows.h. What is forbidden is shown in children that nothing is expected of.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

#include "reliability/upgrade/Rows.h"
#include "support/Child.h"

namespace {

using upgrade::Deployment;
using upgrade::Differences;
using upgrade::DifferencesOf;
using upgrade::Row;
using upgrade::Rows;
using upgrade::State;

constexpr State kStates[] = {State::kNotLoaded, State::kLoaded, State::kInUse};

std::string NameOf(State state) {
    return state == State::kNotLoaded ? "NotLoaded" : state == State::kLoaded ? "Loaded" : "InUse";
}

std::string Joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += line + "\n";
    return text;
}

std::string Document() {
    std::ifstream file(VESSA_SOURCE_DIR "/docs/upgrading.md", std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

const Row& RowOf(const std::string& change) {
    for (const Row& row : Rows()) {
        if (row.change == change) return row;
    }
    throw std::runtime_error("no row: " + change);
}

using Combination = std::tuple<size_t, State>;

std::vector<Combination> Combinations(bool forbidden) {
    std::vector<Combination> combinations;
    for (size_t row = 0; row < Rows().size(); ++row) {
        for (const State state : kStates) {
            if (Rows()[row].In(state).IsForbidden() == forbidden)
                combinations.emplace_back(row, state);
        }
    }
    return combinations;
}

std::string TestName(const testing::TestParamInfo<Combination>& info) {
    const Row& row = Rows()[std::get<0>(info.param)];
    std::string name;
    bool begins = true;
    for (const char c : row.section + std::string(" ") + row.change) {
        const bool is_letter = std::isalnum(static_cast<unsigned char>(c)) != 0;
        if (is_letter) name += begins ? static_cast<char>(std::toupper(c)) : c;
        begins = !is_letter;
    }
    return name + "_" + NameOf(std::get<1>(info.param));
}

class Upgrade : public testing::TestWithParam<Combination> {
  protected:
    const Row& row_ = Rows()[std::get<0>(GetParam())];
    const State state_ = std::get<1>(GetParam());
};

TEST_P(Upgrade, IsAsDocumented) {
    const vessa_test::RuntimeCensus before = vessa_test::Runtime::Census();
    const std::vector<std::string> differences = Differences(row_, state_);
    EXPECT_TRUE(differences.empty()) << row_.change << "\n" << Joined(differences);
    EXPECT_EQ(vessa_test::Runtime::Census(), before) << "something is left after the stop";
}
INSTANTIATE_TEST_SUITE_P(Each, Upgrade, testing::ValuesIn(Combinations(false)), TestName);

// Over a loaded module. The process may go on or end: only that is told. The same by rename is
// safe.
class ForbiddenUpgrade : public Upgrade {};

void ChangeAndGoOn(const Row& row, State state) {
    const rlimit no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    Deployment deployment(state, row.form);
    row.apply(deployment);
    std::string seen = deployment.Observe("codec");
    deployment.Scan();
    seen += ", " + deployment.Observe("codec") + deployment.LiveSurprise();
    deployment.LastInstanceGoes();
    seen += ", " + deployment.Observe("codec");
    std::printf("served %s\n", seen.c_str());
}

// A child that ends early leaves its files: they go with the parent's folder.
vessa_test::ChildResult RunForbidden() {
    const vessa_test::TempDir folder;
    vessa_test::ChildOptions child = vessa_test::ThisTestAsChild();
    child.environment["TMPDIR"] = folder.Path();
    child.watchdog = std::chrono::seconds(20);
    return vessa_test::RunChild(child);
}

TEST_P(ForbiddenUpgrade, MayEndTheProcess) {
    if (vessa_test::IsChild()) return ChangeAndGoOn(row_, state_);
    const vessa_test::ChildResult result = RunForbidden();
    // Whatever it came to, it came to it after the change, not before.
    EXPECT_NE(result.out.find("MayEndTheProcess"), std::string::npos) << result;
    const size_t served = result.out.find("served ");
    std::printf("module %s, %s: %s%s%s\n", row_.change, NameOf(state_).c_str(),
                result.End().c_str(), served == std::string::npos ? "" : ", ",
                served == std::string::npos
                    ? ""
                    : result.out.substr(served, result.out.find('\n', served) - served).c_str());
}

TEST_P(ForbiddenUpgrade, IsSafeByRename) {
    if (vessa_test::IsChild()) return ChangeAndGoOn(RowOf("replaced by rename"), state_);
    const vessa_test::ChildResult result = RunForbidden();
    EXPECT_TRUE(result.Exited(0)) << result;
    EXPECT_NE(result.out.find("served 1, 1, 1\n"), std::string::npos) << result;
}
INSTANTIATE_TEST_SUITE_P(Each, ForbiddenUpgrade, testing::ValuesIn(Combinations(true)), TestName);

TEST(UpgradeDocument, HasTheRowsThatAreTested) {
    const std::vector<std::string> differences = DifferencesOf(Document());
    EXPECT_TRUE(differences.empty()) << Joined(differences);
}

TEST(UpgradeDocument, WithAWrongCellIsReported) {
    std::string document = Document();
    const std::string right = RowOf("replaced by rename").InDocument();
    const size_t at = document.find(right);
    ASSERT_NE(at, std::string::npos);
    std::string wrong = right;
    wrong.replace(wrong.find("1, 1"), 4, "1, 2");
    document.replace(at, right.size(), wrong);
    EXPECT_EQ(DifferencesOf(document).size(), 2u);
}

TEST(UpgradeDocument, WithoutARowOrUnderAnotherSectionIsReported) {
    const std::string right = RowOf("replaced by rename").InDocument() + "\n";
    std::string document = Document();
    document.erase(document.find(right), right.size());
    EXPECT_EQ(DifferencesOf(document).size(), 1u);
    EXPECT_EQ(DifferencesOf(document + right).size(), 2u);
}

TEST(UpgradeDocument, NamesWhatIsForbidden) {
    EXPECT_EQ(Combinations(true).size(), 6u);
    for (const Combination& combination : Combinations(true))
        EXPECT_STREQ(Rows()[std::get<0>(combination)].section, "The module's file alone");
}

TEST(UpgradeRow, WithAWrongExpectationIsReported) {
    Row wrong = RowOf("replaced by rename");
    wrong.in_use = {"1, 2, 1", nullptr};
    EXPECT_EQ(Differences(wrong, State::kInUse),
              std::vector<std::string>{"look 2: documented 2, seen 1"});
}

TEST(UpgradeRow, WithAWrongLineIsReported) {
    Row wrong = RowOf("cut to nothing in place");
    wrong.loaded.line = "no such line";
    const std::vector<std::string> differences = Differences(wrong, State::kLoaded);
    ASSERT_GE(differences.size(), 2u);
    EXPECT_EQ(differences[0], "the line is missing: no such line");
    wrong.loaded.line = nullptr;
    EXPECT_FALSE(Differences(wrong, State::kLoaded).empty());
}

TEST(UpgradeRow, ForAPluginThatIsNotReplacedIsReported) {
    Row nothing = RowOf("replaced by rename");
    nothing.apply = [](Deployment&) {};
    EXPECT_EQ(
        Differences(nothing, State::kNotLoaded),
        (std::vector<std::string>{"look 1: documented 2, seen 1", "look 2: documented 2, seen 1"}));
}

}  // namespace
