#include "vessa2/PluginCoordinator.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "TestPlatform.h"
#include "support/ListFile.h"
#include "support/LogCapture.h"
#include "support/ModuleHook.h"
#include "support/Modules.h"
#include "support/Runtime.h"
#include "support/TempDir.h"
#include "unit/ConfigItems.h"
#include "unit/LoggedCode.h"

namespace {

using vessa_test::Code;
using vessa_test::Install;
using vessa_test::kErrorNoResources;
using vessa_test::ListFile;
using vessa_test::LogCapture;
using vessa_test::ModuleCall;
using vessa_test::ModuleHook;
using vessa_test::Runtime;
using vessa_test::TempDir;
using vessa_test::Tova;
using Strings = std::vector<std::string>;

ListFile::Attributes Delayed() {
    return {{"delayload", "true"}};
}

class PluginCoordinatorTest : public testing::Test {
  protected:
    PluginCoordinatorTest() {
        coordinator_.SetPluginRoot(dir_.Path());
        coordinator_.SetConfigFilename("tarnet.xml");
    }
    ~PluginCoordinatorTest() override { coordinator_.Shutdown(); }

    // How an instance of this fkey can be had.
    int Create(const std::string& fkey) {
        void* instance = nullptr;
        int plugin_error = 0;
        const int code = coordinator_.provider().CreateInstance(fkey, instance, plugin_error);
        if (code == 0) coordinator_.provider().DestroyInstance(instance, plugin_error);
        return code;
    }

    // The module path of one item, as it is registered.
    std::string Resolved(const std::string& list, const std::string& file) {
        dir_.Write(list, ListFile().Plugin("p", file).Text());
        PluginConfigList items;
        EXPECT_TRUE(coordinator_.ReadPluginList(dir_.Path(list), items));
        return items.empty() ? "none" : items.front().file_path();
    }

    static PluginConfigItem Item(const std::string& fkey, const std::string& path,
                                 const std::string& list = "/list") {
        return vessa_test::ItemFields{fkey, path, true, false, list, {}}.Make();
    }

