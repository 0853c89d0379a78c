// What modules call back, and what threads do to each other meanwhile.
#include <atomic>

#include "TestPlatform.h"
#include "unit/PluginWorld.h"

namespace vessa_test {
namespace {

class PluginProviderReentrancy : public ProviderTest {
  protected:
    void Declare(const std::string& fkey, bool delay_load = true) {
        path[fkey] = Module("good_v2", fkey + MODULE_SUFFIX);
        ASSERT_EQ(provider.RegisterPlugin(fkey, path[fkey], delay_load), VESSA_OK);
    }
    int Create(const std::string& fkey, void** made) {
        int own_error = 0;
        return provider.CreateInstance(fkey, *made, own_error);
    }
    int Destroy(void* made) {
        int own_error = 0;
        return provider.DestroyInstance(made, own_error);
    }
    Lines Created(const std::string& fkey, const std::string& made, const std::string& plugin) {
        return {"2 create tarnet instance succeeded, instance " + made + ", plugin " + plugin +
                    ", instance counter 1, plugin file path " + path[fkey],
                "2 create plugin instance succeeded, instance " + made + ", fkey " + fkey +
                    ", plugin file path " + path[fkey]};
    }
    Lines DestroyedLast(const std::string& fkey, const std::string& made,
                        const std::string& plugin) {
        return {"2 param instance = " + made, "2 param instance = " + made,
                "2 destroy tarnet instance succeeded, instance " + made + ", plugin " + plugin +
                    ", instance counter 0, plugin file path " + path[fkey],
                "3 destroy instance succeeded, and need unload plugin, instance " + made +
                    ", fkey " + fkey + ", plugin file path " + path[fkey]};
    }
    Lines UnloadedLater(const std::string& fkey) {
        return {"3 unload plugin succeeded, fkey " + fkey + ", file path " + path[fkey] +
                ", delay load true"};
    }

    // Opens the gate when the thread begins to wait for the readers to leave.
    static void AwaitWriter(Runtime& runtime, std::atomic<std::thread::id>& writer, Gate& waits) {
        runtime.Before(Tova::SemTimedWait, [&](RuntimeCall& call) {
            if (call.milliseconds > 0 && writer.load() == std::this_thread::get_id()) waits.Open();
        });
    }

