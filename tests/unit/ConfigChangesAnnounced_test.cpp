// The fkeys that modules announce by themselves: nothing that a module says is trusted.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <list>
#include <string>
#include <vector>

#include "TestPlatform.h"
#include "support/ListFile.h"
#include "support/LogCapture.h"
#include "support/ModuleHook.h"
#include "support/Modules.h"
#include "support/Runtime.h"
#include "support/TempDir.h"
#include "unit/ConfigItems.h"
#include "vessa2/PluginCoordinator.h"

namespace {

using vessa_test::Install;
using vessa_test::ListFile;
using vessa_test::LogCapture;
using vessa_test::ModuleCall;
using vessa_test::ModuleHook;
using vessa_test::Runtime;
using vessa_test::TempDir;
using Strings = std::vector<std::string>;

class AnnouncedFkeys : public testing::Test {
  protected:
    AnnouncedFkeys() {
        coordinator_.SetPluginRoot(dir_.Path());
        coordinator_.SetConfigFilename("tarnet.xml");
    }
    ~AnnouncedFkeys() override {
        coordinator_.provider().UnregisterPlugin("p");
        coordinator_.Shutdown();
    }

    // The fkeys of a registered plug-in of this module.
    Strings Of(const std::string& module) {
        item_.fkey = "p";
        item_.file_path = Install(dir_, module, module + MODULE_SUFFIX);
        item_.load_fkeys = true;
        item_.config_file_path = "/list";
        item_.attributes = {{"fkey", "p"}, {"vendor", "v"}};
        EXPECT_EQ(coordinator_.provider().RegisterPlugin("p", item_.file_path, false), 0);
        return Ask();
    }
    Strings Ask() {
        PluginConfigList list;
        list.push_back(item_.Make());
        log_.Clear();
        mapped_.clear();
        coordinator_.StatisticsLoadFkeys(list, mapped_);
        Strings fkeys;
        for (const PluginConfigItem& item : mapped_) fkeys.push_back(item.fkey());
        return fkeys;
    }

