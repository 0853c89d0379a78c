// Change rounds, handed to the coordinator as the monitor would.
#include <gtest/gtest.h>

#include <list>
#include <string>
#include <vector>

#include "TestPlatform.h"
#include "support/ListFile.h"
#include "support/LogCapture.h"
#include "support/Modules.h"
#include "support/Runtime.h"
#include "support/TempDir.h"
#include "unit/ConfigItems.h"
#include "vessa2/PluginCoordinator.h"

namespace {

using vessa_test::Install;
using vessa_test::ListFile;
using vessa_test::LogCapture;
using vessa_test::Runtime;
using vessa_test::TempDir;
using Strings = std::vector<std::string>;
using Changes = std::list<ConfigMonitor::NotifyInfo>;

ListFile::Attributes Delayed() {
    return {{"delayload", "true"}};
}

PluginConfigItem Item(const std::string& fkey, const std::string& path) {
    return vessa_test::ItemFields{fkey, path, false, false, "", {}}.Make();
}

PluginConfigList List(std::initializer_list<PluginConfigItem> items) {
    PluginConfigList list;
    list.assign(items);
    return list;
}

Strings Described(const PluginConfigList& list) {
    Strings lines;
    for (const PluginConfigItem& item : list) lines.push_back(item.fkey() + " " + item.file_path());
    return lines;
}

class ConfigChanges : public testing::Test {
  protected:
    ConfigChanges() {
        coordinator_.SetPluginRoot(dir_.Path());
        coordinator_.SetConfigFilename("tarnet.xml");
        // Out of the monitor's sight: the test reports it itself.
        a_ = dir_.Path("a.xml");
        b_ = dir_.Path("b.xml");
    }
    ~ConfigChanges() override { coordinator_.Shutdown(); }

    void Start() {
        ASSERT_TRUE(coordinator_.Run());
        log_.Clear();
    }
    void Report(const Changes& changes) {
        log_.Clear();
        coordinator_.ConfigFileChanged(monitor_, changes);
    }
    void Write(const std::string& path, const std::string& fkey) {
        dir_.Write(path.substr(dir_.Path().size() + 1),
                   ListFile().Plugin(fkey, "/p/" + fkey + MODULE_SUFFIX, Delayed()).Text());
    }
    Strings Fkeys() {
        Strings fkeys;
        coordinator_.GetAllFkeys(fkeys);
        return fkeys;
    }
    // The lines about registrations and unregistrations that the coordinator itself wrote.
    Strings Steps() const {
        Strings steps;
        for (const auto& record : log_.Records()) {
            if (record.function.find("PluginCoordinator::") == std::string::npos) continue;
            const size_t comma = record.text.find(", file path");
            if (record.text.find("register") != std::string::npos)
                steps.push_back(record.text.substr(0, comma));
        }
        return steps;
    }

