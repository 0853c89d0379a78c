// Starts and stops from outside of plug-in calls, on one thread.
#include <new>
#include <string>
#include <vector>

#include "TestPlatform.h"
#include "support/ModuleHook.h"
#include "support/Runtime.h"
#include "unit/LifeCycleWorld.h"
#include "unit/LoggedCode.h"

namespace vessa_test {
namespace {

using Lines = std::vector<std::string>;

Lines StartLines(const std::string& root) {
    return {
        "3 invoke vessa init",
        "3 invode Run func",
        "3 [{*monitor}]param plugin_root = " + root + ", config_filename = tarnet.xml",
        "3 start config monitor succeeded",
        "3 run PluginCoordinator succeeded, plugin root " + root + ", config filename tarnet.xml",
        "3 init vessa succeeded"};
}

Lines StopLines(const std::string& root) {
    return {"3 invoke vessa uninit", "3 invoke Shutdown func", "3 stop config monitor succeeded",
            "3 shutdown PluginCoordinator succeeded, plugin root " + root +
                ", config filename tarnet.xml",
            "3 uninit vessa succeeded"};
}

TEST_F(LifeCycleTest, StartsAndStopsOnAnEmptyRoot) {
    World world;
    const std::string root = world.dir.Path("tarnet");
    Runtime runtime;
    LogCapture log;
    ASSERT_EQ(VESSA_Init(), VESSA_OK);
    EXPECT_TRUE(log.Is(StartLines(root)));
    log.Clear();
    VESSA_Uninit();
    EXPECT_TRUE(log.Is(StopLines(root)));
    EXPECT_EQ(runtime.Calls(Tova::Init), 1);
    EXPECT_EQ(runtime.Calls(Tova::Fini), 1);
}

TEST_F(LifeCycleTest, CountsItsUsersAndWorksForTheFirstAndTheLastAlone) {
    World world;
    const std::string root = world.dir.Path("tarnet");
    Runtime runtime;
    LogCapture log;
    ASSERT_EQ(VESSA_Init(), VESSA_OK);
    log.Clear();
    EXPECT_EQ(VESSA_Init(), VESSA_OK);
    EXPECT_EQ(VESSA_Init(), VESSA_OK);
    EXPECT_TRUE(log.Is({"3 invoke vessa init", "3 vessa already init, init counter value 2",
                        "3 invoke vessa init", "3 vessa already init, init counter value 3"}));
    log.Clear();
    VESSA_Uninit();
    VESSA_Uninit();
    EXPECT_TRUE(
        log.Is({"3 invoke vessa uninit", "3 need not uninit vessa yet, init counter value 2",
                "3 invoke vessa uninit", "3 need not uninit vessa yet, init counter value 1"}));
    log.Clear();
    VESSA_Uninit();
    EXPECT_TRUE(log.Is(StopLines(root)));
    // Every start is announced to the runtime, and the last stop alone.
    EXPECT_EQ(runtime.Calls(Tova::Init), 3);
    EXPECT_EQ(runtime.Calls(Tova::Fini), 1);
    EXPECT_EQ(runtime.Calls(Tova::Thread_Create), 1);
}

TEST_F(LifeCycleTest, CannotBeMadeWithoutAnyOneOfItsLocks) {
    const auto before = Runtime::Census();
    for (long nth = 1;; ++nth) {
        bool is_made = false;
        {
            Runtime runtime;
            runtime.FailCall(Tova::MutexCreate, nth);
            try {
                const LifeCycle other;
                is_made = true;
            } catch (const std::bad_alloc&) {
                EXPECT_EQ(runtime.Failed(Tova::MutexCreate), 1);
            }
        }
        EXPECT_EQ(Runtime::Census(), before) << nth;
        if (!is_made) continue;
        EXPECT_GT(nth, 5);
        break;
    }
}

TEST_F(LifeCycleTest, IsNotQuietWhileItStartsOrHasAUserOrRuns) {
    World world;
    ModuleHook hook;
    world.Add("m");
    bool is_quiet = true;
    hook.On("m", "Init", [&](ModuleCall&) { is_quiet = LifeCycle::Get()->IsQuiet(); });
    ASSERT_EQ(VESSA_Init(), VESSA_OK);
    EXPECT_FALSE(is_quiet);
    EXPECT_FALSE(LifeCycle::Get()->IsQuiet());
    // The stop is put off to the end of the call: nobody is a user any more.
    hook.On("m", "DestroyInstance", [&](ModuleCall&) {
        VESSA_Uninit();
        is_quiet = LifeCycle::Get()->IsQuiet();
    });
    is_quiet = true;
    Destroy(Create("m"));
    EXPECT_FALSE(is_quiet);
}

TEST_F(LifeCycleTest, IgnoresAStopThatNobodyStarted) {
    World world;
    Runtime runtime;
    LogCapture log;
    VESSA_Uninit();
    EXPECT_TRUE(log.Is({"3 invoke vessa uninit", "4 vessa not init yet"}));
    ASSERT_EQ(VESSA_Init(), VESSA_OK);
    VESSA_Uninit();
    log.Clear();
    VESSA_Uninit();
    EXPECT_TRUE(log.Is({"3 invoke vessa uninit", "4 vessa not init yet"}));
    EXPECT_EQ(runtime.Calls(Tova::Fini), 1);
}

TEST_F(LifeCycleTest, StartsAndStopsAgainAndAgainWithoutLeavingAnythingBehind) {
    World world;
    world.Add("a");
    ASSERT_EQ(VESSA_Init(), VESSA_OK);
    VESSA_Uninit();
    const RuntimeCensus before = Runtime::Census();
    for (int round = 0; round < 20; ++round) {
        ASSERT_EQ(VESSA_Init(), VESSA_OK);
        Destroy(Create("a"));
        VESSA_Uninit();
    }
    const RuntimeCensus after = Runtime::Census();
    EXPECT_EQ(after.threads, before.threads);
    EXPECT_EQ(after.modules, before.modules);
    EXPECT_EQ(after.folders, before.folders);
    EXPECT_EQ(after.mutexes, before.mutexes);
    EXPECT_LE(after.semaphores, before.semaphores);
}

TEST_F(LifeCycleTest, LooksForTheRootInTheTopFolderWhenItsOwnFolderIsUnknown) {
    World world;
    OwnFolder().clear();
    Runtime runtime;
    runtime.FailFrom(Tova::OpenDir, 1, 2);
    LogCapture log;
    ASSERT_EQ(VESSA_Init(), VESSA_OK);
    EXPECT_TRUE(log.Is({"3 invoke vessa init", "3 invode Run func",
                        "3 [{*}]param plugin_root = /tarnet, config_filename = tarnet.xml",
                        "5 tova open dir failed 2/2, folder path /tarnet",
                        "5 find config file recursive failed", "3 start config monitor succeeded",
                        "3 run PluginCoordinator succeeded, plugin root /tarnet, config filename "
                        "tarnet.xml",
                        "3 init vessa succeeded"}));
    VESSA_Uninit();
}

TEST_F(LifeCycleTest, StartsWithoutARoot) {
    World world;
    world.dir.Remove("tarnet");
    LogCapture log;
    EXPECT_EQ(VESSA_Init(), VESSA_OK);
    EXPECT_TRUE(log.Contains("5 tova open dir failed " + Code(kErrorNotFound) + ", folder path " +
                             world.dir.Path("tarnet")));
    EXPECT_TRUE(log.Contains("3 init vessa succeeded"));
    VESSA_Uninit();
}

TEST_F(LifeCycleTest, FailsWhenTheSystemRefusesTheThreadAndSucceedsLater) {
    World world;
    const std::string root = world.dir.Path("tarnet");
    Runtime runtime;
    runtime.FailCall(Tova::Thread_Create, 1, kErrorNoResources);
    LogCapture log;
    EXPECT_EQ(VESSA_Init(), VESSA_FAILED);
    EXPECT_TRUE(log.Is(
        {"3 invoke vessa init", "3 invode Run func",
         "3 [{*monitor}]param plugin_root = " + root + ", config_filename = tarnet.xml",
         "5 [{*monitor}]SetTimer failed, system error {*}",
         "5 start config monitor failed, plugin root " + root + ", config filename tarnet.xml",
         "5 run plugin coordinator failed"}));
    EXPECT_EQ(runtime.Calls(Tova::Init), 1);
    EXPECT_EQ(runtime.Calls(Tova::Fini), 1);
    log.Clear();
    // Nothing was counted.
    VESSA_Uninit();
    EXPECT_TRUE(log.Is({"3 invoke vessa uninit", "4 vessa not init yet"}));
    log.Clear();
    EXPECT_EQ(VESSA_Init(), VESSA_OK);
    EXPECT_TRUE(log.Is(StartLines(root)));
    VESSA_Uninit();
}

TEST_F(LifeCycleTest, KeepsWhatAFailedStartRegisteredAndReportsItNoSecondTime) {
    World world;
    world.Add("a");
    Runtime runtime;
    ModuleHook hook;
    runtime.FailCall(Tova::Thread_Create);
    LogCapture log;
    EXPECT_EQ(VESSA_Init(), VESSA_FAILED);
    EXPECT_EQ(hook.Count("a", "Init"), 1);
    Destroy(Create("a"));
    log.Clear();
    EXPECT_EQ(VESSA_Init(), VESSA_OK);
    EXPECT_EQ(log.Count("config file changed begin"), 0);
    EXPECT_EQ(hook.Count("a", "Init"), 1);
    VESSA_Uninit();
    EXPECT_EQ(hook.Count("a", "Uninit"), 1);
}

TEST_F(LifeCycleTest, KeepsAPluginWithLiveInstancesUntilTheLastOneGoes) {
    World world;
    world.Add("a");
    ModuleHook hook;
    ASSERT_EQ(VESSA_Init(), VESSA_OK);
    void* const instance = Create("a");
    LogCapture log(3);
    VESSA_Uninit();
    EXPECT_TRUE(
        log.Contains("4 unexpected, some plugin not destroyed, unload pluin later, fkey a"));
    EXPECT_EQ(hook.Count("a", "Uninit"), 0);
    void* found = nullptr;
    EXPECT_EQ(VESSA_QueryInterface(instance, "iface", &found, nullptr), VESSA_OK);
    EXPECT_NE(found, nullptr);
    void* second = nullptr;
    EXPECT_EQ(VESSA_CreateInstance("a", &second, nullptr), VESSA_ERR_NOT_REGISTERED);
    EXPECT_FALSE(LifeCycle::Get()->IsQuiet());
    Destroy(instance);
    EXPECT_EQ(hook.Count("a", "Uninit"), 1);
}

TEST_F(LifeCycleTest, RegistersAgainWhatAStopLeftAlive) {
    World world;
    world.Add("a");
    ModuleHook hook;
    ASSERT_EQ(VESSA_Init(), VESSA_OK);
    void* const instance = Create("a");
    VESSA_Uninit();
    LogCapture log(3);
    ASSERT_EQ(VESSA_Init(), VESSA_OK);
    EXPECT_TRUE(log.Contains(
        "4 plugin already unregistered, but not unload yet, now register again, plugin fkey a"));
    Destroy(instance);
    EXPECT_EQ(hook.Count("a", "Uninit"), 0);
    Destroy(Create("a"));
    VESSA_Uninit();
    EXPECT_EQ(hook.Count("a", "Init"), 1);
    EXPECT_EQ(hook.Count("a", "Uninit"), 1);
}

}  // namespace
}  // namespace vessa_test
