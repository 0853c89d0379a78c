#include "vessa2/Plugin.h"

#include "TestPlatform.h"
#include "unit/PluginWorld.h"

namespace vessa_test {
namespace {

class PluginObject : public PluginTest {};

TEST_F(PluginObject, SplitsAPathWithBackslashesIntoFolderAndFileName) {
    LogCapture log;
    const Plugin plugin("a\\b\\c.dll");
    EXPECT_EQ(plugin.filename(), "c.dll");
    EXPECT_EQ(plugin.folder_path(), "a/b");
    EXPECT_EQ(plugin.file_path(), "a/b/c.dll");
    EXPECT_TRUE(log.Is({"3 param file_path = a\\b\\c.dll",
                        "3 filename_ = c.dll, folder_path_ = a/b, file_path_ = a/b/c.dll"}));
}

TEST_F(PluginObject, GivesABareNameTheWorkingFolder) {
    LogCapture log;
    const Plugin plugin("c.dll");
    EXPECT_EQ(plugin.filename(), "c.dll");
    EXPECT_EQ(plugin.folder_path(), ".");
    EXPECT_EQ(plugin.file_path(), "c.dll");
    EXPECT_TRUE(log.Is({"3 param file_path = c.dll",
                        "3 filename_ = c.dll, folder_path_ = ., file_path_ = c.dll"}));
}

TEST_F(PluginObject, HasNoNamesForAnEmptyPath) {
    LogCapture log;
    Plugin plugin("");
    EXPECT_EQ(plugin.filename(), "");
    EXPECT_EQ(plugin.folder_path(), "");
    EXPECT_EQ(plugin.file_path(), "");
    EXPECT_EQ(plugin.LoadPlugin(), VESSA_ERR_ARGUMENT);
    EXPECT_TRUE(log.Is({"3 param file_path = ", "5 file_path_ should not be empty.",
                        "5 plugin filename should not be empty"}));
}

TEST_F(PluginObject, HasNoNamesForAPathThatEndsInItsOnlySlash) {
    LogCapture log;
    const Plugin plugin("/");
    EXPECT_EQ(plugin.filename(), "");
    EXPECT_EQ(plugin.file_path(), "");
    EXPECT_TRUE(log.Is({"3 param file_path = /", "5 filename_ should not be empty."}));
}

TEST_F(PluginObject, RefusesToLoadAFileWithoutNameOrFolder) {
    Plugin plugin("/x/y" MODULE_SUFFIX);
    LogCapture log;
    void* handle = nullptr;
    EXPECT_EQ(plugin.LoadDso("", "/x", handle), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(plugin.LoadDso("y" MODULE_SUFFIX, "", handle), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(handle, nullptr);
    EXPECT_TRUE(
        log.Is({"3 param filename = , folder_path = /x", "5 param filename should not be empty.",
                "3 param filename = y" MODULE_SUFFIX ", folder_path = ",
                "5 param folder_path should not be empty."}));
}

TEST_F(PluginObject, UnloadsAnInvalidHandleWithSuccess) {
    Plugin plugin("/x/y" MODULE_SUFFIX);
    LogCapture log;
    EXPECT_EQ(plugin.UnloadDso(nullptr), VESSA_OK);
    EXPECT_TRUE(log.Is({"3 param dso_handle = 0"}));
}

TEST_F(PluginObject, LoadsOnceAndUnloadsWithTheLast) {
    const std::string path = Module("good_v2", "p/good" MODULE_SUFFIX);
    ModuleHook hook;
    Plugin plugin(path);
    LogCapture log;
    EXPECT_EQ(plugin.LoadPlugin(), VESSA_OK);
    EXPECT_EQ(plugin.LoadPlugin(), VESSA_OK);
    EXPECT_EQ(plugin.UnloadPlugin(), VESSA_OK);
    EXPECT_EQ(hook.Count("good", "Uninit"), 0);
    EXPECT_EQ(plugin.UnloadPlugin(), VESSA_OK);
    EXPECT_EQ(plugin.UnloadPlugin(), VESSA_OK);
    EXPECT_TRUE(
        log.Is(ModuleLoad(path) + Lines{"3 plugin already loaded, load_counter_value = 2",
                                        "3 plugin will not be unloaded, load_counter_value = 1",
                                        "3 param dso_handle = {*h}", "4 plugin already unloaded"}));
    EXPECT_EQ(hook.Journal(), (Lines{"Load good", "Entry good", "Init good", "GetFileVersion good",
                                     "GetAllInterfaceIkeys good", "Uninit good", "Unload good"}));
}

TEST_F(PluginObject, StartsFromTheBeginningAfterAnUnload) {
    const std::string path = Module("good_v2", "good" MODULE_SUFFIX);
    ModuleHook hook;
    Plugin plugin(path);
    for (int round = 1; round <= 2; ++round) {
        EXPECT_EQ(plugin.LoadPlugin(), VESSA_OK);
        EXPECT_EQ(plugin.UnloadPlugin(), VESSA_OK);
        EXPECT_EQ(hook.Count("good", "Init"), round);
        EXPECT_EQ(hook.Count("good", "Unload"), round);
    }
}

TEST_F(PluginObject, ForgetsTheLastLoadsVersionAndIkeys) {
    const std::string path = Module("good_v2", "good" MODULE_SUFFIX);
    ModuleHook hook;
    Plugin plugin(path);
    ASSERT_EQ(plugin.LoadPlugin(), VESSA_OK);
    ASSERT_EQ(plugin.UnloadPlugin(), VESSA_OK);
    hook.On("good", "GetFileVersion", [](ModuleCall& call) { call.Return(0); });
    hook.On("good", "GetAllInterfaceIkeys", [](ModuleCall& call) { call.Return(0); });
    LogCapture log;
    ASSERT_EQ(plugin.LoadPlugin(), VESSA_OK);
    EXPECT_TRUE(log.Contains("plugin filename good" MODULE_SUFFIX
                             ", plugin file version , interface ikeys []"));
    ASSERT_EQ(plugin.UnloadPlugin(), VESSA_OK);
}

TEST_F(PluginObject, UnloadsAModuleWhoseInitFailsAndTriesAgainFromTheBeginning) {
    const std::string path = Module("init_fails", "init_fails" MODULE_SUFFIX);
    ModuleHook hook;
    Plugin plugin(path);
    const Lines failure =
        BeforeInit(path) +
        Lines{"5 init plugin failed, error 7/7, filename ", "3 param dso_handle = {*h}",
              "5 load plugin failed, error -2147483637/FFFFFFFF8000000B, plugin filename "
              "init_fails" MODULE_SUFFIX ", plugin folder path " +
                  Folder(path)};
    for (int round = 1; round <= 2; ++round) {
        LogCapture log;
        EXPECT_EQ(plugin.LoadPlugin(), VESSA_ERR_MODULE_INIT);
        EXPECT_TRUE(log.Is(failure));
        EXPECT_EQ(hook.Count("init_fails", "Unload"), round);
    }
    EXPECT_EQ(hook.Count("init_fails", "Uninit"), 0);
    LogCapture log;
    EXPECT_EQ(plugin.UnloadPlugin(), VESSA_OK);
    EXPECT_TRUE(log.Is({"4 plugin already unloaded"}));
}

TEST_F(PluginObject, EndsUnloadedAlsoWhenUninitFails) {
    const std::string path = Module("uninit_fails", "uninit_fails" MODULE_SUFFIX);
    ModuleHook hook;
    Plugin plugin(path);
    ASSERT_EQ(plugin.LoadPlugin(), VESSA_OK);
    LogCapture log;
    EXPECT_EQ(plugin.UnloadPlugin(), VESSA_ERR_MODULE_UNINIT);
    EXPECT_EQ(hook.Count("uninit_fails", "Unload"), 1);
    EXPECT_EQ(plugin.UnloadPlugin(), VESSA_OK);
    EXPECT_TRUE(log.Is({"4 uninit plugin failed, error 9/9, plugin folder path " + Folder(path) +
                            ", plugin filename uninit_fails" MODULE_SUFFIX,
                        "3 param dso_handle = {*h}", "4 plugin already unloaded"}));
}

TEST_F(PluginObject, ReportsAFailingUnloadOfTheFileInsteadOfAFailingUninit) {
    const std::string path = Module("uninit_fails", "uninit_fails" MODULE_SUFFIX);
    Runtime runtime;
    ModuleHook hook;
    Plugin plugin(path);
    ASSERT_EQ(plugin.LoadPlugin(), VESSA_OK);
    void* handle = nullptr;
    runtime.Before(Tova::UnloadDSo, [&](RuntimeCall& call) {
        handle = call.object;
        call.Fail(kErrorBusy);
    });
    LogCapture log;
    EXPECT_EQ(plugin.UnloadPlugin(), VESSA_ERR_MODULE_UNLOAD);
    EXPECT_TRUE(log.Is(
        {"4 uninit plugin failed, error 9/9, plugin folder path " + Folder(path) +
             ", plugin filename uninit_fails" MODULE_SUFFIX,
         "3 param dso_handle = {*h}",
         "5 TOVA_UnloadDso failed, plugin dso handle {*h}, error " + Code(kErrorBusy),
         "4 unload plugin dso file failed, error -2147483641/FFFFFFFF80000007, plugin handle {*h}, "
         "plugin folder path " +
             Folder(path) + ", plugin filename uninit_fails" MODULE_SUFFIX}));
    runtime.Before(Tova::UnloadDSo, nullptr);
    void* instance = nullptr;
    EXPECT_EQ(plugin.CreateInstance("k", instance), -1);
    TOVA_UnloadDSo(handle);
}

TEST_F(PluginObject, KeepsTheFirstCodeWhenTheFileOfAFailedLoadCannotBeUnloaded) {
    const std::string path = Module("init_fails", "init_fails" MODULE_SUFFIX);
    Runtime runtime;
    Plugin plugin(path);
    void* handle = nullptr;
    runtime.Before(Tova::UnloadDSo, [&](RuntimeCall& call) {
        handle = call.object;
        call.Fail(kErrorBusy);
    });
    LogCapture log;
    EXPECT_EQ(plugin.LoadPlugin(), VESSA_ERR_MODULE_INIT);
    EXPECT_TRUE(log.Is(
        BeforeInit(path) +
        Lines{"5 init plugin failed, error 7/7, filename ", "3 param dso_handle = {*h}",
              "5 TOVA_UnloadDso failed, plugin dso handle {*h}, error " + Code(kErrorBusy),
              "4 unload plugin dso failed, error -2147483641/FFFFFFFF80000007, plugin handle {*h}",
              "5 load plugin failed, error -2147483637/FFFFFFFF8000000B, plugin filename "
              "init_fails" MODULE_SUFFIX ", plugin folder path " +
                  Folder(path)}));
    runtime.Before(Tova::UnloadDSo, nullptr);
    TOVA_UnloadDSo(handle);
}

TEST_F(PluginObject, ForwardsToAVersion2ModuleWithTheFkey) {
    const std::string path = Module("good_v2", "good" MODULE_SUFFIX);
    ModuleHook hook;
    Plugin plugin(path);
    ASSERT_EQ(plugin.LoadPlugin(), VESSA_OK);
    hook.Clear();
    void* instance = nullptr;
    ASSERT_EQ(plugin.CreateInstance("key", instance), 0);
    void* iface = nullptr;
    ASSERT_EQ(plugin.QueryInterface(instance, TEST_MODULE_IKEY, iface), 0);
    EXPECT_STREQ(static_cast<test_interface*>(iface)->Fkey(instance), "key");
    EXPECT_EQ(plugin.QueryInterface(instance, "other", iface), TEST_MODULE_ERR_UNKNOWN_IKEY);
    EXPECT_EQ(plugin.DestroyInstance(instance), 0);
    EXPECT_EQ(hook.Journal(),
              (Lines{"CreateInstance_V2 good key=key", "QueryInterface good key=iface",
                     "QueryInterface good key=other", "DestroyInstance good"}));
    EXPECT_EQ(plugin.UnloadPlugin(), VESSA_OK);
}

TEST_F(PluginObject, ForwardsToAVersion1ModuleWithoutTheFkey) {
    const std::string path = Module("good_v1", "good" MODULE_SUFFIX);
    ModuleHook hook;
    Plugin plugin(path);
    ASSERT_EQ(plugin.LoadPlugin(), VESSA_OK);
    hook.Clear();
    void* instance = nullptr;
    ASSERT_EQ(plugin.CreateInstance("key", instance), 0);
    EXPECT_EQ(plugin.DestroyInstance(instance), 0);
    EXPECT_EQ(hook.Journal(), (Lines{"CreateInstance good", "DestroyInstance good"}));
    LogCapture log;
    int count = 77;
    EXPECT_EQ(plugin.GetPluginMapFkeys(nullptr, &count), 0);
    EXPECT_EQ(count, 77);
    EXPECT_TRUE(log.Is({"5 plugin ops GetPluginMapFkeys should not be NULL"}));
    EXPECT_EQ(plugin.UnloadPlugin(), VESSA_OK);
}

TEST_F(PluginObject, PassesTheMapQuestionOnUnchanged) {
    const std::string path = Module("map_two", "map" MODULE_SUFFIX);
    Plugin plugin(path);
    ASSERT_EQ(plugin.LoadPlugin(), VESSA_OK);
    int count = 0;
    EXPECT_EQ(plugin.GetPluginMapFkeys(nullptr, &count), 0);
    ASSERT_EQ(count, 2);
    char fkeys[2][TARNET_FKEY_SIZE] = {};
    EXPECT_EQ(plugin.GetPluginMapFkeys(fkeys, &count), 0);
    EXPECT_STREQ(fkeys[0], "a");
    EXPECT_STREQ(fkeys[1], "b");
    EXPECT_EQ(plugin.UnloadPlugin(), VESSA_OK);
}

TEST_F(PluginObject, PassesTheModulesOwnResultsOn) {
    struct Row {
        const char* module;
        int create, query, destroy;
    };
    for (const Row& row : {Row{"create_fails", TEST_MODULE_ERR_CREATE, 0, 0},
                           Row{"create_fails_v1", TEST_MODULE_ERR_CREATE, 0, 0},
                           Row{"query_fails", 0, TEST_MODULE_ERR_QUERY, 0},
                           Row{"destroy_fails", 0, 0, TEST_MODULE_ERR_DESTROY}}) {
        SCOPED_TRACE(row.module);
        Plugin plugin(Module(row.module, std::string(row.module) + MODULE_SUFFIX));
        ASSERT_EQ(plugin.LoadPlugin(), VESSA_OK);
        void* instance = nullptr;
        ASSERT_EQ(plugin.CreateInstance("k", instance), row.create);
        if (row.create == 0) {
            void* iface = nullptr;
            EXPECT_EQ(plugin.QueryInterface(instance, TEST_MODULE_IKEY, iface), row.query);
            EXPECT_EQ(plugin.DestroyInstance(instance), row.destroy);
        }
        EXPECT_EQ(plugin.UnloadPlugin(), VESSA_OK);
    }
}

TEST_F(PluginObject, AnswersForMissingOperationsWhileNotLoaded) {
    Plugin plugin("/x/y" MODULE_SUFFIX);
    LogCapture log;
    int mark = 0;
    void* instance = &mark;
    EXPECT_EQ(plugin.CreateInstance("k", instance), -1);
    EXPECT_EQ(instance, nullptr);
    EXPECT_EQ(plugin.DestroyInstance(&mark), -1);
    void* iface = &mark;
    EXPECT_EQ(plugin.QueryInterface(&mark, "i", iface), -1);
    int count = 5;
    EXPECT_EQ(plugin.GetPluginMapFkeys(nullptr, &count), 0);
    EXPECT_EQ(count, 5);
    EXPECT_TRUE(log.Is({"5 plugin ops CreateInstance should not be NULL",
                        "5 plugin ops DestroyInstance should not be NULL",
                        "5 plugin ops QueryInterface should not be NULL",
                        "5 plugin ops GetPluginMapFkeys should not be NULL"}));
}

TEST_F(PluginObject, LoadsOnceForManyThreads) {
    const std::string path = Module("good_v2", "good" MODULE_SUFFIX);
    Plugin plugin(path);
    constexpr int kThreads = 4;
    Barrier start(kThreads);
    int results[kThreads] = {};
    {
        std::vector<std::unique_ptr<JoiningThread>> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.push_back(std::make_unique<JoiningThread>([&, i] {
                for (int round = 0; round < 20; ++round) {
                    start.ArriveAndWait();
                    results[i] |= plugin.LoadPlugin();
                    void* instance = nullptr;
                    results[i] |= plugin.CreateInstance("k", instance);
                    results[i] |= plugin.DestroyInstance(instance);
                    results[i] |= plugin.UnloadPlugin();
                }
            }));
        }
    }
    for (const int result : results) EXPECT_EQ(result, 0);
}

}  // namespace
}  // namespace vessa_test
