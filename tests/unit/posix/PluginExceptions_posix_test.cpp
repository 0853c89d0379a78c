// Threads that end inside modules.
#include <pthread.h>

#include <atomic>

#include "TestPlatform.h"
#include "unit/PluginThrows.h"

namespace vessa_test {
namespace {

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
            EXPECT_EQ(provider.RegisterPlugin("other", "/nowhere/other" MODULE_SUFFIX, true),
                      VESSA_OK);
            EXPECT_EQ(provider.CreateInstance(fkey, made, own_error), VESSA_OK);
            EXPECT_EQ(provider.DestroyInstance(made, own_error), VESSA_OK);
            EXPECT_EQ(provider.UnregisterPlugin("other"), VESSA_OK);
        });
        other.Join();
        EXPECT_EQ(PluginProviderAccess::Readers(provider), 0);
    }
};

TEST_P(PluginEndsThread, InInitOfARegistrationAndLeavesNothing) {
    const std::string path = Module("good_v2", "a" MODULE_SUFFIX);
    ModuleHook hook;
    EndIn(hook, "Init");
    EXPECT_TRUE(EndsItsThread([&] { provider.RegisterPlugin("k", path, false); }));
    EXPECT_EQ(PluginProviderAccess::Readers(provider), 0);
    EXPECT_TRUE(PluginLoaderAccess::Collection(loader).empty());
    EXPECT_EQ(hook.Count("a", "Unload"), 1);
    ExpectUsable("k");
    EXPECT_EQ(hook.Count("a", "Init"), 2);
    EXPECT_EQ(References("a" MODULE_SUFFIX), 1);
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
    EXPECT_EQ(References("good_v2" MODULE_SUFFIX), 1);
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
    EXPECT_EQ(References("good_v2" MODULE_SUFFIX), 1);
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
    const std::string path = Module("good_v2", "a" MODULE_SUFFIX);
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
    const std::string path = Module("good_v2", "helper" MODULE_SUFFIX);
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
                      own.provider.RegisterPlugin("x", "/nowhere/x" MODULE_SUFFIX, true);
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