    TempDir dir_;
    Runtime runtime_;
    LogCapture log_;
    ConfigMonitor monitor_;
    PluginCoordinator coordinator_;
    std::string a_;
    std::string b_;
};

TEST_F(ConfigChanges, AreIgnoredWhileTheCoordinatorDoesNotRun) {
    Write(a_, "a");
    Report({{a_, ConfigMonitor::kAdded}});
    EXPECT_TRUE(log_.Is({"1 config file changed begin",
                         "3 plugin coordinator already shutdown, config change igored"}));
    EXPECT_EQ(Fkeys(), Strings{});
}

TEST_F(ConfigChanges, WithoutAnyAreABracketAlone) {
    Start();
    Report({});
    EXPECT_TRUE(log_.Is({"1 config file changed begin", "1 config file changed end"}));
}

TEST_F(ConfigChanges, AKnownFileReportedAsAddedCountsAsChanged) {
    Start();
    Write(a_, "a");
    Report({{a_, ConfigMonitor::kAdded}});
    EXPECT_EQ(Steps(), (Strings{"register plugin succeeded, fkey a"}));
    Write(a_, "b");
    Report({{a_, ConfigMonitor::kAdded}});
    EXPECT_TRUE(log_.Contains(
        "4 config collection contains config file, but notify type is added, config file path " +
        a_));
    EXPECT_EQ(Steps(), (Strings{"unregister plugin succeeded, fkey a",
                                "register plugin succeeded, fkey b"}));

    dir_.Write("a.xml", "<");
    Report({{a_, ConfigMonitor::kAdded}});
    EXPECT_TRUE(log_.Contains("4 read plugin list config failed, ignored, file path " + a_ +
                              ", notify type 3"));
    EXPECT_EQ(Fkeys(), (Strings{"b"}));
}

TEST_F(ConfigChanges, AnUnknownFileReportedAsChangedCountsAsAdded) {
    Start();
    Write(a_, "a");
    Report({{a_, ConfigMonitor::kChanged}});
    EXPECT_TRUE(log_.Contains(
        "4 config collection does not contains config file, but notify type is changed, config "
        "file path " +
        a_));
    EXPECT_EQ(Steps(), (Strings{"register plugin succeeded, fkey a"}));

    dir_.Write("b.xml", "<");
    Report({{b_, ConfigMonitor::kChanged}});
    EXPECT_TRUE(log_.Contains("4 read plugin list config failed, ignored, file path " + b_ +
                              ", notify type 1"));
}

TEST_F(ConfigChanges, AnUnknownFileReportedAsDeletedIsOnlyReported) {
    Start();
    Report({{a_, ConfigMonitor::kDeleted}});
    EXPECT_TRUE(log_.Is(
        {"1 config file changed begin",
         "4 config collection does not contains config file, but notify type is delete, config "
         "file path " +
             a_,
         "1 config file changed end"}));
}

TEST_F(ConfigChanges, AFileThatFailsDoesNotStopTheOthers) {
    Start();
    dir_.Write("a.xml", "<");
    Write(b_, "b");
    Report({{dir_.Path("gone.xml"), ConfigMonitor::kAdded},
            {a_, ConfigMonitor::kAdded},
            {b_, ConfigMonitor::kAdded}});
    EXPECT_EQ(log_.Count("4 read plugin list config failed, ignored"), 2);
    EXPECT_EQ(Steps(), (Strings{"register plugin succeeded, fkey b"}));
}

TEST_F(ConfigChanges, EverythingIsUnregisteredBeforeAnythingIsRegistered) {
    Start();
    Write(a_, "a");
    Write(b_, "b");
    Report({{b_, ConfigMonitor::kAdded}, {a_, ConfigMonitor::kAdded}});
    EXPECT_EQ(Steps(),
              (Strings{"register plugin succeeded, fkey a", "register plugin succeeded, fkey b"}));
    Write(a_, "c");
    Report({{a_, ConfigMonitor::kChanged}, {b_, ConfigMonitor::kDeleted}});
    EXPECT_EQ(Steps(),
              (Strings{"unregister plugin succeeded, fkey a", "unregister plugin succeeded, fkey b",
                       "register plugin succeeded, fkey c"}));
}

TEST_F(ConfigChanges, AnFkeyCanMoveFromOneFileToAnotherInOneRound) {
    Start();
    Write(a_, "x");
    Report({{a_, ConfigMonitor::kAdded}});
    dir_.Write("b.xml", ListFile().Plugin("x", "/q/other" MODULE_SUFFIX, Delayed()).Text());
    Report({{b_, ConfigMonitor::kAdded}, {a_, ConfigMonitor::kDeleted}});
    EXPECT_EQ(Steps(), (Strings{"unregister plugin succeeded, fkey x",
                                "register plugin succeeded, fkey x"}));
    PluginConfigItem item;
    ASSERT_TRUE(coordinator_.FindPluginConfig("x", item));
    EXPECT_EQ(item.file_path(), "/q/other" MODULE_SUFFIX);
}

// What was configured can be asked for, also when it could not be registered.
TEST_F(ConfigChanges, TheCollectionHoldsWhatWasReadWhateverBecameOfIt) {
    Start();
    Write(a_, "x");
    dir_.Write("b.xml",
               ListFile().Plugin("x", "/q/other" MODULE_SUFFIX, Delayed()).Plugin("", "f").Text());
    Report({{a_, ConfigMonitor::kAdded}, {b_, ConfigMonitor::kAdded}});
    EXPECT_EQ(Fkeys(), (Strings{"x", "x"}));
    Report({{a_, ConfigMonitor::kDeleted}});
    EXPECT_EQ(Fkeys(), (Strings{"x"}));
}

TEST_F(ConfigChanges, ACorrectedPathOfARefusedPluginIsNotTried) {
    Start();
    Write(a_, "x");
    dir_.Write("b.xml", ListFile().Plugin("x", "/q/wrong" MODULE_SUFFIX, Delayed()).Text());
    Report({{a_, ConfigMonitor::kAdded}, {b_, ConfigMonitor::kAdded}});
    dir_.Write("b.xml", ListFile().Plugin("x", "/p/x" MODULE_SUFFIX, Delayed()).Text());
    Report({{b_, ConfigMonitor::kChanged}});
    EXPECT_TRUE(log_.Contains(
        "4 config file changed, but not fkey, fkey x, cur file path /p/x" MODULE_SUFFIX
        ", cached file path /q/wrong" MODULE_SUFFIX));
    EXPECT_EQ(log_.Count("3 param fkey x, file_path /q/wrong" MODULE_SUFFIX), 2);
    EXPECT_EQ(log_.Count("3 param fkey x, file_path /p/x" MODULE_SUFFIX), 0);
}

class ConfigDifference : public ConfigChanges {
  protected:
    void Compare(const PluginConfigList& current, const PluginConfigList& cached) {
        added_.clear();
        removed_.clear();
        log_.Clear();
        coordinator_.FindPluginChangedInConfig(current, cached, added_, removed_);
    }

