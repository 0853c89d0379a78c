// What is overtaken between a look and the lock that follows it: there another thread does the same,
// or the opposite, and whoever comes second finds it done.
#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "TestPlatform.h"
#include "unit/PluginWorld.h"
#include "vessa2/PluginCoordinator.h"

namespace vessa_test {
namespace {

// Before the nth call of the function that this thread makes from here on, another thread runs the
// work to its end.
class Overtaking {
  public:
    Overtaking(Runtime& runtime, Tova function, int nth, std::function<void()> work)
        : runtime_(runtime), function_(function), left_(nth), work_(std::move(work)) {
        const std::thread::id overtaken = std::this_thread::get_id();
        runtime_.Before(function_, [this, overtaken](RuntimeCall&) {
            if (std::this_thread::get_id() != overtaken || --left_ != 0) return;
            JoiningThread other(work_);
            other.Join();
            happened_ = true;
        });
    }
    ~Overtaking() {
        runtime_.Before(function_, nullptr);
        EXPECT_TRUE(happened_);
    }
    Overtaking(const Overtaking&) = delete;
    Overtaking& operator=(const Overtaking&) = delete;

  private:
    Runtime& runtime_;
    const Tova function_;
    int left_;
    const std::function<void()> work_;
    bool happened_ = false;
};

class OvertakenCoordinator : public testing::Test {
  protected:
    OvertakenCoordinator() {
        coordinator_.SetPluginRoot(dir_.Path());
        coordinator_.SetConfigFilename("tarnet.xml");
    }
    TempDir dir_;
    Runtime runtime_;
    LogCapture log_{3};
    PluginCoordinator coordinator_;
};

TEST_F(OvertakenCoordinator, StartsOnce) {
    {
        const Overtaking other(runtime_, Tova::MutexLock, 1,
                               [this] { EXPECT_TRUE(coordinator_.Run()); });
        EXPECT_TRUE(coordinator_.Run());
    }
    EXPECT_EQ(log_.Count("3 run PluginCoordinator succeeded"), 1);
    EXPECT_EQ(log_.Count("4 already run"), 1);
    EXPECT_TRUE(coordinator_.Shutdown());
}

TEST_F(OvertakenCoordinator, StopsOnce) {
    ASSERT_TRUE(coordinator_.Run());
    {
        const Overtaking other(runtime_, Tova::MutexLock, 1,
                               [this] { EXPECT_TRUE(coordinator_.Shutdown()); });
        EXPECT_TRUE(coordinator_.Shutdown());
    }
    EXPECT_EQ(log_.Count("3 shutdown PluginCoordinator succeeded"), 1);
    EXPECT_EQ(log_.Count("4 already shutdown"), 1);
    EXPECT_FALSE(coordinator_.IsRunning());
}

class OvertakenRecord : public PluginTest {
  protected:
    Runtime runtime;
};

TEST_F(OvertakenRecord, HasOnePairOfLocksWhoeverMakesIt) {
    DelayLoadPlugin record("k", Module("good_v2", "a" MODULE_SUFFIX), true);
    {
        const Overtaking other(runtime, Tova::MutexCreate, 1,
                               [&] { EXPECT_EQ(record.LoadPlugin(), VESSA_OK); });
        EXPECT_EQ(record.LoadPlugin(), VESSA_OK);
    }
    EXPECT_EQ(record.state(), DelayLoadPlugin::kLoaded);
    EXPECT_EQ(record.UnloadPlugin(), VESSA_OK);
}

TEST_F(OvertakenRecord, IsUnloadedOnce) {
    DelayLoadPlugin record("k", Module("good_v2", "a" MODULE_SUFFIX), true);
    ModuleHook hook;
    ASSERT_EQ(record.LoadPlugin(), VESSA_OK);
    LogCapture log;
    {
        const Overtaking other(runtime, Tova::MutexLock, 1,
                               [&] { EXPECT_EQ(record.UnloadPlugin(), VESSA_OK); });
        EXPECT_EQ(record.UnloadPlugin(), VESSA_OK);
    }
    EXPECT_EQ(hook.Count("a", "Uninit"), 1);
    EXPECT_EQ(record.state(), DelayLoadPlugin::kNotLoaded);
    EXPECT_EQ(log.Count("unexpected"), 0);
}

// The first load fails on a thread inside a module, which waits for no other load; when it comes
// to say so, the second one has succeeded.
TEST_F(OvertakenRecord, KeepsTheModuleThatAnotherThreadHasLoadedMeanwhile) {
    DelayLoadPlugin record("k", Module("good_v2", "a" MODULE_SUFFIX), true);
    // Before the load: the loader's mutex and the module's.
    constexpr int kLocksUpToTheFailure = 2;
    // After it: the loader's again, to give the reference back, and then the record's.
    constexpr int kRecordsLock = kLocksUpToTheFailure + 2;
    runtime.FailCall(Tova::LoadDSo);
    {
        ThreadScope scope;
        const PluginCallScope inside;
        const Overtaking other(runtime, Tova::MutexLock, kRecordsLock,
                               [&] { EXPECT_EQ(record.LoadPlugin(), VESSA_OK); });
        EXPECT_EQ(record.LoadPlugin(), VESSA_ERR_MODULE_LOAD);
    }
    EXPECT_EQ(record.state(), DelayLoadPlugin::kLoaded);
    EXPECT_EQ(record.UnloadPlugin(), VESSA_OK);
}

class OvertakenInstance : public ProviderTest {
  protected:
    Runtime runtime;
};

// The pointer that was live when the module handed it out once more is destroyed before the
// conflict is settled.
TEST_F(OvertakenInstance, OfAConflictThatIsNoneAnyMoreIsEntered) {
    ASSERT_EQ(provider.RegisterPlugin("k", Module("same_instance", "a" MODULE_SUFFIX), true),
              VESSA_OK);
    void* first = nullptr;
    void* second = nullptr;
    int error = 0;
    ASSERT_EQ(provider.CreateInstance("k", first, error), VESSA_OK);
    {
        const Overtaking other(runtime, Tova::MutexLock, 1, [&] {
            int own_error = 0;
            EXPECT_EQ(provider.DestroyInstance(first, own_error), VESSA_OK);
        });
        EXPECT_EQ(provider.CreateInstance("k", second, error), VESSA_OK);
    }
    EXPECT_EQ(second, first);
    EXPECT_EQ(provider.DestroyInstance(second, error), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
}

// The destroy of a conflict makes the same instance once more: a conflict inside the conflict, whose
// outer one lets the entry go.
TEST_F(OvertakenInstance, OfAConflictInsideAConflictStaysLive) {
    ModuleHook hook;
    ASSERT_EQ(provider.RegisterPlugin("k", Module("same_instance", "a" MODULE_SUFFIX), true),
              VESSA_OK);
    void* first = nullptr;
    int error = 0;
    ASSERT_EQ(provider.CreateInstance("k", first, error), VESSA_OK);
    int inner = VESSA_OK;
    hook.On("a", "DestroyInstance", [&](ModuleCall& call) {
        if (call.index > 1) return;
        void* same = nullptr;
        int own_error = 0;
        inner = provider.CreateInstance("k", same, own_error);
    });
    void* second = nullptr;
    EXPECT_EQ(provider.CreateInstance("k", second, error), VESSA_ERR_INSTANCE_CONFLICT);
    EXPECT_EQ(inner, VESSA_ERR_INSTANCE_CONFLICT);
    EXPECT_EQ(hook.Count("a", "DestroyInstance"), 2);
    hook.Off("a", "DestroyInstance");
    EXPECT_EQ(provider.DestroyInstance(first, error), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
}

// What nobody reads is not said, and the refusals are the same.
TEST_F(OvertakenInstance, IsRefusedWithTheLogOffAsWithItOn) {
    const LogCapture log(6);
    Plugin plugin("/nowhere/a" MODULE_SUFFIX);
    void* out = nullptr;
    EXPECT_EQ(plugin.CreateInstance("k", out), VESSA_FAILED);
    EXPECT_EQ(plugin.QueryInterface(&out, "i", out), VESSA_FAILED);
    EXPECT_EQ(plugin.DestroyInstance(&out), VESSA_FAILED);

    ASSERT_EQ(provider.RegisterPlugin("k", Module("same_instance", "a" MODULE_SUFFIX), true),
              VESSA_OK);
    ModuleHook hook;
    void* first = nullptr;
    int error = 0;
    ASSERT_EQ(provider.CreateInstance("k", first, error), VESSA_OK);
    hook.On("a", "DestroyInstance", [](ModuleCall& call) { call.Return(5); });
    void* second = nullptr;
    EXPECT_EQ(provider.CreateInstance("k", second, error), VESSA_ERR_INSTANCE_CONFLICT);
    EXPECT_EQ(error, 5);
    hook.Off("a", "DestroyInstance");

    // An entry without a record, as only a test makes one.
    InstanceTable& instances = PluginProviderAccess::Instances(provider);
    InstanceTable::Record record = nullptr;
    ASSERT_EQ(instances.Take(first, false, [&](InstanceTable::Record its) { record = its; }),
              InstanceTable::kTaken);
    ASSERT_TRUE(instances.Insert(first, nullptr));
    EXPECT_EQ(provider.CreateInstance("k", second, error), VESSA_ERR_INSTANCE_CONFLICT);
    EXPECT_EQ(provider.QueryInterface(first, "i", out, error), VESSA_FAILED);
    EXPECT_EQ(provider.DestroyInstance(first, error), VESSA_OK);
    ASSERT_TRUE(instances.Insert(first, record));
    EXPECT_EQ(provider.DestroyInstance(first, error), VESSA_OK);
    EXPECT_TRUE(log.Is({}));
    // The destroy that failed counts as live for good.
    EXPECT_EQ(Record("k")->Unload(), VESSA_OK);
    PluginProviderAccess::Clear(provider);
}

// The record outlives its burial because somebody looks at it, and the registry goes first.
TEST_F(OvertakenRecord, IsDeletedAtTheEndOfItsGraveyardThoughItIsStillLookedAt) {
    std::optional<PluginGraveyard> graveyard(std::in_place);
    auto* const record =
        new PluginRecord("k", Module("good_v2", "a" MODULE_SUFFIX), "a" MODULE_SUFFIX, true);
    void* instance = nullptr;
    int error = 0;
    ASSERT_EQ(record->CreateInstance("k", instance, error), VESSA_OK);
    ASSERT_EQ(record->DestroyInstance(instance, error), VESSA_OK);
    ASSERT_EQ(record->UnloadPlugin(), VESSA_OK);
    record->Pin();
    graveyard->Bury(record);
    graveyard->Sweep();
    EXPECT_EQ(record->fkey(), "k");
    // The census at the test's end misses its locks otherwise.
    graveyard.reset();
}

}  // namespace
}  // namespace vessa_test
