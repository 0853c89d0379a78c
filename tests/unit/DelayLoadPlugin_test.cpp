#include "vessa2/DelayLoadPlugin.h"

#include "TestPlatform.h"
#include "unit/PluginWorld.h"

namespace vessa_test {
namespace {

class DelayLoadPluginTest : public PluginTest {
  protected:
    static std::string Instance(const std::string& what, const std::string& path, int counter) {
        return "2 " + what + " tarnet instance succeeded, instance {*i}, plugin {*p}, " +
               "instance counter " + std::to_string(counter) + ", plugin file path " + path;
    }
    static Lines LoadFailed(const std::string& path, int code) {
        return {"5 load plugin failed " + Code(code) + ", plugin file path " + path};
    }

    int error = 77;
    void* instance = nullptr;
};

TEST_F(DelayLoadPluginTest, IsMadeUnloadedWithoutInstances) {
    const DelayLoadPlugin record("k", "/x/a" MODULE_SUFFIX, true);
    EXPECT_EQ(record.fkey(), "k");
    EXPECT_EQ(record.file_path(), "/x/a" MODULE_SUFFIX);
    EXPECT_TRUE(record.delay_load());
    EXPECT_EQ(record.state(), DelayLoadPlugin::kNotLoaded);
    EXPECT_EQ(record.instance_count(), 0);
}

TEST_F(DelayLoadPluginTest, LoadsWithTheFirstInstanceAndNotBefore) {
    const std::string path = Module("good_v2", "a" MODULE_SUFFIX);
    ModuleHook hook;
    DelayLoadPlugin record("k", path, true);
    EXPECT_TRUE(hook.Journal().empty());
    LogCapture log;
    ASSERT_EQ(record.CreateInstance("k", instance, error), VESSA_OK);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(record.state(), DelayLoadPlugin::kLoaded);
    void* second = nullptr;
    ASSERT_EQ(record.CreateInstance("other", second, error), VESSA_OK);
    EXPECT_EQ(record.instance_count(), 2);
    ASSERT_EQ(record.DestroyInstance(second, error), VESSA_OK);
    EXPECT_EQ(record.instance_count(), 1);
    ASSERT_EQ(record.DestroyInstance(instance, error), VESSA_OK);
    EXPECT_TRUE(log.Is(
        RecordLoad(path) +
        Lines{
            "2 create tarnet instance succeeded, instance {*i}, plugin {*p}, instance counter 1, "
            "plugin file path " +
                path,
            "2 create tarnet instance succeeded, instance {*j}, plugin {*p}, instance counter 2, "
            "plugin file path " +
                path,
            "2 param instance = {*j}",
            "2 destroy tarnet instance succeeded, instance {*j}, plugin {*p}, instance counter 1, "
            "plugin file path " +
                path,
            "2 param instance = {*i}",
            "2 destroy tarnet instance succeeded, instance {*i}, plugin {*p}, instance counter 0, "
            "plugin file path " +
                path}));
    EXPECT_EQ(hook.Count("a", "Init"), 1);
    EXPECT_EQ(record.Unload(), VESSA_OK);
}

TEST_F(DelayLoadPluginTest, LoadsOnceAndUnloadsOnce) {
    const std::string path = Module("good_v2", "a" MODULE_SUFFIX);
    DelayLoadPlugin record("k", path, false);
    LogCapture log;
    EXPECT_EQ(record.LoadPlugin(), VESSA_OK);
    EXPECT_EQ(record.LoadPlugin(), VESSA_OK);
    EXPECT_EQ(record.UnloadPlugin(), VESSA_OK);
    EXPECT_EQ(record.UnloadPlugin(), VESSA_OK);
    EXPECT_TRUE(log.Is(RecordLoad(path) + RecordUnload(path)));
    EXPECT_EQ(record.state(), DelayLoadPlugin::kNotLoaded);
}

TEST_F(DelayLoadPluginTest, SaysNothingWhenWhatWasNeverLoadedIsUnloaded) {
    DelayLoadPlugin record("k", "/x/a" MODULE_SUFFIX, true);
    LogCapture log;
    EXPECT_EQ(record.UnloadPlugin(), VESSA_OK);
    EXPECT_EQ(record.Unload(), VESSA_OK);
    EXPECT_TRUE(log.Is({}));
}

TEST_F(DelayLoadPluginTest, TriesAConflictAgainWithEachInstance) {
    const std::string path = Module("good_v2", "x/a" MODULE_SUFFIX);
    const std::string other = Module("good_v2", "y/a" MODULE_SUFFIX);
    DelayLoadPlugin first("k", path, true);
    DelayLoadPlugin second("l", other, true);
    ASSERT_EQ(first.LoadPlugin(), VESSA_OK);
    for (int round = 1; round <= 2; ++round) {
        LogCapture log;
        int mark = 0;
        instance = &mark;
        EXPECT_EQ(second.CreateInstance("l", instance, error), VESSA_ERR_PLUGIN_CONFLICT);
        EXPECT_EQ(instance, nullptr);
        EXPECT_EQ(error, 0);
        EXPECT_EQ(second.state(), DelayLoadPlugin::kConflict);
        EXPECT_TRUE(log.Is(Lines{"3 param file_path = " + other,
                                 "5 plugin conflict, plugin file path " + other +
                                     ", loaded plugin file path " + path,
                                 "5 load plugin failed, conflict, plugin file path " + other} +
                           LoadFailed(other, VESSA_ERR_PLUGIN_CONFLICT)));
    }
    ASSERT_EQ(first.Unload(), VESSA_OK);
    ASSERT_EQ(second.CreateInstance("l", instance, error), VESSA_OK);
    EXPECT_EQ(second.state(), DelayLoadPlugin::kLoaded);
    EXPECT_EQ(second.DestroyInstance(instance, error), VESSA_OK);
    EXPECT_EQ(second.Unload(), VESSA_OK);
}

TEST_F(DelayLoadPluginTest, ReportsAFailedLoadWithItsCode) {
    const std::string path = Module("init_fails", "a" MODULE_SUFFIX);
    DelayLoadPlugin record("k", path, true);
    LogCapture log;
    EXPECT_EQ(record.CreateInstance("k", instance, error), VESSA_ERR_MODULE_INIT);
    EXPECT_EQ(record.state(), DelayLoadPlugin::kNotLoaded);
    EXPECT_EQ(error, 0);
    const Lines lines = log.Lines();
    const Lines last(lines.end() - 3, lines.end());
    EXPECT_TRUE(LinesAre(last, LoadFailed(path, VESSA_ERR_MODULE_INIT) +
                                   LoadFailed(path, VESSA_ERR_MODULE_INIT) +
                                   LoadFailed(path, VESSA_ERR_MODULE_INIT)));
}

TEST_F(DelayLoadPluginTest, UnloadsUnderLiveInstancesWithAWarning) {
    const std::string path = Module("good_v2", "a" MODULE_SUFFIX);
    DelayLoadPlugin record("k", path, true);
    void* second = nullptr;
    ASSERT_EQ(record.CreateInstance("k", instance, error), VESSA_OK);
    ASSERT_EQ(record.CreateInstance("k", second, error), VESSA_OK);
    LogCapture log;
    EXPECT_EQ(record.Unload(), VESSA_OK);
    EXPECT_EQ(record.DestroyInstance(second, error), -1);
    EXPECT_EQ(error, 0);
    void* iface = &error;
    EXPECT_EQ(record.QueryInterface(second, "i", iface, error), -1);
    EXPECT_EQ(iface, nullptr);
    EXPECT_EQ(record.GetPluginMapFkeys(nullptr, &error), -1);
    const std::string missing =
        "5 unexpected, plugin_ should not be NULL, plugin file path " + path;
    EXPECT_TRUE(log.Is(
        Lines{
            "4 some plugin instance not destroyed before unload plugin, plugin instance number 2"} +
        RecordUnload(path) +
        Lines{"2 param instance = {*j}", missing, "2 param instance = {*j}, ikey = i", missing,
              missing}));
    EXPECT_EQ(record.instance_count(), 2);
    std::free(instance);
    std::free(second);
}

TEST_F(DelayLoadPluginTest, ClearsWhatAFailingModuleWrote) {
    DelayLoadPlugin writes("k", Module("create_fails_writing", "create" MODULE_SUFFIX), true);
    LogCapture log;
    EXPECT_EQ(writes.CreateInstance("k", instance, error), -1);
    EXPECT_EQ(instance, nullptr);
    EXPECT_EQ(error, TEST_MODULE_ERR_CREATE);
    EXPECT_TRUE(LineMatches(log.Lines().back(),
                            "5 create plugin instance failed 11/B, plugin {*}, plugin file path " +
                                dir.Path("create" MODULE_SUFFIX)));
    EXPECT_EQ(writes.instance_count(), 0);
    EXPECT_EQ(writes.Unload(), VESSA_OK);

    DelayLoadPlugin queries("k", Module("query_fails", "query" MODULE_SUFFIX), true);
    ASSERT_EQ(queries.CreateInstance("k", instance, error), VESSA_OK);
    void* iface = &error;
    EXPECT_EQ(queries.QueryInterface(instance, "i", iface, error), -1);
    EXPECT_EQ(iface, nullptr);
    EXPECT_EQ(error, TEST_MODULE_ERR_QUERY);
    EXPECT_TRUE(
        LineMatches(log.Lines().back(),
                    "5 query plugin interface failed 13/D, instance {*}, ikey i, plugin {*}, "
                    "plugin file path " +
                        dir.Path("query" MODULE_SUFFIX)));
    EXPECT_EQ(queries.DestroyInstance(instance, error), VESSA_OK);
    EXPECT_EQ(queries.Unload(), VESSA_OK);
}

TEST_F(DelayLoadPluginTest, FindsAnInterface) {
    const std::string path = Module("good_v2", "a" MODULE_SUFFIX);
    DelayLoadPlugin record("k", path, true);
    ASSERT_EQ(record.CreateInstance("k", instance, error), VESSA_OK);
    LogCapture log;
    void* iface = nullptr;
    ASSERT_EQ(record.QueryInterface(instance, TEST_MODULE_IKEY, iface, error), VESSA_OK);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(static_cast<test_interface*>(iface)->instance, instance);
    EXPECT_TRUE(log.Is({"2 param instance = {*i}, ikey = iface",
                        "2 query plugin interface succeeded, interface {*f}, instance {*i}, ikey "
                        "iface, plugin {*p}, plugin file path " +
                            path}));
    EXPECT_EQ(record.DestroyInstance(instance, error), VESSA_OK);
    EXPECT_EQ(record.Unload(), VESSA_OK);
}

TEST_F(DelayLoadPluginTest, CountsAFailedDestroyAsLive) {
    const std::string path = Module("destroy_fails", "a" MODULE_SUFFIX);
    DelayLoadPlugin record("k", path, true);
    ASSERT_EQ(record.CreateInstance("k", instance, error), VESSA_OK);
    LogCapture log;
    EXPECT_EQ(record.DestroyInstance(instance, error), -1);
    EXPECT_EQ(error, TEST_MODULE_ERR_DESTROY);
    EXPECT_EQ(record.instance_count(), 1);
    EXPECT_TRUE(
        log.Is({"2 param instance = {*i}",
                "5 destroy plugin instance failed 12/C, plugin {*p}, plugin file path " + path}));
    EXPECT_EQ(record.Unload(), VESSA_OK);
}

TEST_F(DelayLoadPluginTest, CountsASuccessWithoutInstance) {
    DelayLoadPlugin record("k", Module("create_null", "a" MODULE_SUFFIX), true);
    EXPECT_EQ(record.CreateInstance("k", instance, error), VESSA_OK);
    EXPECT_EQ(instance, nullptr);
    EXPECT_EQ(record.instance_count(), 1);
    EXPECT_EQ(record.Unload(), VESSA_OK);
}

TEST_F(DelayLoadPluginTest, DoesNotLoadForTheMapQuestion) {
    const std::string path = Module("map_two", "a" MODULE_SUFFIX);
    DelayLoadPlugin record("k", path, true);
    LogCapture log;
    int count = 5;
    EXPECT_EQ(record.GetPluginMapFkeys(nullptr, &count), -1);
    EXPECT_EQ(count, 5);
    EXPECT_TRUE(log.Is({"5 unexpected, plugin_ should not be NULL, plugin file path " + path}));
    ASSERT_EQ(record.LoadPlugin(), VESSA_OK);
    EXPECT_EQ(record.GetPluginMapFkeys(nullptr, &count), 0);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(record.Unload(), VESSA_OK);
}

TEST_F(DelayLoadPluginTest, StaysLoadedAfterAFailingUninitAndUnloadsWithTheNext) {
    const std::string path = Module("uninit_fails", "a" MODULE_SUFFIX);
    DelayLoadPlugin record("k", path, true);
    ASSERT_EQ(record.LoadPlugin(), VESSA_OK);
    LogCapture log;
    EXPECT_EQ(record.Unload(), VESSA_ERR_MODULE_UNINIT);
    EXPECT_EQ(record.state(), DelayLoadPlugin::kLoaded);
    EXPECT_TRUE(LineMatches(log.Lines().back(),
                            "5 unload plugin failed, plugin {*}, plugin file path " + path));
    EXPECT_EQ(record.CreateInstance("k", instance, error), -1);
    EXPECT_EQ(error, -1);
    EXPECT_TRUE(log.Contains("5 plugin ops CreateInstance should not be NULL"));
    log.Clear();
    EXPECT_EQ(record.Unload(), VESSA_OK);
    EXPECT_TRUE(log.Is(Lines{"4 plugin already unloaded"} + LoaderUnloaded(path, 0) +
                       RecordUnloaded(path)));
    EXPECT_EQ(record.state(), DelayLoadPlugin::kNotLoaded);
}

TEST_F(DelayLoadPluginTest, LoadsOnceForManyThreads) {
    DelayLoadPlugin record("k", Module("good_v2", "a" MODULE_SUFFIX), true);
    constexpr int kThreads = 4;
    Barrier start(kThreads);
    int results[kThreads] = {};
    void* instances[kThreads] = {};
    {
        std::vector<std::unique_ptr<JoiningThread>> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.push_back(std::make_unique<JoiningThread>([&, i] {
                start.ArriveAndWait();
                int own_error = 0;
                results[i] = record.CreateInstance("k", instances[i], own_error);
            }));
        }
    }
    EXPECT_EQ(record.instance_count(), kThreads);
    for (int i = 0; i < kThreads; ++i) {
        EXPECT_EQ(results[i], 0);
        EXPECT_EQ(record.DestroyInstance(instances[i], error), VESSA_OK);
    }
    EXPECT_EQ(
        PluginLoaderAccess::Collection(loader).at("a" MODULE_SUFFIX)->reference_counter().Get(), 1);
    EXPECT_EQ(record.Unload(), VESSA_OK);
}

}  // namespace
}  // namespace vessa_test