    PluginConfigList added_;
    PluginConfigList removed_;
};

TEST_F(ConfigDifference, GoesByTheFkeyAndKeepsTheOrderOfEachList) {
    Compare(List({Item("d", "1"), Item("k", "1"), Item("b", "1")}),
            List({Item("z", "1"), Item("k", "1"), Item("a", "1")}));
    EXPECT_EQ(Described(added_), (Strings{"d 1", "b 1"}));
    EXPECT_EQ(Described(removed_), (Strings{"z 1", "a 1"}));
    EXPECT_TRUE(log_.Is({}));
}

TEST_F(ConfigDifference, ReportsAnotherPathAndNothingElse) {
    const PluginConfigItem changed =
        vessa_test::ItemFields{"k", "1", true, true, "", {{"x", "y"}}}.Make();
    Compare(List({changed, Item("p", "new")}), List({Item("k", "1"), Item("p", "old")}));
    EXPECT_TRUE(added_.empty());
    EXPECT_TRUE(removed_.empty());
    EXPECT_TRUE(
        log_.Is({"4 config file changed, but not fkey, fkey p, cur file path new, cached "
                 "file path old"}));
}

TEST_F(ConfigDifference, ComparesARepeatedFkeyWithTheFirstOfTheOtherList) {
    Compare(List({Item("k", "1"), Item("k", "2"), Item("n", "1"), Item("n", "2")}),
            List({Item("k", "1"), Item("k", "3"), Item("g", "1"), Item("g", "2")}));
    EXPECT_EQ(Described(added_), (Strings{"n 1", "n 2"}));
    EXPECT_EQ(Described(removed_), (Strings{"g 1", "g 2"}));
    EXPECT_TRUE(
        log_.Is({"4 config file changed, but not fkey, fkey k, cur file path 2, cached "
                 "file path 1"}));
}

TEST_F(ConfigDifference, OfEmptyListsIsAllOrNothing) {
    Compare(List({}), List({Item("a", "1")}));
    EXPECT_EQ(Described(removed_), (Strings{"a 1"}));
    Compare(List({Item("a", "1")}), List({}));
    EXPECT_EQ(Described(added_), (Strings{"a 1"}));
    EXPECT_TRUE(removed_.empty());
}

}  // namespace