    TempDir dir_;
    Runtime runtime_;
    LogCapture log_;
    ModuleHook hook_;
    PluginCoordinator coordinator_;
    vessa_test::ItemFields item_;
    PluginConfigList mapped_;
};

TEST_F(AnnouncedFkeys, AreCopiesOfTheItemUnderAnotherFkey) {
    EXPECT_EQ(Of("map_two"), (Strings{"a", "b"}));
    for (const PluginConfigItem& item : mapped_) {
        EXPECT_FALSE(item.load_fkeys());
        EXPECT_FALSE(item.delay_load());
        EXPECT_EQ(item.file_path(), item_.file_path);
        EXPECT_EQ(item.config_file_path(), "/list");
        EXPECT_EQ(vessa_test::AttributesOf(item), item_.attributes);
    }
    EXPECT_TRUE(log_.Is({"2 param fkey = p", "2 param fkey = p"}));
    EXPECT_EQ(hook_.Journal(),
              (Strings{"Load map_two", "Entry map_two", "Init map_two", "GetFileVersion map_two",
                       "GetAllInterfaceIkeys map_two", "GetPluginMapFkeys map_two",
                       "GetPluginMapFkeys map_two fill"}));
}

TEST_F(AnnouncedFkeys, AreAskedForOnlyWhereTheItemSaysSoAndIsLoaded) {
    Of("map_two");
    item_.load_fkeys = false;
    EXPECT_EQ(Ask(), Strings{});
    item_.load_fkeys = true;
    item_.delay_load = true;
    EXPECT_EQ(Ask(), Strings{});
    EXPECT_TRUE(log_.Is({}));
}

TEST_F(AnnouncedFkeys, ACountBelowOneIsNone) {
    EXPECT_EQ(Of("map_negative"), Strings{});
    EXPECT_TRUE(log_.Is({"2 param fkey = p"}));
    EXPECT_EQ(hook_.Count("map_negative", "GetPluginMapFkeys"), 1);
}

TEST_F(AnnouncedFkeys, TheSmallestCountIsNone) {
    hook_.On("map_two", "GetPluginMapFkeys", [](ModuleCall& call) {
        *call.count = INT_MIN;
        call.Return(0);
    });
    EXPECT_EQ(Of("map_two"), Strings{});
}

TEST_F(AnnouncedFkeys, TheModuleIsAskedWithAZeroedArrayAndItsOwnCount) {
    int count = 0;
    int nonzero = 0;
    hook_.On("map_two", "GetPluginMapFkeys", [&](ModuleCall& call) {
        if (call.fkeys == nullptr) {
            count = *call.count;
            return;
        }
        EXPECT_EQ(*call.count, 2);
        for (int i = 0; i < *call.count; ++i) {
            for (const char c : std::string(call.fkeys[i], sizeof call.fkeys[i])) nonzero += c != 0;
        }
    });
    EXPECT_EQ(Of("map_two"), (Strings{"a", "b"}));
    EXPECT_EQ(count, 0);
    EXPECT_EQ(nonzero, 0);
}

TEST_F(AnnouncedFkeys, AHugeCountIsReportedAsOutOfMemory) {
    EXPECT_EQ(Of("map_huge"), Strings{});
    EXPECT_TRUE(log_.Is({"2 param fkey = p",
                         "5 get plugin map fkeys failed -2147483640/FFFFFFFF80000008, fkey p "}));
}

TEST_F(AnnouncedFkeys, AGrowingCountIsCutToTheFirst) {
    EXPECT_EQ(Of("map_grows"), (Strings{"a", "b"}));
}

TEST_F(AnnouncedFkeys, AShrinkingCountCounts) {
    EXPECT_EQ(Of("map_shrinks"), (Strings{"a"}));
}

TEST_F(AnnouncedFkeys, ANegativeSecondCountIsNone) {
    EXPECT_EQ(Of("map_second_negative"), Strings{});
    EXPECT_TRUE(log_.Is({"2 param fkey = p", "2 param fkey = p"}));
}

TEST_F(AnnouncedFkeys, AnEntryWithoutATerminatorEndsWithItsBytes) {
    EXPECT_EQ(Of("map_unterminated"), (Strings{std::string(256, 'x'), std::string(256, 'x')}));
}

TEST_F(AnnouncedFkeys, EmptyAndRepeatedOnesAreKept) {
    EXPECT_EQ(Of("map_empty_key"), (Strings{"a", ""}));
}

TEST_F(AnnouncedFkeys, RepeatedOnesAreKept) {
    EXPECT_EQ(Of("map_repeated"), (Strings{"a", "a"}));
}

TEST_F(AnnouncedFkeys, AFailedFirstAnswerIsReportedAndItsCountUsed) {
    EXPECT_EQ(Of("map_fails_first"), (Strings{"a", "b"}));
    EXPECT_TRUE(log_.Is(
        {"2 param fkey = p", "5 get plugin map fkeys failed 3/3, fkey p ", "2 param fkey = p"}));
}

TEST_F(AnnouncedFkeys, AFailedSecondAnswerIsNotReported) {
    EXPECT_EQ(Of("map_fails_second"), (Strings{"", ""}));
    EXPECT_TRUE(log_.Is({"2 param fkey = p", "2 param fkey = p"}));
}

TEST_F(AnnouncedFkeys, AModuleThatThrowsInItsSecondAnswerLeavesWhatItFilled) {
    hook_.On("map_two", "GetPluginMapFkeys", [](ModuleCall& call) {
        if (call.fkeys == nullptr) return;
        std::strcpy(call.fkeys[0], "half");
        throw 1;
    });
    EXPECT_EQ(Of("map_two"), (Strings{"half", ""}));
}

TEST_F(AnnouncedFkeys, OneItemThatFailsDoesNotStopTheOthers) {
    Of("map_two");
    vessa_test::ItemFields unknown = item_;
    unknown.fkey = "unknown";
    PluginConfigList list;
    list.push_back(unknown.Make());
    list.push_back(item_.Make());
    log_.Clear();
    mapped_.clear();
    coordinator_.StatisticsLoadFkeys(list, mapped_);
    EXPECT_EQ(mapped_.size(), 2u);
    EXPECT_TRUE(
        log_.Is({"2 param fkey = unknown", "4 fkey not found in plugin collection, fkey unknown",
                 "5 get plugin map fkeys failed -1/FFFFFFFFFFFFFFFF, fkey unknown ",
                 "2 param fkey = p", "2 param fkey = p"}));
}

// What list files make of the answers.
class AnnouncedRegistrations : public AnnouncedFkeys {
  protected:
    void Start(const std::string& module, const ListFile::Attributes& more = {}) {
        module_ = Install(dir_, module, module + MODULE_SUFFIX);
        ListFile::Attributes attributes = {{"loadfkeys", "true"}};
        attributes.insert(attributes.end(), more.begin(), more.end());
        list_ = dir_.Write(
            "tarnet.xml", ListFile().Plugin("p", "./" + module + MODULE_SUFFIX, attributes).Text());
        dir_.Write("z/tarnet.xml", ListFile().Text());
        ASSERT_TRUE(coordinator_.Run());
    }
    void Announce(const Strings& fkeys) {
        hook_.On("map_two", "GetPluginMapFkeys", [fkeys](ModuleCall& call) {
            for (size_t i = 0; call.fkeys != nullptr && i < fkeys.size(); ++i)
                std::strcpy(call.fkeys[i], fkeys[i].c_str());
            *call.count = static_cast<int>(fkeys.size());
            call.Return(0);
        });
    }
    int Create(const std::string& fkey) {
        void* instance = nullptr;
        int plugin_error = 0;
        const int code = coordinator_.provider().CreateInstance(fkey, instance, plugin_error);
        if (code == 0) coordinator_.provider().DestroyInstance(instance, plugin_error);
        return code;
    }

