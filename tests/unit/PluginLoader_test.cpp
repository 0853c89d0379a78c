#include "vessa2/PluginLoader.h"

#include "TestPlatform.h"
#include "unit/PluginWorld.h"

namespace vessa_test {
namespace {

class PluginLoaderTest : public PluginTest {
  protected:
    // A loader of the test's own.
    PluginLoader own;
    std::map<std::string, Plugin*>& collection = PluginLoaderAccess::Collection(own);

    // Modules that the test means to leave loaded.
    long left_loaded = 0;

    static std::string Address(const void* pointer) {
        char text[24];
        std::snprintf(text, sizeof text, "%016llX",
                      static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(pointer)));
        return text;
    }
    static std::string Refused(const std::string& path, int code) {
        return "5 load plugin failed " + Code(code) + ", plugin file path " + path;
    }
    void TearDown() override {
        EXPECT_TRUE(collection.empty());
        EXPECT_EQ(Runtime::Census().modules, modules_before_ + left_loaded);
    }

  private:
    const long modules_before_ = Runtime::Census().modules;
};

TEST_F(PluginLoaderTest, IsOneForTheProcess) {
    EXPECT_EQ(&PluginLoader::Instance(), &PluginLoader::Instance());
}

TEST_F(PluginLoaderTest, StaysWhileItHoldsAModule) {
    const std::string path = Module("good_v2", "good" MODULE_SUFFIX);
    Plugin* plugin = nullptr;
    PluginLoader& whole = PluginLoader::Instance();
    ASSERT_EQ(whole.LoadPlugin(path, plugin), VESSA_OK);
    PluginLoader::DestroyInstance();
    EXPECT_EQ(whole.UnloadPlugin(plugin), VESSA_OK);
}

TEST_F(PluginLoaderTest, RefusesPathsWithoutAFileName) {
    LogCapture log;
    int mark = 0;
    auto* plugin = reinterpret_cast<Plugin*>(&mark);
    EXPECT_EQ(own.LoadPlugin("", plugin), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(plugin, nullptr);
    EXPECT_EQ(own.LoadPlugin("/", plugin), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(plugin, nullptr);
    EXPECT_TRUE(
        log.Is({"3 param file_path = ", "5 param file_path should not be empty",
                "3 param file_path = /", "5 plugin filename is empty, param file_path = /"}));
}

TEST_F(PluginLoaderTest, SharesOneObjectForOnePathAndUnloadsWithTheLastReference) {
    const std::string path = Module("good_v2", "x/a" MODULE_SUFFIX);
    ModuleHook hook;
    LogCapture log;
    Plugin* first = nullptr;
    Plugin* second = nullptr;
    ASSERT_EQ(own.LoadPlugin(path, first), VESSA_OK);
    ASSERT_EQ(own.LoadPlugin(path, second), VESSA_OK);
    EXPECT_EQ(first, second);
    const std::string address = Address(first);
    EXPECT_EQ(own.UnloadPlugin(first), VESSA_OK);
    EXPECT_EQ(own.UnloadPlugin(second), VESSA_OK);
    EXPECT_TRUE(log.Is(
        NewModule(path) + ModuleLoad(path) + LoaderDone(path, 1) +
        Lines{"3 param file_path = " + path, "3 plugin already loaded, load_counter_value = 2"} +
        LoaderDone(path, 2) + StillCounted(1) + LoaderUnloaded(path, 1, address) +
        Lines{"3 param dso_handle = {*h}"} + LoaderUnloaded(path, 0, address)));
    EXPECT_EQ(hook.Count("a", "Init"), 1);
    EXPECT_EQ(hook.Count("a", "Uninit"), 1);
    EXPECT_TRUE(collection.empty());
}

TEST_F(PluginLoaderTest, TakesDifferentSpellingsOfAPathAsOne) {
    const std::string path = Module("good_v2", "x/a" MODULE_SUFFIX);
    std::string other = dir.Path() + "/./x\\\\a" MODULE_SUFFIX;
    Plugin* first = nullptr;
    Plugin* second = nullptr;
    ASSERT_EQ(own.LoadPlugin(path, first), VESSA_OK);
    ASSERT_EQ(own.LoadPlugin(other, second), VESSA_OK);
    EXPECT_EQ(first, second);
    EXPECT_EQ(own.UnloadPlugin(first), VESSA_OK);
    EXPECT_EQ(own.UnloadPlugin(first), VESSA_OK);
}

TEST_F(PluginLoaderTest, TakesNamesThatDifferInCaseAsDifferentModules) {
    Plugin* lower = nullptr;
    Plugin* upper = nullptr;
    ASSERT_EQ(own.LoadPlugin(Module("good_v2", "x/a" MODULE_SUFFIX), lower), VESSA_OK);
    ASSERT_EQ(own.LoadPlugin(Module("good_v2", "y/A" MODULE_SUFFIX), upper), VESSA_OK);
    EXPECT_NE(lower, upper);
    EXPECT_EQ(own.UnloadPlugin(lower), VESSA_OK);
    EXPECT_EQ(own.UnloadPlugin(upper), VESSA_OK);
}

TEST_F(PluginLoaderTest, RefusesTheSameFileNameFromAnotherFolder) {
    const std::string path = Module("good_v2", "x/a" MODULE_SUFFIX);
    const std::string other = Module("good_v2", "y/a" MODULE_SUFFIX);
    Plugin* plugin = nullptr;
    Plugin* refused = nullptr;
    ASSERT_EQ(own.LoadPlugin(path, plugin), VESSA_OK);
    LogCapture log;
    EXPECT_EQ(own.LoadPlugin(other, refused), VESSA_ERR_PLUGIN_CONFLICT);
    EXPECT_EQ(refused, nullptr);
    EXPECT_TRUE(
        log.Is({"3 param file_path = " + other, "5 plugin conflict, plugin file path " + other +
                                                    ", loaded plugin file path " + path}));
    void* instance = nullptr;
    EXPECT_EQ(plugin->CreateInstance("k", instance), 0);
    EXPECT_EQ(plugin->DestroyInstance(instance), 0);
    EXPECT_EQ(own.UnloadPlugin(plugin), VESSA_OK);
    EXPECT_EQ(own.LoadPlugin(other, plugin), VESSA_OK);
    EXPECT_EQ(own.UnloadPlugin(plugin), VESSA_OK);
}

TEST_F(PluginLoaderTest, KeepsNoEntryOfAModuleThatFailsToLoad) {
    const std::string path = Module("init_fails", "a" MODULE_SUFFIX);
    LogCapture log;
    int mark = 0;
    auto* plugin = reinterpret_cast<Plugin*>(&mark);
    EXPECT_EQ(own.LoadPlugin(path, plugin), VESSA_ERR_MODULE_INIT);
    EXPECT_EQ(plugin, nullptr);
    EXPECT_TRUE(collection.empty());
    EXPECT_EQ(log.Lines().back(), Refused(path, VESSA_ERR_MODULE_INIT));
    EXPECT_EQ(own.LoadPlugin(Module("good_v2", "y/a" MODULE_SUFFIX), plugin), VESSA_OK);
    EXPECT_EQ(own.UnloadPlugin(plugin), VESSA_OK);
}

TEST_F(PluginLoaderTest, ReplacesAnEntryWithoutObject) {
    const std::string path = Module("good_v2", "a" MODULE_SUFFIX);
    collection["a" MODULE_SUFFIX] = nullptr;
    LogCapture log;
    Plugin* plugin = nullptr;
    ASSERT_EQ(own.LoadPlugin(path, plugin), VESSA_OK);
    EXPECT_TRUE(log.Is(Lines{"3 param file_path = " + path,
                             "4 unexpected, plugin collection contains NULL pointer, plugin "
                             "filename a" MODULE_SUFFIX,
                             "3 param file_path = " + path,
                             "3 filename_ = a" MODULE_SUFFIX ", folder_path_ = " + dir.Path() +
                                 ", file_path_ = " + path} +
                       ModuleLoad(path) + LoaderDone(path, 1)));
    EXPECT_EQ(own.UnloadPlugin(plugin), VESSA_OK);
}

TEST_F(PluginLoaderTest, RefusesToUnloadWhatItDoesNotHold) {
    const std::string path = Module("good_v2", "a" MODULE_SUFFIX);
    Plugin foreign(path);
    LogCapture log;
    EXPECT_EQ(own.UnloadPlugin(nullptr), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(own.UnloadPlugin(&foreign), -1);
    collection["a" MODULE_SUFFIX] = nullptr;
    EXPECT_EQ(own.UnloadPlugin(&foreign), -1);
    EXPECT_EQ(collection.count("a" MODULE_SUFFIX), 1u);
    Plugin* held = nullptr;
    ASSERT_EQ(own.LoadPlugin(path, held), VESSA_OK);
    EXPECT_EQ(own.UnloadPlugin(&foreign), -1);
    const Lines lines = log.Lines();
    const std::string f = Address(&foreign);
    EXPECT_TRUE(LinesAre(
        {lines[0], lines[1], lines[2], lines.back()},
        {"5 param plugin should not be NULL",
         "5 unexpected, plugin not found, plugin filename a" MODULE_SUFFIX ", param plugin " + f,
         "5 unexpected, plugin collection contains NULL pointer, plugin filename a" MODULE_SUFFIX
         ", plugin " +
             f,
         "5 unexpected, plugin not matched, param plugin " + f + ", collection contains " +
             Address(held) + ", plugin filename a" MODULE_SUFFIX}));
    EXPECT_EQ(held->reference_counter().Get(), 1);
    EXPECT_EQ(own.UnloadPlugin(held), VESSA_OK);
}

TEST_F(PluginLoaderTest, KeepsTheReferenceAndTheNameOfAModuleWhoseUninitFails) {
    const std::string path = Module("uninit_fails", "x/a" MODULE_SUFFIX);
    const std::string other = Module("good_v2", "y/a" MODULE_SUFFIX);
    ModuleHook hook;
    Plugin* plugin = nullptr;
    ASSERT_EQ(own.LoadPlugin(path, plugin), VESSA_OK);
    LogCapture log;
    EXPECT_EQ(own.UnloadPlugin(plugin), VESSA_ERR_MODULE_UNINIT);
    EXPECT_TRUE(log.Is({"4 uninit plugin failed, error 9/9, plugin folder path " + Folder(path) +
                            ", plugin filename a" MODULE_SUFFIX,
                        "3 param dso_handle = {*h}",
                        "5 unload plugin failed " + Code(VESSA_ERR_MODULE_UNINIT) + ", plugin " +
                            Address(plugin) + ", plugin filename a" MODULE_SUFFIX}));
    EXPECT_EQ(hook.Count("a", "Unload"), 1);
    Plugin* refused = nullptr;
    EXPECT_EQ(own.LoadPlugin(other, refused), VESSA_ERR_PLUGIN_CONFLICT);

    log.Clear();
    Plugin* again = nullptr;
    ASSERT_EQ(own.LoadPlugin(path, again), VESSA_OK);
    EXPECT_EQ(again, plugin);
    EXPECT_EQ(hook.Count("a", "Init"), 2);
    EXPECT_TRUE(
        log.Is(Lines{"3 param file_path = " + path} + ModuleLoad(path) + LoaderDone(path, 2)));
    hook.On("a", "Uninit", [](ModuleCall& call) { call.Return(0); });
    EXPECT_EQ(own.UnloadPlugin(plugin), VESSA_OK);
    EXPECT_EQ(plugin->reference_counter().Get(), 1);
    log.Clear();
    EXPECT_EQ(own.UnloadPlugin(plugin), VESSA_OK);
    EXPECT_TRUE(log.Is(Lines{"4 plugin already unloaded"} + LoaderUnloaded(path, 0)));
}

TEST_F(PluginLoaderTest, IsUnlockedDuringLoadsAndUnloads) {
    const std::string a = Module("good_v2", "a" MODULE_SUFFIX);
    const std::string b = Module("good_v2", "b" MODULE_SUFFIX);
    Gate inside;
    Gate go_on;
    ModuleHook hook;
    const auto hold = [&](ModuleCall&) {
        inside.Open();
        go_on.Wait();
    };
    hook.On("a", "Init", hold);
    Plugin* held = nullptr;
    JoiningThread thread([&] { EXPECT_EQ(own.LoadPlugin(a, held), VESSA_OK); });
    inside.Wait();
    Plugin* other = nullptr;
    EXPECT_EQ(own.LoadPlugin(b, other), VESSA_OK);
    EXPECT_EQ(own.UnloadPlugin(other), VESSA_OK);
    go_on.Open();
    thread.Join();
    EXPECT_EQ(own.UnloadPlugin(held), VESSA_OK);
}

TEST_F(PluginLoaderTest, DestroysItsObjectsWithoutUnloadingThem) {
    const std::string path = Module("good_v2", "a" MODULE_SUFFIX);
    ModuleHook hook;
    {
        PluginLoader loader_of_its_own;
        Plugin* plugin = nullptr;
        ASSERT_EQ(loader_of_its_own.LoadPlugin(path, plugin), VESSA_OK);
    }
    EXPECT_EQ(hook.Count("a", "Uninit"), 0);
    EXPECT_EQ(hook.Count("a", "Unload"), 0);
    left_loaded = 1;
}

}  // namespace
}  // namespace vessa_test
