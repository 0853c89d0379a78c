#include "vessa2/PluginProvider.h"

#include "TestPlatform.h"
#include "unit/PluginWorld.h"

namespace vessa_test {
namespace {

class PluginProviderTest : public ProviderTest {
  protected:
    // Registers without loading.
    void Declare(const std::string& fkey, const std::string& path) {
        ASSERT_EQ(provider.RegisterPlugin(fkey, path, true), VESSA_OK);
    }
    void Remove(const std::vector<std::string>& fkeys) {
        for (const std::string& fkey : fkeys)
            EXPECT_EQ(provider.UnregisterPlugin(fkey), VESSA_OK) << fkey;
    }

    int error = 0;
    void* instance = nullptr;
};

TEST_F(PluginProviderTest, RefusesEmptyAndNamelessArguments) {
    LogCapture log;
    EXPECT_EQ(provider.RegisterPlugin("", "/p/x" MODULE_SUFFIX, true), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(provider.RegisterPlugin("k", "", true), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(provider.RegisterPlugin("k", "/", true), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(provider.RegisterPlugin("k", "C:/", true), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(provider.UnregisterPlugin(""), VESSA_ERR_ARGUMENT);
    EXPECT_TRUE(log.Is(
        {"3 param fkey , file_path /p/x" MODULE_SUFFIX ", delay_load true",
         "5 param fkey should not be empty", "3 param fkey k, file_path , delay_load true",
         "5 param file_path should not be empty", "3 param fkey k, file_path /, delay_load true",
         "5 param file_path does not contain filename, file_path /",
         "3 param fkey k, file_path C:/, delay_load true",
         "5 param file_path does not contain filename, file_path C:/",
         "3 param fkey = ", "5 param fkey should not be empty"}));
}

TEST_F(PluginProviderTest, NamesTheFileOfAPathThatEndsInASlash) {
    Declare("a", "a/b/");
    LogCapture log;
    EXPECT_EQ(provider.RegisterPlugin("c", "other/b", true), VESSA_ERR_PLUGIN_CONFLICT);
    EXPECT_TRUE(
        log.Contains("5 plugin conflict, the same plugin filename, different plugin file "
                     "paths, fkey c, file path other/b, registered fkey a, registered plugin "
                     "file path a/b/"));
    Remove({"a"});
}

TEST_F(PluginProviderTest, LoadsAtRegistrationUnlessDelayed) {
    const std::string path = Module("good_v2", "x" MODULE_SUFFIX);
    ModuleHook hook;
    LogCapture log;
    EXPECT_EQ(provider.RegisterPlugin("now", path, false), VESSA_OK);
    EXPECT_TRUE(log.Is(Registering("now", path, false) + RecordLoad(path) +
                       Registered("now", path, false)));
    log.Clear();
    EXPECT_EQ(provider.UnregisterPlugin("now"), VESSA_OK);
    EXPECT_TRUE(log.Is(Lines{"3 param fkey = now"} + RecordUnload(path) +
                       Unregistered("now", path, false)));
    hook.Clear();
    log.Clear();
    EXPECT_EQ(provider.RegisterPlugin("later", path, true), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("later"), VESSA_OK);
    EXPECT_TRUE(log.Is(Registering("later", path, true) + Registered("later", path, true) +
                       Lines{"3 param fkey = later"} + Unregistered("later", path, true)));
    EXPECT_TRUE(hook.Journal().empty());
}

TEST_F(PluginProviderTest, LetsTwoKeysShareOneModuleWithAWarning) {
    const std::string path = Module("good_v2", "x" MODULE_SUFFIX);
    ModuleHook hook;
    ASSERT_EQ(provider.RegisterPlugin("a", path, false), VESSA_OK);
    LogCapture log;
    ASSERT_EQ(provider.RegisterPlugin("b", path, false), VESSA_OK);
    EXPECT_TRUE(log.Is(Registering("b", path, false) +
                       Lines{"4 the same plugin file path, different plugin filenames, fkey b, "
                             "registered fkey a, plugin file path " +
                                 path,
                             "3 param file_path = " + path,
                             "3 plugin already loaded, load_counter_value = 2"} +
                       LoaderDone(path, 2) + RecordLoaded(path) + Registered("b", path, false)));
    EXPECT_EQ(hook.Count("x", "Init"), 1);
    Remove({"a", "b"});
    EXPECT_EQ(hook.Count("x", "Uninit"), 1);
}

TEST_F(PluginProviderTest, RefusesTheSameFileNameFromAnotherFolder) {
    Declare("a", "/p/x.dll");
    LogCapture log;
    EXPECT_EQ(provider.RegisterPlugin("b", "/q/x.dll", true), VESSA_ERR_PLUGIN_CONFLICT);
    EXPECT_TRUE(log.Is(
        {"3 param fkey b, file_path /q/x.dll, delay_load true",
         "5 plugin conflict, the same plugin filename, different plugin file paths, fkey b, file "
         "path /q/x.dll, registered fkey a, registered plugin file path /p/x.dll"}));
    Remove({"a"});
    Declare("b", "/q/x.dll");
    Remove({"b"});
}

TEST_F(PluginProviderTest, RefusesAnotherSpellingOfARegisteredPathUnderAnotherKey) {
    Declare("a", "/p/x.dll");
    EXPECT_EQ(provider.RegisterPlugin("b", "/p\\x.dll", true), VESSA_ERR_PLUGIN_CONFLICT);
    Remove({"a"});
}

TEST_F(PluginProviderTest, RefusesTheSameKeyWithAnotherFile) {
    Declare("a", "/p/x.dll");
    LogCapture log;
    EXPECT_EQ(provider.RegisterPlugin("a", "/q/y.dll", true), VESSA_ERR_PLUGIN_CONFLICT);
    EXPECT_TRUE(log.Is({"3 param fkey a, file_path /q/y.dll, delay_load true",
                        "5 plugin conflict, plugin fkey already exists, fkey a, param file_path "
                        "/q/y.dll, registered plugin file path /p/x.dll"}));
    Remove({"a"});
}

TEST_F(PluginProviderTest, AcceptsTheSameRegistrationAgainAndTakesItsDelay) {
    const std::string path = Module("good_v2", "x" MODULE_SUFFIX);
    ModuleHook hook;
    Declare("a", path);
    EXPECT_TRUE(hook.Journal().empty());
    LogCapture log;
    ASSERT_EQ(provider.RegisterPlugin("a", path, false), VESSA_OK);
    EXPECT_TRUE(
        log.Is(Registering("a", path, false) + RecordLoad(path) + Registered("a", path, false)));
    PluginRecord* const record = Record("a");
    ASSERT_NE(record, nullptr);
    EXPECT_FALSE(record->delay_load());
    log.Clear();
    ASSERT_EQ(provider.RegisterPlugin("a", path, false), VESSA_OK);
    EXPECT_TRUE(log.Is(Registering("a", path, false) + Registered("a", path, false)));
    EXPECT_EQ(hook.Count("x", "Init"), 1);
    Remove({"a"});
}

TEST_F(PluginProviderTest, RegistersAPluginWhoseModuleFailsToLoad) {
    const std::string path = dir.Path("late" MODULE_SUFFIX);
    LogCapture log;
    EXPECT_EQ(provider.RegisterPlugin("k", path, false), VESSA_OK);
    const Lines lines = log.Lines();
    EXPECT_TRUE(LinesAre(
        Lines(lines.end() - 2, lines.end()),
        Lines{"5 load plugin failed -2147483646/FFFFFFFF80000002, fkey k, file path " + path} +
            Registered("k", path, false)));
    Module("good_v2", "late" MODULE_SUFFIX);
    ASSERT_EQ(provider.CreateInstance("k", instance, error), VESSA_OK);
    EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
    Remove({"k"});
}

TEST_F(PluginProviderTest, ComparesKeysByTheirBytes) {
    Declare("Key", "/p/upper" MODULE_SUFFIX);
    LogCapture log;
    EXPECT_EQ(provider.UnregisterPlugin("key"), VESSA_ERR_ARGUMENT);
    EXPECT_TRUE(log.Is({"3 param fkey = key",
                        "4 unexpected, plugin collection does not contain the fkey, fkey key"}));
    Remove({"Key"});
}

TEST_F(PluginProviderTest, PutsTheUnloadOffWhileInstancesLive) {
    const std::string path = Module("good_v2", "x" MODULE_SUFFIX);
    ModuleHook hook;
    Declare("k", path);
    void* second = nullptr;
    ASSERT_EQ(provider.CreateInstance("k", instance, error), VESSA_OK);
    ASSERT_EQ(provider.CreateInstance("k", second, error), VESSA_OK);
    LogCapture log;
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
    void* refused = &error;
    EXPECT_EQ(provider.CreateInstance("k", refused, error), VESSA_ERR_NOT_REGISTERED);
    EXPECT_EQ(refused, nullptr);
    int count = 5;
    EXPECT_EQ(provider.GetPluginMapFkeys("k", nullptr, &count), -1);
    EXPECT_EQ(count, 5);
    void* iface = nullptr;
    EXPECT_EQ(provider.QueryInterface(instance, TEST_MODULE_IKEY, iface, error), VESSA_OK);
    EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
    EXPECT_EQ(hook.Count("x", "Uninit"), 0);
    EXPECT_EQ(provider.DestroyInstance(second, error), VESSA_OK);
    const std::string file = ", plugin file path " + path;
    const std::string already = "4 plugin already unregistered, fkey k" + file;
    EXPECT_TRUE(log.Is(
        Lines{
            "3 param fkey = k",
            "4 unexpected, some plugin not destroyed, unload pluin later, fkey k, file path " +
                path,
            "2 param fkey = k", already, "2 param fkey = k", already,
            "2 param instance = {*i}, ikey = iface", "2 param instance = {*i}, ikey = iface",
            "2 query plugin interface succeeded, interface {*f}, instance {*i}, ikey iface, "
            "plugin {*p}" +
                file,
            "2 query plugin interface succeeded, instance {*i}, ikey iface, interface {*f}, fkey "
            "k" +
                file,
            "2 param instance = {*i}", "2 param instance = {*i}",
            "2 destroy tarnet instance succeeded, instance {*i}, plugin {*p}, instance counter 1" +
                file,
            "2 destroy instance succeeded, instance {*i}, fkey k" + file, "2 param instance = {*j}",
            "2 param instance = {*j}",
            "2 destroy tarnet instance succeeded, instance {*j}, plugin {*p}, instance counter 0" +
                file,
            "3 destroy instance succeeded, and need unload plugin, instance {*j}, fkey k" + file} +
        RecordUnload(path) +
        Lines{"3 unload plugin succeeded, fkey k, file path " + path + ", delay load true"}));
    EXPECT_EQ(hook.Count("x", "Unload"), 1);
    EXPECT_TRUE(provider.IsEmpty());
}

TEST_F(PluginProviderTest, KeepsARecordThatIsRegisteredAgainWithItsInstances) {
    const std::string path = Module("good_v2", "x" MODULE_SUFFIX);
    Declare("k", path);
    ASSERT_EQ(provider.CreateInstance("k", instance, error), VESSA_OK);
    ASSERT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
    const PluginRecord* const record = Record("k");
    LogCapture log;
    ASSERT_EQ(provider.RegisterPlugin("k", path, true), VESSA_OK);
    EXPECT_TRUE(log.Is(Registering("k", path, true) +
                       Lines{"4 plugin already unregistered, but not unload yet, now register "
                             "again, plugin fkey k, file path " +
                             path} +
                       Registered("k", path, true)));
    EXPECT_EQ(Record("k"), record);
    EXPECT_FALSE(record->IsUnregistered());
    EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
    EXPECT_EQ(PluginProviderAccess::Collection(provider).count("k"), 1u);
    Remove({"k"});
}

TEST_F(PluginProviderTest, CountsAnEntryWithoutRecordAsRegisteredWithAnEmptyPath) {
    PluginProviderAccess::AddWithoutRecord(provider, "b");
    LogCapture log;
    EXPECT_EQ(provider.RegisterPlugin("b", "/p/x" MODULE_SUFFIX, true), VESSA_ERR_PLUGIN_CONFLICT);
    EXPECT_EQ(provider.RegisterPlugin("a", "/p/x" MODULE_SUFFIX, true), VESSA_OK);
    const std::string invalid =
        "4 unexpected, plugin_collection contains invalid plugin, plugin fkey b";
    EXPECT_TRUE(log.Is(Registering("b", "/p/x" MODULE_SUFFIX, true) +
                       Lines{invalid,
                             "5 plugin conflict, plugin fkey already exists, fkey b, param "
                             "file_path /p/x" MODULE_SUFFIX ", registered plugin file path "} +
                       Registering("a", "/p/x" MODULE_SUFFIX, true) + Lines{invalid} +
                       Registered("a", "/p/x" MODULE_SUFFIX, true)));
    log.Clear();
    EXPECT_EQ(provider.CreateInstance("b", instance, error), -1);
    int count = 5;
    EXPECT_EQ(provider.GetPluginMapFkeys("b", nullptr, &count), -1);
    EXPECT_EQ(provider.UnregisterPlugin("b"), VESSA_OK);
    EXPECT_TRUE(log.Is({"2 param fkey = b", "5 unexpected, plugin data is invalid, fkey b",
                        "2 param fkey = b", "5 unexpected, plugin data is invalid, fkey b",
                        "3 param fkey = b", "4 unexpected, plugin data is invalid, fkey b"}));
    log.Clear();
    EXPECT_EQ(provider.RegisterPlugin("b", "/p/y" MODULE_SUFFIX, true), VESSA_OK);
    EXPECT_TRUE(log.Is(Registering("b", "/p/y" MODULE_SUFFIX, true) +
                       Registered("b", "/p/y" MODULE_SUFFIX, true)));
    Remove({"a", "b"});
}

TEST_F(PluginProviderTest, KeepsTheFileNameOfAModuleWhoseUninitFails) {
    const std::string path = Module("uninit_fails", "x/u" MODULE_SUFFIX);
    const std::string other = Module("good_v2", "y/u" MODULE_SUFFIX);
    ASSERT_EQ(provider.RegisterPlugin("k", path, false), VESSA_OK);
    const std::string code = Code(VESSA_ERR_MODULE_UNINIT);
    {
        LogCapture log;
        EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
        EXPECT_TRUE(log.Is(Lines{"3 param fkey = k",
                                 "4 uninit plugin failed, error 9/9, plugin folder path " +
                                     Folder(path) + ", plugin filename u" MODULE_SUFFIX,
                                 "3 param dso_handle = {*h}",
                                 "5 unload plugin failed " + code +
                                     ", plugin {*p}, plugin filename u" MODULE_SUFFIX,
                                 "5 unload plugin failed, plugin {*p}, plugin file path " + path,
                                 "5 unload plugin failed " + code + ", fkey k, file path " + path} +
                           Unregistered("k", path, false)));
    }
    LogCapture log;
    EXPECT_EQ(provider.RegisterPlugin("o", other, false), VESSA_OK);
    EXPECT_TRUE(log.Contains("5 load plugin failed " + Code(VESSA_ERR_PLUGIN_CONFLICT) +
                             ", fkey o, file path " + other));
    EXPECT_EQ(Record("o")->state(), DelayLoadPlugin::kConflict);
    EXPECT_EQ(provider.CreateInstance("o", instance, error), VESSA_ERR_PLUGIN_CONFLICT);
    Remove({"o"});

    EXPECT_EQ(provider.RegisterPlugin("k", path, false), VESSA_OK);
    EXPECT_TRUE(log.Contains(
        "plugin filename u" MODULE_SUFFIX ", reference counter 2, plugin path " + path));
    Remove({"k"});
    Forget(path);
}

TEST_F(PluginProviderTest, ReportsAFailedUnloadThatWasPutOffAndIgnoresIt) {
    const std::string path = Module("uninit_fails", "u" MODULE_SUFFIX);
    Declare("k", path);
    ASSERT_EQ(provider.CreateInstance("k", instance, error), VESSA_OK);
    ASSERT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
    LogCapture log;
    EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
    EXPECT_EQ(log.Lines().back(), "5 unload plugin failed, and ignored, error " +
                                      Code(VESSA_ERR_MODULE_UNINIT) + ", fkey k, file path " +
                                      path);
    EXPECT_TRUE(provider.IsEmpty());
    Forget(path);
}

TEST_F(PluginProviderTest, IsEmptyOnlyWithoutRegistrationsAndInstances) {
    EXPECT_TRUE(provider.IsEmpty());
    Declare("k", Module("good_v2", "x" MODULE_SUFFIX));
    EXPECT_FALSE(provider.IsEmpty());
    ASSERT_EQ(provider.CreateInstance("k", instance, error), VESSA_OK);
    ASSERT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
    EXPECT_FALSE(provider.IsEmpty());
    ASSERT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
    EXPECT_TRUE(provider.IsEmpty());
}

}  // namespace
}  // namespace vessa_test
