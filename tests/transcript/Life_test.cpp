// What a start and a stop write, and one plug-in through its whole life.
#include <gtest/gtest.h>

#include "TestPlatform.h"
#include "transcript/Transcript.h"

namespace {

using namespace transcript;
using vessa_test::Install;
using vessa_test::ListFile;

TEST(Life, AnEmptyRootStartsAndStops) {
    World world;
    const std::string root = world.Root();

    ASSERT_TRUE(world.coordinator.Run());
    EXPECT_TRUE(world.log.Is({
        "3 invode Run func",
        "3 [{*monitor}]param plugin_root = " + root + ", config_filename = tarnet.xml",
        "3 start config monitor succeeded",
        "3 run PluginCoordinator succeeded, plugin root " + root + ", config filename tarnet.xml",
    }));

    world.Scan();
    EXPECT_TRUE(world.log.Is({}));

    ASSERT_TRUE(world.coordinator.Shutdown());
    EXPECT_TRUE(world.log.Is({
        "3 invoke Shutdown func",
        "3 stop config monitor succeeded",
        "3 shutdown PluginCoordinator succeeded, plugin root " + root +
            ", config filename tarnet.xml",
    }));
}

TEST(Life, TheMonitorsAddressStandsInSixteenDigits) {
    World world;
    ASSERT_TRUE(world.coordinator.Run());
    const std::string line = world.log.Lines().at(1);
    ASSERT_EQ(line.substr(0, 3), "3 [");
    EXPECT_EQ(line.find(']'), 3u + 16u) << line;
    EXPECT_EQ(line.find_first_not_of("0123456789ABCDEF", 3), 3u + 16u) << line;
}

TEST(Life, AMissingRootIsReportedWithEveryScanAndFailsNothing) {
    World world;
    const std::string root = world.Root() + "/tarnet";
    const Lines failed_scan = {"5 tova open dir failed {*}/{*}, folder path " + root,
                               "5 find config file recursive failed"};
    world.coordinator.SetPluginRoot(root);

    ASSERT_TRUE(world.coordinator.Run());
    EXPECT_TRUE(world.log.Is(Starts(root, failed_scan)));

    world.Scan();
    EXPECT_TRUE(world.log.Is(failed_scan));

    world.log.Clear();
    ASSERT_TRUE(world.coordinator.Shutdown());
    EXPECT_TRUE(world.log.Is(Stops(root, {})));
}

TEST(Life, SettingsThatAreMissingAreRefused) {
    World world;
    world.coordinator.SetPluginRoot("");
    EXPECT_FALSE(world.coordinator.Run());
    EXPECT_TRUE(world.log.Is({"3 invode Run func", "5 plugin_root_ should not be empty"}));

    world.log.Clear();
    world.coordinator.SetPluginRoot(world.Root());
    world.coordinator.SetConfigFilename("");
    EXPECT_FALSE(world.coordinator.Run());
    EXPECT_TRUE(world.log.Is({"3 invode Run func", "5 config_filename_ should not be empty"}));
    EXPECT_FALSE(world.coordinator.IsRunning());
}

TEST(Life, ASecondStartAndASecondStopDoNothing) {
    World world;
    world.Start();
    EXPECT_TRUE(world.coordinator.Run());
    EXPECT_TRUE(world.log.Is({"3 invode Run func", "4 already run"}));

    ASSERT_TRUE(world.coordinator.Shutdown());
    world.log.Clear();
    EXPECT_TRUE(world.coordinator.Shutdown());
    EXPECT_TRUE(world.log.Is({"3 invoke Shutdown func", "4 already shutdown"}));
}

// Every line as it stands, without the shared sequences: what these are checked against.
TEST(Life, OnePluginFromTheStartToTheStop) {
    World world;
    const std::string root = world.Root();
    const std::string module = Install(world.dir, "good_v2", "codec" MODULE_SUFFIX);
    const std::string text = ListFile().Plugin("codec", "./codec" MODULE_SUFFIX).Text();
    const std::string list = world.dir.Write("tarnet.xml", text);

    ASSERT_TRUE(world.coordinator.Run());
    void* const instance = world.Create("codec");
    void* found = nullptr;
    int plugin_error = -1;
    EXPECT_EQ(world.provider().QueryInterface(instance, "iface", found, plugin_error), 0);
    EXPECT_EQ(world.Destroy(instance), 0);
    ASSERT_TRUE(world.coordinator.Shutdown());

    EXPECT_TRUE(world.log.Is({
        "3 invode Run func",
        "3 [{*monitor}]param plugin_root = " + root + ", config_filename = tarnet.xml",
        "1 config file changed begin",
        "2 param config_file_path = " + list,
        "3 param file_path = " + list,
        "2 file path " + list + ", config " + text,
        "2 param xml = " + text,
        "1 Absolute_path=" + module + ", current_path=" + root + "/",
        "2 read plugin list succeeded",
        "3 param fkey codec, file_path " + module + ", delay_load false",
        "3 param file_path = " + module,
        "3 param file_path = " + module,
        "3 filename_ = codec" MODULE_SUFFIX ", folder_path_ = " + root + ", file_path_ = " + module,
        "3 param filename = codec" MODULE_SUFFIX ", folder_path = " + root,
        "3 plugin file path " + module,
        "3 load plugin rlt 0/0, plugin dso handle {*dso}",
        "3 param plugin_handle = {*dso}",
        "3 tarnet_handle {*dso},Init {*1}, Unint {*2}, CreateInstance 0, CreateInstance_V2 "
        "{*3},DestroyInstance {*4}, QueryInterface {*5}, GetAllInterfaceIkeys {*6}, "
        "GetFileVersion {*7},",
        "3 load plugin succeeded, plugin handle {*dso}, plugin folder " + root +
            ", plugin filename codec" MODULE_SUFFIX
            ", plugin file version 1.2.3 test, interface ikeys [iface]",
        "3 load plugin succeeded, plugin filename codec" MODULE_SUFFIX
        ", reference counter 1, plugin path " +
            module,
        "3 load plugin succeeded, plugin {*plugin}, plugin file path " + module,
        "3 register plugin succeeded, fkey codec, file path " + module + ", delay load false",
        "3 register plugin succeeded, fkey codec, file path " + module +
            ", delay load false, config file path " + list,
        "1 config file changed end",
        "3 start config monitor succeeded",
        "3 run PluginCoordinator succeeded, plugin root " + root + ", config filename tarnet.xml",
        "2 param fkey = codec",
        "2 create tarnet instance succeeded, instance {*instance}, plugin {*plugin}, instance "
        "counter 1, plugin file path " +
            module,
        "2 create plugin instance succeeded, instance {*instance}, fkey codec, plugin file path " +
            module,
        "2 param instance = {*instance}, ikey = iface",
        "2 param instance = {*instance}, ikey = iface",
        "2 query plugin interface succeeded, interface {*iface}, instance {*instance}, ikey "
        "iface, plugin {*plugin}, plugin file path " +
            module,
        "2 query plugin interface succeeded, instance {*instance}, ikey iface, interface "
        "{*iface}, fkey codec, plugin file path " +
            module,
        "2 param instance = {*instance}",
        "2 param instance = {*instance}",
        "2 destroy tarnet instance succeeded, instance {*instance}, plugin {*plugin}, instance "
        "counter 0, plugin file path " +
            module,
        "2 destroy instance succeeded, instance {*instance}, fkey codec, plugin file path " +
            module,
        "3 invoke Shutdown func",
        "3 stop config monitor succeeded",
        "3 param fkey = codec",
        "3 param dso_handle = {*dso}",
        "3 unload plugin succeeded, plugin {*plugin}, plugin reference 0, plugin filename "
        "codec" MODULE_SUFFIX ", plugin file path " +
            module,
        "3 unload plugin succeeded, plugin {*plugin}, plugin file path " + module,
        "3 unregister plugin succeeded, fkey codec, file path " + module + ", delay load false",
        "3 unregister plugin succeeded, fkey codec, file path " + module + ", delay load false",
        "3 shutdown PluginCoordinator succeeded, plugin root " + root +
            ", config filename tarnet.xml",
    }));
}

TEST(Life, ADelayLoadedPluginIsLoadedByItsFirstInstance) {
    World world;
    const std::string module = Install(world.dir, "good_v2", "codec" MODULE_SUFFIX);
    const std::string text =
        ListFile().Plugin("codec", "./codec" MODULE_SUFFIX, {{"delayload", "true"}}).Text();
    const Declared codec{"codec", module, world.dir.Write("tarnet.xml", text), true};

    ASSERT_TRUE(world.coordinator.Run());
    EXPECT_TRUE(world.log.Is(Starts(
        world.Root(), Round(ListIsRead(codec.list, text, {module}) + IsRegistered(codec, {})))));

    world.log.Clear();
    void* const first = world.Create("codec");
    EXPECT_EQ(world.Destroy(first), 0);
    ASSERT_TRUE(world.coordinator.Shutdown());
    EXPECT_TRUE(world.log.Is(
        InstanceIsCreated(codec, 1, ModuleIsLoaded(module)) + InstanceIsDestroyed(codec, 0) +
        Stops(world.Root(), IsUnregisteredAtStop(codec, ModuleIsUnloaded(module)))));
}

TEST(Life, ADelayLoadedPluginThatNobodyUsedIsNeverLoaded) {
    World world;
    const std::string module = Install(world.dir, "good_v2", "codec" MODULE_SUFFIX);
    const Declared codec{
        "codec", module,
        world.dir.Write(
            "tarnet.xml",
            ListFile().Plugin("codec", "./codec" MODULE_SUFFIX, {{"delayload", "true"}}).Text()),
        true};
    world.Start();
    ASSERT_TRUE(world.coordinator.Shutdown());
    EXPECT_TRUE(world.log.Is(Stops(world.Root(), IsUnregisteredAtStop(codec, {}))));
}

TEST(Life, AStartAfterAStopReportsEveryFileAgain) {
    World world;
    const std::string module = Install(world.dir, "good_v2", "codec" MODULE_SUFFIX);
    const std::string text = ListFile().Plugin("codec", "./codec" MODULE_SUFFIX).Text();
    const Declared codec{"codec", module, world.dir.Write("tarnet.xml", text)};
    world.Start();
    ASSERT_TRUE(world.coordinator.Shutdown());
    world.log.Clear();

    ASSERT_TRUE(world.coordinator.Run());
    EXPECT_TRUE(
        world.log.Is(Starts(world.Root(), Round(ListIsRead(codec.list, text, {module}) +
                                                IsRegistered(codec, ModuleIsLoaded(module))))));
}

TEST(Life, ListsAreReadInScanOrderAndPluginsRegisteredInTheOrderOfTheirKeys) {
    World world;
    const std::string module = Install(world.dir, "good_v2", "m/codec" MODULE_SUFFIX);
    const std::string inner_text = ListFile().Plugin("a", module, {{"delayload", "true"}}).Text();
    const std::string outer_text = ListFile()
                                       .Plugin("ab", module, {{"delayload", "true"}})
                                       .Plugin("a1", module, {{"delayload", "true"}})
                                       .Plugin("aB", module, {{"delayload", "true"}})
                                       .Text();
    const std::string inner = world.dir.Write("inner/tarnet.xml", inner_text);
    const std::string outer = world.dir.Write("tarnet.xml", outer_text);
    const auto warning = [&](const std::string& fkey, const std::string& registered) {
        return "4 the same plugin file path, different plugin filenames, fkey " + fkey +
               ", registered fkey " + registered + ", plugin file path " + module;
    };

    ASSERT_TRUE(world.coordinator.Run());
    EXPECT_TRUE(world.log.Is(Starts(
        world.Root(),
        Round(ListIsRead(outer, outer_text) + ListIsRead(inner, inner_text) +
              IsRegistered({"a1", module, outer, true}, {}) +
              IsRegistered({"aB", module, outer, true}, {warning("aB", "a1")}) +
              IsRegistered({"a", module, inner, true}, {warning("a", "a1"), warning("a", "aB")}) +
              IsRegistered({"ab", module, outer, true},
                           {warning("ab", "a"), warning("ab", "a1"), warning("ab", "aB")})))));

    world.log.Clear();
    ASSERT_TRUE(world.coordinator.Shutdown());
    EXPECT_TRUE(world.log.Is(
        Stops(world.Root(), IsUnregisteredAtStop({"a1", module, outer, true}, {}) +
                                IsUnregisteredAtStop({"aB", module, outer, true}, {}) +
                                IsUnregisteredAtStop({"a", module, inner, true}, {}) +
                                IsUnregisteredAtStop({"ab", module, outer, true}, {}))));
}

}  // namespace