    std::map<std::string, std::string> path;
    void* instance = nullptr;
    void* helper = nullptr;
};

TEST_F(PluginProviderReentrancy, UnloadsAHelperWhoseLastInstanceGoesInsideAnotherPluginsUninit) {
    ModuleHook hook;
    hook.On("player", "Init", [&](ModuleCall&) { EXPECT_EQ(Create("codec", &helper), VESSA_OK); });
    hook.On("player", "Uninit", [&](ModuleCall&) {
        EXPECT_EQ(Destroy(helper), VESSA_OK);
        EXPECT_EQ(hook.Count("codec", "Uninit"), 0) << "unloaded under a call that may use it";
    });
    Declare("codec");
    Declare("player", false);
    LogCapture log;
    EXPECT_EQ(provider.UnregisterPlugin("codec"), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("player"), VESSA_OK);
    EXPECT_TRUE(log.Is(
        Lines{
            "3 param fkey = codec",
            "4 unexpected, some plugin not destroyed, unload pluin later, fkey codec, file path " +
                path["codec"],
            "3 param fkey = player"} +
        DestroyedLast("codec", "{*i}", "{*c}") + RecordUnload(path["player"], "{*ph}", "{*p}") +
        Unregistered("player", path["player"], false) +
        RecordUnload(path["codec"], "{*ch}", "{*c}") + UnloadedLater("codec")));
    EXPECT_EQ(hook.Count("codec", "Unload"), 1);
}

TEST_F(PluginProviderReentrancy, UnloadsAHelperWhoseLastInstanceGoesInsideACreate) {
    ModuleHook hook;
    Declare("codec");
    Declare("player");
    hook.On("player", "CreateInstance_V2",
            [&](ModuleCall&) { EXPECT_EQ(Destroy(helper), VESSA_OK); });
    ASSERT_EQ(Create("codec", &helper), VESSA_OK);
    ASSERT_EQ(provider.UnregisterPlugin("codec"), VESSA_OK);
    LogCapture log;
    ASSERT_EQ(Create("player", &instance), VESSA_OK);
    EXPECT_TRUE(log.Is(Lines{"2 param fkey = player"} + NewModule(path["player"]) +
                       BeforeInit(path["player"], "{*ph}") + AfterInit(path["player"], "{*ph}") +
                       LoaderDone(path["player"], 1) + RecordLoaded(path["player"], "{*p}") +
                       DestroyedLast("codec", "{*i}", "{*c}") + Created("player", "{*j}", "{*p}") +
                       RecordUnload(path["codec"], "{*ch}", "{*c}") + UnloadedLater("codec")));
    EXPECT_EQ(Destroy(instance), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("player"), VESSA_OK);
}

TEST_F(PluginProviderReentrancy, UnloadsAChainOfHelpersOneAfterTheOther) {
    ModuleHook hook;
    void* second = nullptr;
    hook.On("a", "Init", [&](ModuleCall&) { EXPECT_EQ(Create("b", &helper), VESSA_OK); });
    hook.On("a", "Uninit", [&](ModuleCall&) { EXPECT_EQ(Destroy(helper), VESSA_OK); });
    hook.On("b", "Init", [&](ModuleCall&) { EXPECT_EQ(Create("c", &second), VESSA_OK); });
    hook.On("b", "Uninit", [&](ModuleCall&) { EXPECT_EQ(Destroy(second), VESSA_OK); });
    for (const char* const fkey : {"c", "b", "a"}) Declare(fkey);
    ASSERT_EQ(Create("a", &instance), VESSA_OK);
    for (const char* const fkey : {"c", "b", "a"})
        EXPECT_EQ(provider.UnregisterPlugin(fkey), VESSA_OK);
    hook.Clear();
    EXPECT_EQ(Destroy(instance), VESSA_OK);
    EXPECT_EQ(hook.Journal(),
              (Lines{"DestroyInstance a", "Uninit a", "DestroyInstance b", "Unload a", "Uninit b",
                     "DestroyInstance c", "Unload b", "Uninit c", "Unload c"}));
}

TEST_F(PluginProviderReentrancy, UnloadsSeveralHelpersInTheOrderInWhichTheirLastInstancesGo) {
    ModuleHook hook;
    std::map<std::string, void*> helpers;
    for (const char* const fkey : {"a", "b", "c"}) {
        Declare(fkey);
        ASSERT_EQ(Create(fkey, &helpers[fkey]), VESSA_OK);
        ASSERT_EQ(provider.UnregisterPlugin(fkey), VESSA_OK);
    }
    Declare("player");
    hook.On("player", "CreateInstance_V2", [&](ModuleCall&) {
        for (const char* const fkey : {"b", "c", "a"}) EXPECT_EQ(Destroy(helpers[fkey]), VESSA_OK);
    });
    ASSERT_EQ(Create("player", &instance), VESSA_OK);
    Lines unloads;
    for (const std::string& line : hook.Journal()) {
        if (line.compare(0, 7, "Unload ") == 0) unloads.push_back(line);
    }
    EXPECT_EQ(unloads, (Lines{"Unload b", "Unload c", "Unload a"}));
    EXPECT_EQ(Destroy(instance), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("player"), VESSA_OK);
}

TEST_F(PluginProviderReentrancy, PutsAnUnloadOffToTheEndOfTheOutermostCall) {
    ModuleHook hook;
    Declare("codec");
    Declare("inner");
    Declare("outer");
    void* inner = nullptr;
    hook.On("inner", "CreateInstance_V2",
            [&](ModuleCall&) { EXPECT_EQ(Destroy(helper), VESSA_OK); });
    hook.On("outer", "CreateInstance_V2", [&](ModuleCall&) {
        EXPECT_EQ(Create("inner", &inner), VESSA_OK);
        EXPECT_EQ(hook.Count("codec", "Uninit"), 0);
    });
    ASSERT_EQ(Create("codec", &helper), VESSA_OK);
    ASSERT_EQ(provider.UnregisterPlugin("codec"), VESSA_OK);
    ASSERT_EQ(Create("outer", &instance), VESSA_OK);
    EXPECT_EQ(hook.Count("codec", "Unload"), 1);
    EXPECT_EQ(Destroy(inner), VESSA_OK);
    EXPECT_EQ(Destroy(instance), VESSA_OK);
    for (const char* const fkey : {"inner", "outer"})
        EXPECT_EQ(provider.UnregisterPlugin(fkey), VESSA_OK);
}

// The writer stays where it holds the registry until the nested create is through.
TEST_F(PluginProviderReentrancy, LetsAModuleCreateBehindAWaitingWriter) {
    Gate waits;
    Gate created;
    std::atomic<std::thread::id> writer{};
    ModuleHook hook;
    Runtime runtime;
    Declare("a");
    Declare("b");
    runtime.Before(Tova::SemTimedWait, [&](RuntimeCall& call) {
        if (call.milliseconds == 0 || writer.load() != std::this_thread::get_id()) return;
        waits.Open();
        created.Wait();
    });
    std::unique_ptr<JoiningThread> thread;
    hook.On("a", "CreateInstance_V2", [&](ModuleCall&) {
        thread = std::make_unique<JoiningThread>([&] {
            writer = std::this_thread::get_id();
            EXPECT_EQ(provider.RegisterPlugin("c", "/nowhere/c" MODULE_SUFFIX, true), VESSA_OK);
        });
        waits.Wait();
        EXPECT_EQ(Create("b", &helper), VESSA_OK);
        EXPECT_FALSE(thread->HasEnded());
        created.Open();
    });
    ASSERT_EQ(Create("a", &instance), VESSA_OK);
    thread->Join();
    EXPECT_EQ(Destroy(helper), VESSA_OK);
    EXPECT_EQ(Destroy(instance), VESSA_OK);
    for (const char* const fkey : {"a", "b", "c"})
        EXPECT_EQ(provider.UnregisterPlugin(fkey), VESSA_OK);
}

TEST_F(PluginProviderReentrancy, LetsAThreadThatAModuleWaitsForCreateBehindAWaitingWriter) {
    Gate waits;
    std::atomic<std::thread::id> writer{};
    ModuleHook hook;
    Runtime runtime;
    Declare("a");
    Declare("b");
    AwaitWriter(runtime, writer, waits);
    std::unique_ptr<JoiningThread> thread;
    hook.On("a", "CreateInstance_V2", [&](ModuleCall&) {
        thread = std::make_unique<JoiningThread>([&] {
            writer = std::this_thread::get_id();
            EXPECT_EQ(provider.UnregisterPlugin("b"), VESSA_OK);
        });
        waits.Wait();
        JoiningThread worker([&] { EXPECT_EQ(Create("b", &helper), VESSA_OK); });
        worker.Join();
        EXPECT_FALSE(thread->HasEnded());
    });
    ASSERT_EQ(Create("a", &instance), VESSA_OK);
    thread->Join();
    EXPECT_TRUE(Record("b")->IsUnregistered());
    EXPECT_EQ(Destroy(helper), VESSA_OK);
    EXPECT_EQ(Destroy(instance), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("a"), VESSA_OK);
}

TEST_F(PluginProviderReentrancy, LetsOthersCreateWhileAWriterWaitsForASlowInit) {
    Gate in_init;
    Gate go_on;
    Gate waits;
    std::atomic<std::thread::id> writer{};
    ModuleHook hook;
    Runtime runtime;
    Declare("b");
    AwaitWriter(runtime, writer, waits);
    hook.On("slow", "Init", [&](ModuleCall&) {
        in_init.Open();
        go_on.Wait();
    });
    path["slow"] = Module("good_v2", "slow" MODULE_SUFFIX);
    JoiningThread registers(
        [&] { EXPECT_EQ(provider.RegisterPlugin("slow", path["slow"], false), VESSA_OK); });
    in_init.Wait();
    JoiningThread waiting([&] {
        writer = std::this_thread::get_id();
        EXPECT_EQ(provider.RegisterPlugin("c", "/nowhere/c" MODULE_SUFFIX, true), VESSA_OK);
    });
    waits.Wait();
    EXPECT_EQ(Create("b", &instance), VESSA_OK);
    EXPECT_EQ(Destroy(instance), VESSA_OK);
    EXPECT_FALSE(waiting.HasEnded());
    go_on.Open();
    waiting.Join();
    registers.Join();
    for (const char* const fkey : {"slow", "b", "c"})
        EXPECT_EQ(provider.UnregisterPlugin(fkey), VESSA_OK);
}

TEST_F(PluginProviderReentrancy, KeepsAChangeOutUntilTheCreatesAreThrough) {
    Gate go_on;
    Gate waits;
    std::atomic<std::thread::id> writer{};
    Barrier both_inside(3);
    ModuleHook hook;
    Runtime runtime;
    Declare("a");
    AwaitWriter(runtime, writer, waits);
    hook.On("a", "CreateInstance_V2", [&](ModuleCall&) {
        both_inside.ArriveAndWait();
        go_on.Wait();
    });
    JoiningThread first([&] { EXPECT_EQ(Create("a", &instance), VESSA_OK); });
    JoiningThread second([&] { EXPECT_EQ(Create("a", &helper), VESSA_OK); });
    both_inside.ArriveAndWait();
    JoiningThread change([&] {
        writer = std::this_thread::get_id();
        EXPECT_EQ(provider.UnregisterPlugin("a"), VESSA_OK);
    });
    waits.Wait();
    EXPECT_FALSE(Record("a")->IsUnregistered());
    go_on.Open();
    change.Join();
    first.Join();
    second.Join();
    EXPECT_TRUE(Record("a")->IsUnregistered());
    EXPECT_EQ(Record("a")->instance_count(), 2);
    EXPECT_EQ(Destroy(instance), VESSA_OK);
    EXPECT_EQ(Destroy(helper), VESSA_OK);
}

// Two threads destroy the last two instances of an unregistered plug-in; both find the unload
// due, and the second is held before it can carry it out.
class PluginProviderLateUnload : public PluginProviderReentrancy {
  protected:
    // Runs meanwhile() when only the second thread's unload is left, and gives its last line.
    template <class Meanwhile>
    std::string LastLine(bool first_unloads, Meanwhile meanwhile) {
        Gate zero;
        Gate due;
        Gate go_on;
        Declare("k");
        EXPECT_EQ(Create("k", &instance), VESSA_OK);
        EXPECT_EQ(Create("k", &helper), VESSA_OK);
        EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
        LogCapture log;
        std::atomic<std::thread::id> held{};
        log.OnLine("instance counter 1,", [&] { zero.Wait(); });
        log.OnLine("instance counter 0,", [&] {
            held = std::this_thread::get_id();
            if (first_unloads) zero.Open();
        });
        log.OnLine("need unload plugin, instance", [&] {
            if (held.load() != std::this_thread::get_id()) return;
            due.Open();
            go_on.Wait();
        });
        JoiningThread first([&] { EXPECT_EQ(Destroy(instance), VESSA_OK); });
        log.WaitFor("instance counter 1,");
        JoiningThread second([&] { EXPECT_EQ(Destroy(helper), VESSA_OK); });
        due.Wait();
        if (first_unloads) first.Join();
        meanwhile();
        go_on.Open();
        second.Join();
        const std::string line = log.SequenceFor(second.Id()).back();
        zero.Open();
        first.Join();
        return line;
    }
};

TEST_F(PluginProviderLateUnload, DoesNotEraseAnotherRegistration) {
    ModuleHook hook;
    const std::string line = LastLine(true, [&] {
        EXPECT_EQ(hook.Count("k", "Unload"), 1);
        EXPECT_EQ(provider.RegisterPlugin("k", path["k"], false), VESSA_OK);
    });
    EXPECT_EQ(line, "3 not need unload plugin, fkey k, plugin file path " + path["k"]);
    EXPECT_EQ(References("k" MODULE_SUFFIX), 1);
    ASSERT_EQ(Create("k", &instance), VESSA_OK);
    EXPECT_EQ(Destroy(instance), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
    EXPECT_EQ(hook.Count("k", "Unload"), 2);
}

TEST_F(PluginProviderLateUnload, FindsThatAnotherThreadHasDoneIt) {
    ModuleHook hook;
    const std::string line = LastLine(true, [] {});
    EXPECT_EQ(line, "3 plugin already unloaded, fkey k, plugin file path " + path["k"]);
    EXPECT_EQ(hook.Count("k", "Unload"), 1);
}

TEST_F(PluginProviderLateUnload, IsNotNeededAfterARegistrationOfTheSameRecord) {
    ModuleHook hook;
    const std::string line = LastLine(
        false, [&] { EXPECT_EQ(provider.RegisterPlugin("k", path["k"], true), VESSA_OK); });
    EXPECT_EQ(line, "3 not need unload plugin, fkey k, plugin file path " + path["k"]);
    EXPECT_EQ(hook.Count("k", "Unload"), 0);
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
    EXPECT_EQ(hook.Count("k", "Unload"), 1);
}

}  // namespace
}  // namespace vessa_test
