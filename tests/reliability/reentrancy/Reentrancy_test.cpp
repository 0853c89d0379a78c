// That the matrix's own checks bite: a wrong expectation and a call that does not end are seen.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "TestPlatform.h"
#include "reentrancy/Cells.h"
#include "reentrancy/Expectations.h"
#include "reentrancy/Watchdog.h"
#include "support/Child.h"
#include "support/TempDir.h"

namespace reentrancy {
namespace {

using vessa_test::ChildOptions;
using vessa_test::ChildResult;

constexpr char kOneCell[] =
    "CreateInstance_V2 in a first use / thread of the slot / no writer / "
    "QueryAllFkeys";
// A cell that does not end is not waited for longer than that.
constexpr char kSoon[] = "2000";

ChildResult Matrix(std::vector<std::string> arguments) {
    ChildOptions child;
    const std::string own = vessa_test::OwnProgram();
    child.program = own.substr(0, own.rfind('/') + 1) + "vessa_reentrancy" PROGRAM_SUFFIX;
    child.arguments = std::move(arguments);
    // For what a process that is ended leaves behind.
    const vessa_test::TempDir folder;
    child.environment["TMPDIR"] = folder.Path();
    child.environment["SKRIB_LEVEL"] = "off";
    return RunChild(child);
}

TEST(ReentrancyMatrix, RunsOneCellByItsName) {
    const ChildResult result = Matrix({"--only", kOneCell});
    EXPECT_TRUE(result.Exited(0)) << result;
    EXPECT_NE(result.out.find("1 cells as documented"), std::string::npos) << result;
}

TEST(ReentrancyMatrix, ReportsACellWithAnotherResultThanIsExpected) {
    const ChildResult result = Matrix({"--only", kOneCell, "--plant", "wrong"});
    EXPECT_TRUE(result.Exited(1)) << result;
    EXPECT_NE(result.out.find(std::string(kOneCell) + ": OK"), std::string::npos) << result;
    EXPECT_NE(result.out.find("1 not as expected"), std::string::npos) << result;
}

TEST(ReentrancyMatrix, ReportsACellThatDoesNotEnd) {
    const ChildResult result =
        Matrix({"--only", kOneCell, "--plant", "endless", "--within", kSoon});
    EXPECT_TRUE(result.Exited(1)) << result;
    EXPECT_NE(result.out.find(std::string(kOneCell) + ": hung, not OK"), std::string::npos)
        << result;
}

TEST(ReentrancyMatrix, ReportsACellThatLeavesSomethingBehind) {
    const ChildResult result = Matrix({"--only", kOneCell, "--plant", "user"});
    EXPECT_TRUE(result.Exited(1)) << result;
    EXPECT_NE(result.out.find("OK; it took 2 times to stop, not OK"), std::string::npos) << result;
}

TEST(ReentrancyMatrix, GoesOnBehindACellThatDoesNotEnd) {
    const std::string row =
        "CreateInstance_V2 in a first use / thread of the slot / no writer / DestroyInstance";
    const ChildResult result =
        Matrix({"--only", row, "--plant", "endless", "--within", kSoon, "--workers", "1"});
    EXPECT_TRUE(result.Exited(1)) << result;
    EXPECT_NE(result.out.find("2 not as expected"), std::string::npos) << result;
}

TEST(ReentrancyMatrix, ReportsAStoredMatrixThatIsNotCurrent) {
    const ChildResult result = Matrix({"--only", kOneCell, "--compare", "/dev/null"});
    EXPECT_TRUE(result.Exited(1)) << result;
    EXPECT_NE(result.out.find("/dev/null is not the matrix"), std::string::npos) << result;
}

// tarnet.h, law 4: two modules must not use each other in their Init on two threads at once.
TEST(ReentrancyMatrix, LeavesOutTwoModulesInEachOthersInitBecauseTheyWaitForEver) {
    const ChildResult on_one = Matrix({"--cross", "one"});
    EXPECT_TRUE(on_one.Exited(0)) << on_one;
    EXPECT_EQ(on_one.out, "OK\n");
    const ChildResult on_two = Matrix({"--cross", "two"});
    EXPECT_TRUE(on_two.Exited(kHungStatus)) << on_two;
    EXPECT_EQ(on_two.out, " hung\n");
}

TEST(ReentrancyMatrix, HasARuleForEveryExpectationAndNoOther) {
    std::set<char> known;
    for (const Rule& rule : AllRules()) EXPECT_TRUE(known.insert(rule.letter).second) << rule.name;
    std::set<char> used;
    for (const Cell& cell : AllCells()) {
        const Expectation expectation = Expected(cell);
        if (expectation.kind != Expectation::kNoSuchCell) used.insert(expectation.rule);
    }
    EXPECT_EQ(used, known);
}

TEST(ReentrancyMatrix, NamesEveryCellOnce) {
    std::set<std::string> names;
    for (const Cell& cell : AllCells()) EXPECT_TRUE(names.insert(cell.Name()).second);
    EXPECT_EQ(names.size(), AllSlots().size() * 4 * kExports);
}

}  // namespace
}  // namespace reentrancy
