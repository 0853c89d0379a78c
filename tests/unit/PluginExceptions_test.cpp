// Modules that throw, and threads that end inside them.
#include <atomic>

#include "unit/PluginWorld.h"
#include "vessa2/Plugin.h"

namespace vessa_test {
namespace {

class PluginThrows : public ProviderTest {
  protected:
    std::string Declare(const std::string& module) {
        const std::string path = Module(module, module + ".so");
        EXPECT_EQ(provider.RegisterPlugin("k", path, true), VESSA_OK);
        return path;
    }
    // Takes out what counts as live for good.
    void Abandon() {
        for (const auto& entry : PluginProviderAccess::Collection(provider)) entry.second->Unload();
        PluginProviderAccess::Clear(provider);
    }

    int error = 77;
    void* instance = nullptr;
    void* iface = nullptr;
};

TEST_F(PluginThrows, FromItsEntryAsOneThatReturnsNull) {
    for (const char* const module : {"throw_entry", "throw_entry_v1"}) {
        Declare(module);
        LogCapture log;
        EXPECT_EQ(provider.CreateInstance("k", instance, error), VESSA_ERR_NO_INTERFACE);
        EXPECT_TRUE(log.Contains(std::string("5 unable to get plugin export interface") +
                                 (module == std::string("throw_entry") ? "2," : ",")));
        EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
    }
}

TEST_F(PluginThrows, FromInitAsAFailureThatLeavesNothingLoaded) {
    const std::string path = Declare("throw_init");
    for (int round = 1; round <= 2; ++round) {
        LogCapture log;
        EXPECT_EQ(provider.CreateInstance("k", instance, error), VESSA_ERR_MODULE_INIT);
        EXPECT_TRUE(log.Contains("5 init plugin failed, error -1/FFFFFFFFFFFFFFFF, filename "));
        EXPECT_TRUE(PluginLoaderAccess::Collection(loader).empty());
    }
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
}

TEST_F(PluginThrows, FromItsDescriptionAsOneWithoutIt) {
    for (const auto& [module, described] :
         {std::pair("throw_version", "plugin file version , interface ikeys [iface]"),
          std::pair("throw_ikeys", "plugin file version 1.2.3 test, interface ikeys []")}) {
        Declare(module);
        LogCapture log;
        EXPECT_EQ(provider.CreateInstance("k", instance, error), VESSA_OK);
        EXPECT_TRUE(log.Contains(described));
        EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
        EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
    }
}

TEST_F(PluginThrows, FromCreateAsAFailure) {
    for (const char* const module : {"throw_create", "throw_create_v1"}) {
        Declare(module);
        EXPECT_EQ(provider.CreateInstance("k", instance, error), -1);
        EXPECT_EQ(error, -1);
        EXPECT_EQ(instance, nullptr);
        EXPECT_EQ(Record("k")->instance_count(), 0);
        EXPECT_EQ(PluginProviderAccess::Readers(provider), 0);
        EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
    }
}

TEST_F(PluginThrows, FromQueryAndTheMapQuestionAsAFailure) {
    Declare("throw_query");
    ASSERT_EQ(provider.CreateInstance("k", instance, error), VESSA_OK);
    EXPECT_EQ(provider.QueryInterface(instance, "i", iface, error), -1);
    EXPECT_EQ(error, -1);
    EXPECT_EQ(iface, nullptr);
    EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);

