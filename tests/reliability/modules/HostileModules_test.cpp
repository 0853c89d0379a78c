// Hostile modules, one test for each, loaded at a start and with their first use: the eight exports
// of the built library answer as documented, a good module beside it is served before and after,
// and nothing is left behind.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "modules/Files.h"
#include "modules/Row.h"
#include "support/Child.h"
#include "vessa/vessa.h"

namespace hostile {
namespace {

using vessa_test::ChildOptions;
using vessa_test::ChildResult;

ChildResult RunRow(const Row& row, bool delay_load) {
    HostileWorld world(delay_load);
    if (row.module.empty())
        MakeFile(world.dir, row.file, kModulePath);
    else
        vessa_test::Install(world.dir, row.module, kModulePath);
    std::vector<std::string> keys;
    for (const auto& key : row.keys) keys.push_back(key.first);
    ChildOptions host = world.Host(2, keys);
    if (!row.operation.empty()) host.environment["HOSTILE_OPERATION"] = row.operation;
    // A leak of the module's own, which is not to be told from one of the library.
    if (row.loses_instance) host.environment["ASAN_OPTIONS"] = "detect_leaks=0";
    return RunChild(host);
}

std::string DifferencesOf(const Row& row, bool delay_load) {
    const ChildResult result = RunRow(row, delay_load);
    std::string text = Differences(ExpectedLines(row, delay_load), result.out);
    if (!result.Exited(0)) text += result.Describe();
    return text;
}

class HostileModule : public testing::TestWithParam<Row> {};

TEST_P(HostileModule, AtAStart) {
    EXPECT_EQ(DifferencesOf(GetParam(), false), "");
}

TEST_P(HostileModule, AtItsFirstUse) {
    EXPECT_EQ(DifferencesOf(GetParam(), true), "");
}

INSTANTIATE_TEST_SUITE_P(Modules, HostileModule, testing::ValuesIn(AllRows()),
                         [](const auto& row) { return row.param.name; });

Row RowNamed(const std::string& name) {
    for (const Row& row : AllRows()) {
        if (row.name == name) return row;
    }
    ADD_FAILURE() << "no row " << name;
    return {};
}

// The comparison bites: whatever a row says wrongly shows, by its line.
void ExpectDifference(const Row& row, const std::string& line) {
    const std::string text = DifferencesOf(row, false);
    EXPECT_NE(text.find("! " + line), std::string::npos) << row.name << ":\n" << text;
}

TEST(HostileModuleRows, FailWithAnotherCodeThanIsExpected) {
    Row row = RowNamed("no_entry");
    row.load.result = VESSA_ERR_MODULE_INIT;
    ExpectDifference(row,
                     "load: VESSA_ERR_NO_INTERFACE   instead of   load: VESSA_ERR_MODULE_INIT");
    row = RowNamed("create_fails");
    row.create.error = 12;
    ExpectDifference(row, "create: VESSA_FAILED 11 null");
}

TEST(HostileModuleRows, FailWhenAModuleStaysMapped) {
    Row row = RowNamed("stays_mapped");
    row.stays = false;
    ExpectDifference(row, "left: mapped m.so   instead of   left: nothing");
}

TEST(HostileModuleRows, FailWhenADescriptorOrAThreadIsLeft) {
    Row row;
    row.name = "planted";
    row.module = "hostile/leaves_descriptor";
    row.operation = "Init";
    ExpectDifference(row, "left: 1 descriptors   instead of   left: nothing");
    row.module = "hostile/leaves_idle_thread";
    ExpectDifference(row, "left: 1 threads   instead of   left: nothing");
}

TEST(HostileModuleRows, FailWhenTheHostDoesNotComeBack) {
    Row row;
    row.module = "hostile/hangs";
    row.operation = "Init";
    HostileWorld world(false);
    vessa_test::Install(world.dir, row.module, kModulePath);
    ChildOptions host = world.Host(2);
    host.environment["HOSTILE_OPERATION"] = "Init";
    host.watchdog = std::chrono::seconds(2);
    const ChildResult result = RunChild(host);
    EXPECT_EQ(result.End(), "hung");
    EXPECT_NE(Differences(ExpectedLines(row, false), result.out), "");
}

TEST(HostileModuleRows, AreManyAndNamedOnce) {
    std::set<std::string> names;
    for (const Row& row : AllRows()) EXPECT_TRUE(names.insert(row.name).second) << row.name;
    EXPECT_GE(names.size(), 40u);
    RecordProperty("modules", static_cast<int>(names.size()));
}

}  // namespace
}  // namespace hostile