    TempDir dir_;
    Runtime runtime_;
    LogCapture log_;
    ModuleHook hook_;
    PluginCoordinator coordinator_;
};

TEST_F(PluginCoordinatorTest, ResolvesOnlyTheTwoRelativePrefixes) {
    const std::string folder = dir_.Path("a/b");
    const std::string list = "a/b/tarnet.xml";
    const std::pair<const char*, std::string> table[] = {
        {"./x" MODULE_SUFFIX, folder + "/x" MODULE_SUFFIX},
        {"./sub//x" MODULE_SUFFIX, folder + "/sub/x" MODULE_SUFFIX},
        {"././x" MODULE_SUFFIX, folder + "/x" MODULE_SUFFIX},
        {".//x" MODULE_SUFFIX, folder + "/x" MODULE_SUFFIX},
        {"../x" MODULE_SUFFIX, dir_.Path("a/x" MODULE_SUFFIX)},
        {"./../x" MODULE_SUFFIX, dir_.Path("a/x" MODULE_SUFFIX)},
        {"../../x" MODULE_SUFFIX, dir_.Path("x" MODULE_SUFFIX)},
        {"../.././x" MODULE_SUFFIX, dir_.Path("x" MODULE_SUFFIX)},
        {".././../x" MODULE_SUFFIX, dir_.Path("a") + "/../x" MODULE_SUFFIX},
        {"./sub/../x" MODULE_SUFFIX, folder + "/sub/../x" MODULE_SUFFIX},
        {"x" MODULE_SUFFIX, "x" MODULE_SUFFIX},
        {"sub/x" MODULE_SUFFIX, "sub/x" MODULE_SUFFIX},
        {".hidden" MODULE_SUFFIX, ".hidden" MODULE_SUFFIX},
        {".../x" MODULE_SUFFIX, ".../x" MODULE_SUFFIX},
        {"..", ".."},
        {".\\x" MODULE_SUFFIX, "x" MODULE_SUFFIX},
        {"..\\x" MODULE_SUFFIX, "../x" MODULE_SUFFIX},
        {"/abs//./x" MODULE_SUFFIX, "/abs/x" MODULE_SUFFIX},
        {"/abs\\x" MODULE_SUFFIX, "/abs/x" MODULE_SUFFIX},
    };
    for (const auto& [file, resolved] : table) EXPECT_EQ(Resolved(list, file), resolved) << file;
}

TEST_F(PluginCoordinatorTest, APathThatClimbsAboveTheFirstFolderBecomesEmpty) {
    std::string up;
    for (const char c : dir_.Path()) {
        if (c == '/') up += "../";
    }
    const std::string first = dir_.Path().substr(0, dir_.Path().find('/'));
    EXPECT_EQ(Resolved("tarnet.xml", up + "x" MODULE_SUFFIX), first + "/x" MODULE_SUFFIX);
    EXPECT_EQ(Resolved("tarnet.xml", up + "../x" MODULE_SUFFIX), "");
    EXPECT_TRUE(log_.Contains("1 Absolute_path=, current_path=" + dir_.Path() + "/"));

    // Such an item can only be refused.
    ASSERT_TRUE(coordinator_.Run());
    EXPECT_TRUE(log_.Contains("5 param file_path should not be empty"));
    EXPECT_TRUE(log_.Contains(
        "5 register plugin failed -2147483647/FFFFFFFF80000001, fkey p, file path , delay load "
        "false, config file path " +
        dir_.Path("tarnet.xml")));
}

TEST_F(PluginCoordinatorTest, KeepsThePathOfTheListFileAsItIsGiven) {
    dir_.Write("a/tarnet.xml", ListFile().Plugin("p", "./x" MODULE_SUFFIX).Text());
    const std::string odd = dir_.Path() + "//a/./tarnet.xml";
    PluginConfigList items;
    log_.Clear();
    ASSERT_TRUE(coordinator_.ReadPluginList(odd, items));
    EXPECT_EQ(items.front().config_file_path(), odd);
    EXPECT_EQ(items.front().file_path(), dir_.Path("a/x" MODULE_SUFFIX));
    EXPECT_TRUE(log_.Contains("1 Absolute_path=" + dir_.Path("a/x" MODULE_SUFFIX) +
                              ", current_path=" + dir_.Path("a") + "/"));
}

TEST_F(PluginCoordinatorTest, AListFileWithoutAFolderCountsAsOneOfTheFirstFolder) {
    const std::filesystem::path before = std::filesystem::current_path();
    dir_.Write(
        "tarnet.xml",
        ListFile().Plugin("p", "./x" MODULE_SUFFIX).Plugin("q", "../x" MODULE_SUFFIX).Text());
    PluginConfigList items;
    std::filesystem::current_path(std::filesystem::u8path(dir_.Path()));
    const bool read = coordinator_.ReadPluginList("tarnet.xml", items);
    std::filesystem::current_path(before);
    ASSERT_TRUE(read);
    EXPECT_EQ(items.front().file_path(), "/x" MODULE_SUFFIX);
    EXPECT_EQ(items.back().file_path(), "");
}

TEST_F(PluginCoordinatorTest, ReportsAListFileThatCannotBeRead) {
    PluginConfigList items;
    EXPECT_FALSE(coordinator_.ReadPluginList(dir_.Path("tarnet.xml"), items));
    EXPECT_TRUE(
        log_.Is({"2 param config_file_path = " + dir_.Path("tarnet.xml"),
                 "3 param file_path = " + dir_.Path("tarnet.xml"),
                 "5 file does not exist, " + dir_.Path("tarnet.xml"),
                 "5 read plugin list failed, config file path " + dir_.Path("tarnet.xml")}));
}

TEST_F(PluginCoordinatorTest, TriesARefusedRecordAgainWithEveryList) {
    PluginConfigList first;
    first.push_back(Item("p", "/p/one" MODULE_SUFFIX));
    first.push_back(Item("p", "/p/two" MODULE_SUFFIX, "/other"));
    coordinator_.RegisterPluginList(first);
    EXPECT_EQ(log_.Count("register plugin failed -2147483635"), 1);
    coordinator_.RegisterPluginList({});
    EXPECT_EQ(log_.Count("register plugin failed -2147483635"), 2);
    // And never one that was accepted.
    EXPECT_EQ(log_.Count("3 param fkey p, file_path /p/one" MODULE_SUFFIX), 1);

    // Taken out without asking the registry, which has another plug-in under that name.
    PluginConfigList second;
    second.push_back(Item("p", "/p/two" MODULE_SUFFIX, "/other"));
    log_.Clear();
    coordinator_.UnregisterPluginList(second);
    EXPECT_TRUE(log_.Is({}));
    coordinator_.RegisterPluginList({});
    EXPECT_TRUE(log_.Is({}));
    coordinator_.UnregisterPluginList(first);
}

TEST_F(PluginCoordinatorTest, SkipsUnknownItemsOfAListToUnregister) {
    PluginConfigList unknown;
    unknown.push_back(Item("p", "/p/one" MODULE_SUFFIX));
    coordinator_.UnregisterPluginList(unknown);
    EXPECT_TRUE(log_.Is({}));
}

TEST_F(PluginCoordinatorTest, ForgetsARecordWhoseUnregistrationFails) {
    PluginConfigList list;
    list.push_back(Item("p", "/p/one" MODULE_SUFFIX));
    coordinator_.RegisterPluginList(list);
    ASSERT_EQ(coordinator_.provider().UnregisterPlugin("p"), 0);
    log_.Clear();
    coordinator_.UnregisterPluginList(list);
    EXPECT_TRUE(log_.Is({"3 param fkey = p",
                         "4 unexpected, plugin collection does not contain the fkey, fkey p",
                         "5 unregister plugin failed -2147483647/FFFFFFFF80000001, fkey p, file "
                         "path /p/one" MODULE_SUFFIX ", config file path /list"}));
    log_.Clear();
    coordinator_.UnregisterPluginList(list);
    EXPECT_TRUE(log_.Is({}));
}

TEST_F(PluginCoordinatorTest, UnregistersAndLogsWhatWasRegistered) {
    PluginConfigList registered;
    registered.push_back(Item("p", "/p/one" MODULE_SUFFIX));
    coordinator_.RegisterPluginList(registered);
    PluginConfigList changed;
    changed.push_back(
        vessa_test::ItemFields{"p", "/p/two" MODULE_SUFFIX, false, false, "/list", {}}.Make());
    log_.Clear();
    coordinator_.UnregisterPluginList(changed);
    EXPECT_TRUE(log_.Is({"3 param fkey = p",
                         "3 unregister plugin succeeded, fkey p, file path /p/one" MODULE_SUFFIX
                         ", delay load true",
                         "3 unregister plugin succeeded, fkey p, file path /p/one" MODULE_SUFFIX
                         ", delay load true, config file path /list"}));
}

TEST_F(PluginCoordinatorTest, FindsItemsInTheOrderOfTheFilesAndOfEachFile) {
    dir_.Write("b/tarnet.xml", ListFile()
                                   .Plugin("x", "/p/b1" MODULE_SUFFIX, Delayed())
                                   .Plugin("z", "/p/z" MODULE_SUFFIX, Delayed())
                                   .Plugin("y", "/p/y" MODULE_SUFFIX, Delayed())
                                   .Text());
    dir_.Write("a/c/tarnet.xml",
               ListFile().Plugin("x", "/p/a1" MODULE_SUFFIX, {{"vendor", " v "}}).Text());
    dir_.Write("a/tarnet.xml", ListFile().Plugin("w", "/p/w" MODULE_SUFFIX, Delayed()).Text());
    ASSERT_TRUE(coordinator_.Run());

    PluginConfigItem item;
    ASSERT_TRUE(coordinator_.FindPluginConfig("x", item));
    EXPECT_EQ(item.file_path(), "/p/a1" MODULE_SUFFIX);
    EXPECT_EQ(item.config_file_path(), dir_.Path("a/c/tarnet.xml"));
    EXPECT_EQ(item.FindAttribute("vendor"), " v ");

    PluginConfigList all;
    coordinator_.GetAllPluginConfigs(all);
    Strings paths;
    for (const auto& each : all) paths.push_back(each.file_path());
    EXPECT_EQ(paths, (Strings{"/p/a1" MODULE_SUFFIX, "/p/w" MODULE_SUFFIX, "/p/b1" MODULE_SUFFIX,
                              "/p/z" MODULE_SUFFIX, "/p/y" MODULE_SUFFIX}));
    Strings fkeys = {"before"};
    coordinator_.GetAllFkeys(fkeys);
    EXPECT_EQ(fkeys, (Strings{"before", "x", "w", "x", "z", "y"}));

    EXPECT_FALSE(coordinator_.FindPluginConfig("X", item));
    EXPECT_FALSE(coordinator_.FindPluginConfig("", item));
    ASSERT_TRUE(coordinator_.Shutdown());
    EXPECT_FALSE(coordinator_.FindPluginConfig("x", item));
    all.clear();
    coordinator_.GetAllPluginConfigs(all);
    EXPECT_TRUE(all.empty());
}

TEST_F(PluginCoordinatorTest, AFailedStartKeepsItsRegistrationsAndReportsOnlyChangesLater) {
    const std::string module = Install(dir_, "good_v2", "codec" MODULE_SUFFIX);
    const std::string list =
        dir_.Write("tarnet.xml", ListFile().Plugin("codec", "./codec" MODULE_SUFFIX).Text());
    runtime_.FailCall(Tova::Thread_Create, 1, kErrorNoResources);
    EXPECT_FALSE(coordinator_.Run());
    EXPECT_FALSE(coordinator_.IsRunning());
    const Strings lines = log_.Lines();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_TRUE(
        vessa_test::LinesAre(Strings(lines.end() - 3, lines.end()),
                             {"1 config file changed end",
                              "5 [{*}]SetTimer failed, system error " + Code(kErrorNoResources),
                              "5 start config monitor failed, plugin root " + dir_.Path() +
                                  ", config filename tarnet.xml"}));
    EXPECT_EQ(Create("codec"), 0);
    PluginConfigItem item;
    EXPECT_TRUE(coordinator_.FindPluginConfig("codec", item));

    log_.Clear();
    EXPECT_TRUE(coordinator_.Shutdown());
    EXPECT_TRUE(log_.Is({"3 invoke Shutdown func", "4 already shutdown"}));

    log_.Clear();
    EXPECT_TRUE(coordinator_.Run());
    EXPECT_TRUE(
        log_.Is({"3 invode Run func",
                 "3 [{*}]param plugin_root = " + dir_.Path() + ", config_filename = tarnet.xml",
                 "3 start config monitor succeeded",
                 "3 run PluginCoordinator succeeded, plugin root " + dir_.Path() +
                     ", config filename tarnet.xml"}));
    EXPECT_EQ(Create("codec"), 0);
    EXPECT_TRUE(coordinator_.Shutdown());
    EXPECT_EQ(Create("codec"), -2147483645);
    EXPECT_EQ(hook_.Count("codec", "Init"), 1);
    EXPECT_EQ(hook_.Count("codec", "Uninit"), 1);
}

TEST_F(PluginCoordinatorTest, AModuleThatStartsItAgainFindsItRunning) {
    Install(dir_, "good_v2", "codec" MODULE_SUFFIX);
    dir_.Write("tarnet.xml", ListFile().Plugin("codec", "./codec" MODULE_SUFFIX).Text());
    bool nested = false;
    hook_.On("codec", "Init", [&](ModuleCall&) { nested = coordinator_.Run(); });
    EXPECT_TRUE(coordinator_.Run());
    EXPECT_TRUE(nested);
    EXPECT_EQ(log_.Count("4 already run"), 1);
    EXPECT_EQ(log_.Count("run PluginCoordinator succeeded"), 1);
}

TEST_F(PluginCoordinatorTest, EverythingIsGivenBackAfterManyStarts) {
    Install(dir_, "map_two", "map_two" MODULE_SUFFIX);
    dir_.Write("tarnet.xml",
               ListFile().Plugin("p", "./map_two" MODULE_SUFFIX, {{"loadfkeys", "true"}}).Text());
    dir_.Write("broken/tarnet.xml", "<");
    ASSERT_TRUE(coordinator_.Run());
    ASSERT_TRUE(coordinator_.Shutdown());
    const auto before = Runtime::Census();
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(coordinator_.Run());
        EXPECT_EQ(Create("b"), 0);
        ASSERT_TRUE(runtime_.Tick());
        ASSERT_TRUE(coordinator_.Shutdown());
        EXPECT_EQ(Runtime::Census(), before) << i;
        EXPECT_TRUE(coordinator_.provider().IsEmpty());
    }
    EXPECT_EQ(hook_.Count("map_two", "Init"), 6);
    EXPECT_EQ(hook_.Count("map_two", "Uninit"), 6);
}

// A list file is found at its path, so a relative root gives relative paths.
TEST_F(PluginCoordinatorTest, ARootNeedNotBeAbsolute) {
    const std::filesystem::path before = std::filesystem::current_path();
    Install(dir_, "good_v2", "root/codec" MODULE_SUFFIX);
    dir_.Write("root/tarnet.xml", ListFile().Plugin("codec", "./codec" MODULE_SUFFIX).Text());
    coordinator_.SetPluginRoot("./root/");
    std::filesystem::current_path(std::filesystem::u8path(dir_.Path()));
    const bool ran = coordinator_.Run();
    std::filesystem::current_path(before);
    EXPECT_TRUE(ran);
    EXPECT_TRUE(log_.Contains("1 Absolute_path=root/codec" MODULE_SUFFIX ", current_path=root/"));
    EXPECT_EQ(Create("codec"), 0);
}

}  // namespace