    ASSERT_EQ(provider.RegisterPlugin("m", Module("throw_map", "m.so"), false), VESSA_OK);
    int count = 5;
    EXPECT_EQ(provider.GetPluginMapFkeys("m", nullptr, &count), -1);
    EXPECT_EQ(count, 5);
    EXPECT_EQ(PluginProviderAccess::Readers(provider), 0);
    EXPECT_EQ(provider.UnregisterPlugin("m"), VESSA_OK);
}

TEST_F(PluginThrows, FromDestroyAsAFailureThatCountsAsLive) {
    Declare("throw_destroy");
    ASSERT_EQ(provider.CreateInstance("k", instance, error), VESSA_OK);
    EXPECT_EQ(provider.DestroyInstance(instance, error), -1);
    EXPECT_EQ(error, -1);
    EXPECT_EQ(Record("k")->instance_count(), 1);
    std::free(instance);
    Abandon();
}

TEST_F(PluginThrows, FromUninitAsAFailureThatEndsUnloaded) {
    const std::string path = Declare("throw_uninit");
    ModuleHook hook;
    ASSERT_EQ(provider.CreateInstance("k", instance, error), VESSA_OK);
    ASSERT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
    LogCapture log;
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
    EXPECT_TRUE(log.Contains("4 uninit plugin failed, error -1/FFFFFFFFFFFFFFFF, "));
    EXPECT_EQ(hook.Count("throw_uninit", "Unload"), 1);
    Forget(path);
}

TEST_F(PluginThrows, WhatIsNoStandardExceptionJustTheSame) {
    Declare("good_v2");
    ModuleHook hook;
    hook.On("good_v2", "CreateInstance_V2", [](ModuleCall&) { throw 42; });
    EXPECT_EQ(provider.CreateInstance("k", instance, error), -1);
    EXPECT_EQ(error, -1);
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
}

TEST_F(PluginThrows, DuringAConflictsDestroyWithoutKeepingTheTableLocked) {
    Declare("same_instance");
    ModuleHook hook;
    ASSERT_EQ(provider.CreateInstance("k", instance, error), VESSA_OK);
    hook.On("same_instance", "DestroyInstance", [](ModuleCall& call) {
        if (call.index == 1) throw std::runtime_error("thrown");
    });
    void* same = nullptr;
    EXPECT_EQ(provider.CreateInstance("k", same, error), VESSA_ERR_INSTANCE_CONFLICT);
    EXPECT_EQ(error, -1);
    JoiningThread other([&] {
        int own_error = 0;
        EXPECT_EQ(provider.DestroyInstance(instance, own_error), VESSA_OK);
    });
    other.Join();
    Abandon();
}

// Runs the function on a thread that it ends itself. False if it returned.
bool EndsItsThread(std::function<void()> function) {
    struct Body {
        std::function<void()> function;
        bool returned = false;
    } body{std::move(function)};
    const auto run = [](void* argument) -> void* {
        Body* const own = static_cast<Body*>(argument);
        own->function();
        own->returned = true;
        return nullptr;
    };
    pthread_t thread;
    if (pthread_create(&thread, nullptr, run, &body) != 0) throw std::runtime_error("no thread");
    pthread_join(thread, nullptr);
    return !body.returned;
}

// The two ways in which a thread ends inside a module.
enum class End { kExit, kCancel };

class PluginEndsThread : public PluginThrows, public testing::WithParamInterface<End> {
  protected:
    // The first call of the operation ends its thread.
    void EndIn(ModuleHook& hook, const std::string& operation) {
        hook.On("*", operation, [](ModuleCall& call) {
            if (call.index > 1) return;
            if (GetParam() == End::kExit) pthread_exit(nullptr);
            pthread_cancel(pthread_self());
            for (;;) pthread_testcancel();
        });
    }
    // Nobody waits for what the ended thread held: on another thread, so that nothing that it
    // held can be re-entered.
    void ExpectUsable(const std::string& fkey) {
        JoiningThread other([&] {
            int own_error = 0;
            void* made = nullptr;
            EXPECT_EQ(provider.RegisterPlugin("other", "/nowhere/other.so", true), VESSA_OK);
            EXPECT_EQ(provider.CreateInstance(fkey, made, own_error), VESSA_OK);
            EXPECT_EQ(provider.DestroyInstance(made, own_error), VESSA_OK);
            EXPECT_EQ(provider.UnregisterPlugin("other"), VESSA_OK);
        });
        other.Join();
        EXPECT_EQ(PluginProviderAccess::Readers(provider), 0);
    }
};

TEST_P(PluginEndsThread, InInitOfARegistrationAndLeavesNothing) {
    const std::string path = Module("good_v2", "a.so");
    ModuleHook hook;
    EndIn(hook, "Init");
    EXPECT_TRUE(EndsItsThread([&] { provider.RegisterPlugin("k", path, false); }));
    EXPECT_EQ(PluginProviderAccess::Readers(provider), 0);
    EXPECT_TRUE(PluginLoaderAccess::Collection(loader).empty());
    EXPECT_EQ(hook.Count("a", "Unload"), 1);
    ExpectUsable("k");
    EXPECT_EQ(hook.Count("a", "Init"), 2);
    EXPECT_EQ(References("a.so"), 1);
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
    EXPECT_EQ(hook.Count("a", "Uninit"), 1);
    EXPECT_EQ(hook.Count("a", "Unload"), 2);
}

TEST_P(PluginEndsThread, InInitOfACreateAndLeavesNothing) {
    const std::string path = Declare("good_v2");
    ModuleHook hook;
    EndIn(hook, "Init");
    EXPECT_TRUE(EndsItsThread([&] { provider.CreateInstance("k", instance, error); }));
    EXPECT_EQ(PluginProviderAccess::Readers(provider), 0);
    EXPECT_TRUE(PluginLoaderAccess::Collection(loader).empty());
    ExpectUsable("k");
    EXPECT_EQ(References("good_v2.so"), 1);
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
    EXPECT_EQ(hook.Count("good_v2", "Unload"), 2);
}

TEST_P(PluginEndsThread, InInitAfterANestedUseOfItsOwnKeyAndLeavesNothing) {
    const std::string path = Declare("good_v2");
    ModuleHook hook;
    hook.On("good_v2", "Init", [&](ModuleCall& call) {
        if (call.index > 1) return;
        int own_error = 0;
        void* nested = nullptr;
        EXPECT_EQ(provider.CreateInstance("k", nested, own_error), VESSA_OK);
        EXPECT_EQ(provider.DestroyInstance(nested, own_error), VESSA_OK);
        if (GetParam() == End::kExit) pthread_exit(nullptr);
        pthread_cancel(pthread_self());
        for (;;) pthread_testcancel();
    });
    EXPECT_TRUE(EndsItsThread([&] { provider.CreateInstance("k", instance, error); }));
    ExpectUsable("k");
    EXPECT_EQ(References("good_v2.so"), 1);
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
    EXPECT_EQ(hook.Count("good_v2", "Uninit"), 1);
}

TEST_P(PluginEndsThread, InItsDescriptionAndLeavesNothing) {
    for (const char* const operation : {"Entry", "GetFileVersion", "GetAllInterfaceIkeys"}) {
        SCOPED_TRACE(operation);
        const std::string path = Declare("good_v2");
        ModuleHook hook;
        EndIn(hook, operation);
        EXPECT_TRUE(EndsItsThread([&] { provider.CreateInstance("k", instance, error); }));
        EXPECT_TRUE(PluginLoaderAccess::Collection(loader).empty());
        ExpectUsable("k");
        EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
    }
}

TEST_P(PluginEndsThread, InACreateAndLeavesNothing) {
    Declare("good_v2");
    ModuleHook hook;
    EndIn(hook, "CreateInstance_V2");
    EXPECT_TRUE(EndsItsThread([&] { provider.CreateInstance("k", instance, error); }));
    EXPECT_EQ(Record("k")->instance_count(), 0);
    ExpectUsable("k");
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
}

TEST_P(PluginEndsThread, InAQueryOrTheMapQuestionAndLeavesNothing) {
    Declare("good_v2");
    ModuleHook hook;
    EndIn(hook, "QueryInterface");
    EndIn(hook, "GetPluginMapFkeys");
    ASSERT_EQ(provider.CreateInstance("k", instance, error), VESSA_OK);
    EXPECT_TRUE(EndsItsThread([&] { provider.QueryInterface(instance, "i", iface, error); }));
    int count = 0;
    EXPECT_TRUE(EndsItsThread([&] { provider.GetPluginMapFkeys("k", nullptr, &count); }));
    ExpectUsable("k");
    EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
}

TEST_P(PluginEndsThread, InTheDestroyOfAConflictAndLeavesTheTableUnlocked) {
    Declare("same_instance");
    ModuleHook hook;
    EndIn(hook, "DestroyInstance");
    ASSERT_EQ(provider.CreateInstance("k", instance, error), VESSA_OK);
    EXPECT_TRUE(EndsItsThread([&] {
        void* same = nullptr;
        int own_error = 0;
        provider.CreateInstance("k", same, own_error);
    }));
    JoiningThread other([&] {
        int own_error = 0;
        EXPECT_EQ(provider.DestroyInstance(instance, own_error), VESSA_OK);
    });
    other.Join();
    EXPECT_EQ(PluginProviderAccess::Readers(provider), 0);
    Abandon();
}

TEST_P(PluginEndsThread, InUninitAndLeavesTheModuleUnloaded) {
    const std::string path = Module("good_v2", "a.so");
    ModuleHook hook;
    EndIn(hook, "Uninit");
    ASSERT_EQ(provider.RegisterPlugin("k", path, false), VESSA_OK);
    EXPECT_TRUE(EndsItsThread([&] { provider.UnregisterPlugin("k"); }));
    EXPECT_EQ(hook.Count("a", "Unload"), 1);
    EXPECT_EQ(PluginProviderAccess::Readers(provider), 0);
    ASSERT_EQ(provider.RegisterPlugin("k", path, false), VESSA_OK);
    EXPECT_EQ(hook.Count("a", "Init"), 2);
    ExpectUsable("k");
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
    EXPECT_EQ(hook.Count("a", "Unload"), 2);
    // As after any Uninit that fails the file name stays taken.
    Forget(path);
}

TEST_P(PluginEndsThread, StillUnloadsTheHelperWhoseLastInstanceWentBefore) {
    Declare("good_v2");
    const std::string path = Module("good_v2", "helper.so");
    ASSERT_EQ(provider.RegisterPlugin("helper", path, true), VESSA_OK);
    void* helper = nullptr;
    ASSERT_EQ(provider.CreateInstance("helper", helper, error), VESSA_OK);
    ASSERT_EQ(provider.UnregisterPlugin("helper"), VESSA_OK);
    ModuleHook hook;
    hook.On("good_v2", "CreateInstance_V2", [&](ModuleCall& call) {
        if (call.index > 1) return;
        int own_error = 0;
        EXPECT_EQ(provider.DestroyInstance(helper, own_error), VESSA_OK);
        pthread_exit(nullptr);
    });
    EXPECT_TRUE(EndsItsThread([&] { provider.CreateInstance("k", instance, error); }));
    EXPECT_EQ(hook.Count("helper", "Unload"), 1);
    ExpectUsable("k");
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
}

INSTANTIATE_TEST_SUITE_P(By, PluginEndsThread, testing::Values(End::kExit, End::kCancel),
                         [](const testing::TestParamInfo<End>& end) {
                             return end.param == End::kExit ? "Exit" : "Cancellation";
                         });

// A thread that is cancelled while it waits for the readers to leave gives its place up.
TEST_F(PluginThrows, NothingWhenAChangeIsCancelledWhileItWaitsForACreate) {
    Declare("good_v2");
    Gate inside;
    Gate go_on;
    Gate waits;
    std::atomic<std::thread::id> writer{};
    ModuleHook hook;
    Runtime runtime;
    hook.On("good_v2", "CreateInstance_V2", [&](ModuleCall&) {
        inside.Open();
        go_on.Wait();
    });
    runtime.Before(Tova::SemTimedWait, [&](RuntimeCall& call) {
        if (call.milliseconds > 0 && writer.load() == std::this_thread::get_id()) waits.Open();
    });
    JoiningThread creates([&] {
        int own_error = 0;
        EXPECT_EQ(provider.CreateInstance("k", instance, own_error), VESSA_OK);
    });
    inside.Wait();
    struct Change {
        PluginProvider& provider;
        std::atomic<std::thread::id>& writer;
    } change{provider, writer};
    pthread_t thread;
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void* argument) -> void* {
                      Change& own = *static_cast<Change*>(argument);
                      own.writer = std::this_thread::get_id();
                      own.provider.RegisterPlugin("x", "/nowhere/x.so", true);
                      return nullptr;
                  },
                  &change),
              0);
    waits.Wait();
    pthread_cancel(thread);
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    go_on.Open();
    creates.Join();
    JoiningThread next([&] {
        int own_error = 0;
        EXPECT_EQ(provider.DestroyInstance(instance, own_error), VESSA_OK);
        EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
    });
    next.Join();
}

}  // namespace
}  // namespace vessa_test