    std::string module_;
    std::string list_;
};

constexpr int kNotRegistered = -2147483645;

TEST_F(AnnouncedRegistrations, ALongFkeyIsServed) {
    Start("map_unterminated");
    EXPECT_EQ(Create(std::string(256, 'x')), 0);
}

TEST_F(AnnouncedRegistrations, TheOwnFkeyIsAConflictAndGoesFirst) {
    Announce({"p", "q"});
    Start("map_two");
    EXPECT_TRUE(log_.Contains(
        "4 plugin config conflict, fkey p, file path " + module_ + ", config file path " + list_ +
        ", registered fkey p, registered file path " + module_ + ", config file path " + list_));
    EXPECT_EQ(Create("q"), 0);
    log_.Clear();
    dir_.Remove("tarnet.xml");
    ASSERT_TRUE(runtime_.Tick());
    EXPECT_EQ(Create("p"), kNotRegistered);
    EXPECT_EQ(Create("q"), kNotRegistered);
    // Once, with the announced ones; its own removal finds nothing more to do.
    EXPECT_EQ(log_.Count("3 unregister plugin succeeded, fkey p"), 2);
    EXPECT_EQ(hook_.Count("map_two", "Uninit"), 1);
}

TEST_F(AnnouncedRegistrations, OnesThatAreNotAnnouncedAgainStayUntilTheStop) {
    Announce({"q", "r"});
    Start("map_two");
    Announce({"q"});
    dir_.Remove("tarnet.xml");
    ASSERT_TRUE(runtime_.Tick());
    EXPECT_EQ(Create("q"), kNotRegistered);
    EXPECT_EQ(Create("p"), kNotRegistered);
    EXPECT_EQ(Create("r"), 0);
    ASSERT_TRUE(coordinator_.Shutdown());
    EXPECT_EQ(Create("r"), kNotRegistered);
    EXPECT_EQ(hook_.Count("map_two", "Uninit"), 1);
}

TEST_F(AnnouncedRegistrations, TheyStayWhenTheListDoesNotAskForThemAnyMore) {
    Announce({"q"});
    Start("map_two");
    dir_.Write("tarnet.xml", ListFile().Plugin("p", "./map_two" MODULE_SUFFIX).Text());
    ASSERT_TRUE(runtime_.Tick());
    dir_.Remove("tarnet.xml");
    ASSERT_TRUE(runtime_.Tick());
    EXPECT_EQ(Create("p"), kNotRegistered);
    EXPECT_EQ(Create("q"), 0);
}

TEST_F(AnnouncedRegistrations, ADeclaredOneGoesWithTheAnnouncement) {
    Announce({"b"});
    module_ = Install(dir_, "map_two", "map_two" MODULE_SUFFIX);
    const auto text = [](bool with_p) {
        ListFile list;
        list.Plugin("b", "./map_two" MODULE_SUFFIX);
        if (with_p) list.Plugin("p", "./map_two" MODULE_SUFFIX, {{"loadfkeys", "true"}});
        return list.Text();
    };
    list_ = dir_.Write("tarnet.xml", text(true));
    ASSERT_TRUE(coordinator_.Run());
    EXPECT_EQ(log_.Count("4 plugin config conflict, fkey b"), 1);
    EXPECT_EQ(Create("b"), 0);
    dir_.Write("tarnet.xml", text(false));
    ASSERT_TRUE(runtime_.Tick());
    EXPECT_EQ(Create("b"), kNotRegistered);
}

TEST_F(AnnouncedRegistrations, ManyAreAllServed) {
    Strings fkeys;
    for (int i = 0; i < 300; ++i) fkeys.push_back("k" + std::to_string(i));
    Announce(fkeys);
    Start("map_two");
    for (const std::string& fkey : fkeys) EXPECT_EQ(Create(fkey), 0) << fkey;
}

}  // namespace
