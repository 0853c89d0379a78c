#include <algorithm>

#include "TestPlatform.h"
#include "unit/PluginWorld.h"

namespace vessa_test {
namespace {

class PluginProviderInstances : public ProviderTest {
  protected:
    void Declare(const std::string& fkey, const std::string& module) {
        path = Module(module, module + MODULE_SUFFIX);
        ASSERT_EQ(provider.RegisterPlugin(fkey, path, true), VESSA_OK);
    }
    // Takes out what counts as live for good.
    void Abandon() {
        for (const auto& entry : PluginProviderAccess::Collection(provider)) entry.second->Unload();
        PluginProviderAccess::Clear(provider);
    }
    std::string File() const { return ", plugin file path " + path; }

    std::string path;
    int error = 77;
    void* instance = nullptr;
    void* iface = nullptr;
};

TEST_F(PluginProviderInstances, RefusesBadArgumentsAndClearsItsResults) {
    int mark = 0;
    LogCapture log;
    instance = &mark;
    EXPECT_EQ(provider.CreateInstance("", instance, error), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(instance, nullptr);
    EXPECT_EQ(error, 0);
    error = 77;
    EXPECT_EQ(provider.DestroyInstance(nullptr, error), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(error, 0);
    error = 77;
    iface = &mark;
    EXPECT_EQ(provider.QueryInterface(nullptr, "i", iface, error), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(iface, nullptr);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(provider.QueryInterface(&mark, "", iface, error), VESSA_ERR_ARGUMENT);
    int count = 5;
    EXPECT_EQ(provider.GetPluginMapFkeys("", nullptr, &count), -1);
    EXPECT_EQ(count, 5);
    EXPECT_TRUE(log.Is({"2 param fkey = ", "5 param fkey should not be empty",
                        "2 param instance = 0000000000000000",
                        "5 param instance should no be TARNET_INVALID_HANDLE",
                        "2 param instance = 0000000000000000, ikey = i",
                        "5 param instance should not be TARNET_INVALID_HANDLE",
                        "2 param instance = {*m}, ikey = ", "5 param ikey should not be empty",
                        "2 param fkey = ", "5 param fkey should not be empty"}));
}

TEST_F(PluginProviderInstances, RefusesWhatItDoesNotKnow) {
    int mark = 0;
    LogCapture log;
    EXPECT_EQ(provider.CreateInstance("k", instance, error), VESSA_ERR_NOT_REGISTERED);
    EXPECT_EQ(provider.DestroyInstance(&mark, error), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(provider.QueryInterface(&mark, "i", iface, error), VESSA_ERR_ARGUMENT);
    int count = 5;
    EXPECT_EQ(provider.GetPluginMapFkeys("k", nullptr, &count), -1);
    EXPECT_EQ(count, 5);
    const std::string unknown = "4 plugin instance collection does not contain the instance, ";
    EXPECT_TRUE(log.Is({"2 param fkey = k", "4 fkey not found in plugin collection, fkey k",
                        "2 param instance = {*m}", unknown + "instance {*m}",
                        "2 param instance = {*m}, ikey = i", unknown + "instance {*m}, ikey i",
                        "2 param fkey = k", "4 fkey not found in plugin collection, fkey k"}));
}

TEST_F(PluginProviderInstances, CreatesFindsAndDestroys) {
    Declare("k", "good_v2");
    LogCapture log;
    ASSERT_EQ(provider.CreateInstance("k", instance, error), VESSA_OK);
    ASSERT_EQ(provider.QueryInterface(instance, TEST_MODULE_IKEY, iface, error), VESSA_OK);
    EXPECT_STREQ(static_cast<test_interface*>(iface)->Fkey(instance), "k");
    ASSERT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
    EXPECT_EQ(error, 0);
    const std::string counted = "instance {*i}, plugin {*p}, instance counter ";
    EXPECT_TRUE(log.Is(
        Lines{"2 param fkey = k"} + RecordLoad(path) +
        Lines{"2 create tarnet instance succeeded, " + counted + "1" + File(),
              "2 create plugin instance succeeded, instance {*i}, fkey k" + File(),
              "2 param instance = {*i}, ikey = iface", "2 param instance = {*i}, ikey = iface",
              "2 query plugin interface succeeded, interface {*f}, instance {*i}, ikey iface, "
              "plugin {*p}" +
                  File(),
              "2 query plugin interface succeeded, instance {*i}, ikey iface, interface {*f}, fkey "
              "k" +
                  File(),
              "2 param instance = {*i}", "2 param instance = {*i}",
              "2 destroy tarnet instance succeeded, " + counted + "0" + File(),
              "2 destroy instance succeeded, instance {*i}, fkey k" + File()}));
    EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
}

TEST_F(PluginProviderInstances, ShowsThePluginsErrorWhereTheTextSaysFkey) {
    Declare("k", "create_fails_writing");
    LogCapture log;
    EXPECT_EQ(provider.CreateInstance("k", instance, error), -1);
    EXPECT_EQ(instance, nullptr);
    EXPECT_EQ(error, TEST_MODULE_ERR_CREATE);
    EXPECT_EQ(
        log.Lines().back(),
        "5 create plugin instance failed -1/FFFFFFFFFFFFFFFF, plugin error 11/B, fkey 11" + File());
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
}

TEST_F(PluginProviderInstances, TakesASuccessWithoutInstanceAndCountsItAsLive) {
    Declare("k", "create_null");
    LogCapture log;
    EXPECT_EQ(provider.CreateInstance("k", instance, error), VESSA_OK);
    EXPECT_EQ(instance, nullptr);
    EXPECT_EQ(log.Lines().back(), "4 unexpected, plugin return invalid instance, fkey k" + File());
    EXPECT_EQ(PluginProviderAccess::Instances(provider).Size(), 0u);
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
    EXPECT_EQ(PluginProviderAccess::Collection(provider).count("k"), 1u);
    Abandon();
}

TEST_F(PluginProviderInstances, KeepsAFailedDestroyOutOfTheTableAndTheModuleLoaded) {
    Declare("k", "destroy_fails");
    ASSERT_EQ(provider.CreateInstance("k", instance, error), VESSA_OK);
    ASSERT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
    LogCapture log;
    EXPECT_EQ(provider.DestroyInstance(instance, error), -1);
    EXPECT_EQ(error, TEST_MODULE_ERR_DESTROY);
    EXPECT_TRUE(
        log.Is({"2 param instance = {*i}", "2 param instance = {*i}",
                "5 destroy plugin instance failed 12/C, plugin {*p}" + File(),
                "5 destroy plugin instance failed -1/FFFFFFFFFFFFFFFF, plugin error 12/C, instance "
                "{*i}"}));
    EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(PluginProviderAccess::Collection(provider).count("k"), 1u);
    Abandon();
}

TEST_F(PluginProviderInstances, ReportsAFailingQuery) {
    Declare("k", "query_fails");
    ASSERT_EQ(provider.CreateInstance("k", instance, error), VESSA_OK);
    LogCapture log;
    EXPECT_EQ(provider.QueryInterface(instance, "i", iface, error), -1);
    EXPECT_EQ(error, TEST_MODULE_ERR_QUERY);
    EXPECT_EQ(iface, nullptr);
    EXPECT_TRUE(LineMatches(log.Lines().back(),
                            "5 query plugin interface failed -1/FFFFFFFFFFFFFFFF, plugin_error "
                            "13/D, instance {*}, ikey i, fkey k" +
                                File()));
    EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
}

TEST_F(PluginProviderInstances, ToleratesEntriesWithoutRecord) {
    Declare("k", "same_instance");
    ASSERT_EQ(provider.CreateInstance("k", instance, error), VESSA_OK);
    InstanceTable& instances = PluginProviderAccess::Instances(provider);
    InstanceTable::Record record = nullptr;
    ASSERT_EQ(instances.Take(instance, false, [&](InstanceTable::Record its) { record = its; }),
              InstanceTable::kTaken);
    ASSERT_TRUE(instances.Insert(instance, nullptr));
    LogCapture log;
    void* same = nullptr;
    EXPECT_EQ(provider.CreateInstance("k", same, error), VESSA_ERR_INSTANCE_CONFLICT);
    EXPECT_TRUE(
        log.Contains("5 plugin instance conflict, and plguin instance collection contains "
                     "invalid plugin ptr, instance "));
    log.Clear();
    EXPECT_EQ(provider.QueryInterface(instance, "i", iface, error), -1);
    EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
    EXPECT_TRUE(log.Is({"2 param instance = {*i}, ikey = i",
                        "4 unexpected, plugin instance collection contains invalid plugin ptr, "
                        "instance {*i}, ikey i",
                        "2 param instance = {*i}",
                        "4 unexpected, plugin instance collection contains invalid plugin ptr, the "
                        "instance is erase, and ignored, instance {*i}"}));
    EXPECT_EQ(instances.Size(), 0u);
    ASSERT_TRUE(instances.Insert(instance, record));
    EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
}

TEST_F(PluginProviderInstances, DestroysAndRefusesAnInstanceThatLivesAlready) {
    Declare("k", "same_instance");
    ASSERT_EQ(provider.CreateInstance("k", instance, error), VESSA_OK);
    ModuleHook hook;
    LogCapture log;
    void* same = nullptr;
    EXPECT_EQ(provider.CreateInstance("k", same, error), VESSA_ERR_INSTANCE_CONFLICT);
    EXPECT_EQ(same, instance);
    EXPECT_EQ(error, 0);
    const std::string counted = "instance {*i}, plugin {*p}, instance counter ";
    EXPECT_TRUE(
        log.Is({"2 param fkey = k", "2 create tarnet instance succeeded, " + counted + "2" + File(),
                "5 plugin instance conflict, instance {*i}, fkey k" + File() +
                    ", conflict plugin fkey k, file path " + path,
                "2 param instance = {*i}",
                "2 destroy tarnet instance succeeded, " + counted + "1" + File()}));
    EXPECT_EQ(hook.Count("same_instance", "DestroyInstance"), 1);
    EXPECT_EQ(provider.QueryInterface(instance, TEST_MODULE_IKEY, iface, error), VESSA_OK);
    EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
}

TEST_F(PluginProviderInstances, NamesTheOtherPluginOfAConflictAndAFailingDestroy) {
    Declare("owner", "good_v2");
    const std::string owner_path = path;
    Declare("k", "same_instance");
    ASSERT_EQ(provider.CreateInstance("owner", instance, error), VESSA_OK);
    ModuleHook hook;
    hook.On("same_instance", "CreateInstance_V2", [&](ModuleCall& call) {
        *call.out = instance;
        call.Return(0);
    });
    hook.On("same_instance", "DestroyInstance", [](ModuleCall& call) { call.Return(12); });
    LogCapture log;
    void* same = nullptr;
    EXPECT_EQ(provider.CreateInstance("k", same, error), VESSA_ERR_INSTANCE_CONFLICT);
    EXPECT_EQ(same, instance);
    EXPECT_EQ(error, 12);
    const Lines lines = log.Lines();
    EXPECT_TRUE(LinesAre(
        Lines(lines.end() - 4, lines.end()),
        {"5 plugin instance conflict, instance {*i}, fkey k" + File() +
             ", conflict plugin fkey owner, file path " + owner_path,
         "2 param instance = {*i}", "5 destroy plugin instance failed 12/C, plugin {*p}" + File(),
         "4 plugin instance conflict, and destroy instance failed -1/FFFFFFFFFFFFFFFF, plugin "
         "error "
         "12/C, instance {*i}, fkey k"}));
    EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("owner"), VESSA_OK);
    EXPECT_EQ(Record("k")->instance_count(), 1);
    Abandon();
}

// The live object of a module that counts its uses must not go while a second use is given back.
TEST_F(PluginProviderInstances, LetsTheModuleCallBackFromTheDestroyOfAConflict) {
    Declare("helper", "good_v2");
    const std::string helper_path = path;
    Declare("k", "same_instance");
    void* helper = nullptr;
    ASSERT_EQ(provider.CreateInstance("k", instance, error), VESSA_OK);
    ASSERT_EQ(provider.CreateInstance("helper", helper, error), VESSA_OK);
    ModuleHook hook;
    hook.On("same_instance", "DestroyInstance", [&](ModuleCall& call) {
        if (call.index > 1) return;
        int own_error = 0;
        void* other = nullptr;
        void* found = nullptr;
        EXPECT_EQ(provider.CreateInstance("helper", other, own_error), VESSA_OK);
        EXPECT_EQ(provider.QueryInterface(other, TEST_MODULE_IKEY, found, own_error), VESSA_OK);
        EXPECT_EQ(provider.DestroyInstance(other, own_error), VESSA_OK);
        EXPECT_EQ(provider.DestroyInstance(helper, own_error), VESSA_OK);
        EXPECT_EQ(provider.DestroyInstance(call.instance, own_error), VESSA_OK);
    });
    void* same = nullptr;
    EXPECT_EQ(provider.CreateInstance("k", same, error), VESSA_ERR_INSTANCE_CONFLICT);
    EXPECT_EQ(same, instance);
    EXPECT_EQ(hook.Count("same_instance", "DestroyInstance"), 2);
    EXPECT_EQ(PluginProviderAccess::Instances(provider).Size(), 0u);
    EXPECT_EQ(provider.UnregisterPlugin("helper"), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
}

TEST_F(PluginProviderInstances, CarriesOutTheUnloadThatADestroyOfAConflictMadeDueAfterTheCreate) {
    Declare("helper", "good_v2");
    const std::string helper_path = path;
    Declare("k", "same_instance");
    void* helper = nullptr;
    ASSERT_EQ(provider.CreateInstance("k", instance, error), VESSA_OK);
    ASSERT_EQ(provider.CreateInstance("helper", helper, error), VESSA_OK);
    ASSERT_EQ(provider.UnregisterPlugin("helper"), VESSA_OK);
    ModuleHook hook;
    hook.On("same_instance", "DestroyInstance", [&](ModuleCall& call) {
        if (call.index > 1) return;
        int own_error = 0;
        EXPECT_EQ(provider.DestroyInstance(helper, own_error), VESSA_OK);
        EXPECT_EQ(hook.Count("good_v2", "Uninit"), 0);
    });
    LogCapture log;
    void* same = nullptr;
    EXPECT_EQ(provider.CreateInstance("k", same, error), VESSA_ERR_INSTANCE_CONFLICT);
    EXPECT_EQ(log.Lines().back(), "3 unload plugin succeeded, fkey helper, file path " +
                                      helper_path + ", delay load true");
    EXPECT_EQ(hook.Count("good_v2", "Unload"), 1);
    EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
}

TEST_F(PluginProviderInstances, DestroysAnInstanceOnceWhenASecondThreadComesDuringTheDestroy) {
    Declare("k", "good_v2");
    Gate inside;
    Gate go_on;
    ModuleHook hook;
    hook.On("good_v2", "DestroyInstance", [&](ModuleCall&) {
        inside.Open();
        go_on.Wait();
    });
    ASSERT_EQ(provider.CreateInstance("k", instance, error), VESSA_OK);
    JoiningThread winner([&] {
        int own_error = 0;
        EXPECT_EQ(provider.DestroyInstance(instance, own_error), VESSA_OK);
    });
    inside.Wait();
    LogCapture log;
    EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_ERR_ARGUMENT);
    EXPECT_TRUE(
        log.Is({"2 param instance = {*i}",
                "4 plugin instance collection does not contain the instance, instance {*i}"}));
    go_on.Open();
    winner.Join();
    EXPECT_EQ(hook.Count("good_v2", "DestroyInstance"), 1);
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
}

TEST_F(PluginProviderInstances, LetsExactlyOneOfTwoDestroysWin) {
    Declare("k", "good_v2");
    constexpr int kRounds = 200;
    Barrier barrier(2);
    int wins[2] = {};
    int losses[2] = {};
    const auto run = [&](int thread) {
        for (int round = 0; round < kRounds; ++round) {
            int own_error = 0;
            if (thread == 0) provider.CreateInstance("k", instance, own_error);
            barrier.ArriveAndWait();
            const int result = provider.DestroyInstance(instance, own_error);
            wins[thread] += result == VESSA_OK;
            losses[thread] += result == VESSA_ERR_ARGUMENT;
            barrier.ArriveAndWait();
        }
    };
    LogCapture quiet(6);
    {
        JoiningThread other([&] { run(1); });
        run(0);
    }
    EXPECT_EQ(wins[0] + wins[1], kRounds);
    EXPECT_EQ(losses[0] + losses[1], kRounds);
    EXPECT_EQ(Record("k")->instance_count(), 0);
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
}

TEST_F(PluginProviderInstances, AsksALoadedModuleForItsFurtherKeys) {
    Declare("k", "map_two");
    int count = 5;
    EXPECT_EQ(provider.GetPluginMapFkeys("k", nullptr, &count), -1);
    EXPECT_EQ(count, 5);
    ASSERT_EQ(provider.RegisterPlugin("k", path, false), VESSA_OK);
    LogCapture log;
    EXPECT_EQ(provider.GetPluginMapFkeys("k", nullptr, &count), 0);
    EXPECT_EQ(count, 2);
    EXPECT_TRUE(log.Is({"2 param fkey = k"}));
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
}

}  // namespace
}  // namespace vessa_test
