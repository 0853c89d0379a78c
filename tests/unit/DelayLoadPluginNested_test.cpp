// Modules that use the library from their own Init and Uninit.
#include "TestPlatform.h"
#include "unit/PluginWorld.h"
#include "vessa2/DelayLoadPlugin.h"

namespace vessa_test {
namespace {

class NestedLoad : public ProviderTest {
  protected:
    // What a nested load of a module whose Init is on the stack writes, up to the record's line.
    static Lines NestedIn(const std::string& path, int counter) {
        return Lines{"3 param file_path = " + path,
                     "3 plugin already loaded, load_counter_value = " + std::to_string(counter)} +
               LoaderDone(path, counter) + RecordLoaded(path);
    }

    int error = 0;
    void* instance = nullptr;
    void* nested = nullptr;
};

TEST_F(NestedLoad, OfAModulesOwnKeyInItsInitLeavesOneReference) {
    const std::string path = Module("good_v2", "a" MODULE_SUFFIX);
    ModuleHook hook;
    DelayLoadPlugin record("k", path, true);
    hook.On("a", "Init", [&](ModuleCall&) {
        int own_error = 0;
        EXPECT_EQ(record.CreateInstance("k", nested, own_error), VESSA_OK);
    });
    LogCapture log;
    ASSERT_EQ(record.CreateInstance("k", instance, error), VESSA_OK);
    EXPECT_EQ(record.state(), DelayLoadPlugin::kLoaded);
    EXPECT_EQ(References("a" MODULE_SUFFIX), 1);
    const std::string tail = ", plugin {*p}, instance counter ";
    EXPECT_TRUE(log.Is(NewModule(path) + BeforeInit(path) + NestedIn(path, 2) +
                       Lines{"2 create tarnet instance succeeded, instance {*n}" + tail +
                             "1, plugin file path " + path} +
                       AfterInit(path) + LoaderDone(path, 2) + RecordLoaded(path) +
                       StillCounted(1) + LoaderUnloaded(path, 1) +
                       Lines{"2 create tarnet instance succeeded, instance {*i}" + tail +
                             "2, plugin file path " + path}));
    EXPECT_EQ(record.DestroyInstance(nested, error), VESSA_OK);
    EXPECT_EQ(record.DestroyInstance(instance, error), VESSA_OK);
    log.Clear();
    EXPECT_EQ(record.Unload(), VESSA_OK);
    EXPECT_TRUE(log.Is(RecordUnload(path)));
    EXPECT_EQ(hook.Count("a", "Init"), 1);
    EXPECT_EQ(hook.Count("a", "Uninit"), 1);
    EXPECT_EQ(hook.Count("a", "Unload"), 1);
}

TEST_F(NestedLoad, OfAModulesOwnKeyFallsWithItsFailingInit) {
    const std::string path = Module("good_v2", "a" MODULE_SUFFIX);
    ModuleHook hook;
    hook.On("a", "Init", [&](ModuleCall& call) {
        if (call.index > 1) return;
        int own_error = 0;
        EXPECT_EQ(provider.CreateInstance("k", nested, own_error), VESSA_OK);
        EXPECT_EQ(provider.DestroyInstance(nested, own_error), VESSA_OK);
        call.Return(7);
    });
    ASSERT_EQ(provider.RegisterPlugin("k", path, true), VESSA_OK);
    LogCapture log;
    EXPECT_EQ(provider.CreateInstance("k", instance, error), VESSA_ERR_MODULE_INIT);
    EXPECT_EQ(instance, nullptr);
    EXPECT_TRUE(PluginLoaderAccess::Collection(loader).empty());
    EXPECT_EQ(hook.Count("a", "Uninit"), 0);
    EXPECT_EQ(hook.Count("a", "Unload"), 1);
    log.Clear();

    EXPECT_EQ(provider.CreateInstance("k", instance, error), VESSA_OK);
    EXPECT_TRUE(log.Is(Lines{"2 param fkey = k"} + RecordLoad(path) +
                       Lines{"2 create tarnet instance succeeded, instance {*i}, plugin {*p}, "
                             "instance counter 1, plugin file path " +
                                 path,
                             "2 create plugin instance succeeded, instance {*i}, fkey k, plugin "
                             "file path " +
                                 path}));
    EXPECT_EQ(hook.Count("a", "Init"), 2);
    EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
    EXPECT_EQ(hook.Count("a", "Unload"), 2);
}

TEST_F(NestedLoad, OfAModulesOwnKeyInItsEntryFallsWithTheFailingInit) {
    const std::string path = Module("good_v2", "a" MODULE_SUFFIX);
    ModuleHook hook;
    DelayLoadPlugin record("k", path, true);
    hook.On("a", "Entry", [&](ModuleCall& call) {
        if (call.index > 1) return;
        // There is no table yet to create with.
        int own_error = 0;
        EXPECT_EQ(record.CreateInstance("k", nested, own_error), VESSA_FAILED);
        EXPECT_NE(record.state(), DelayLoadPlugin::kLoaded) << "for other threads to use";
    });
    hook.On("a", "Init", [](ModuleCall& call) {
        if (call.index == 1) call.Return(7);
    });
    EXPECT_EQ(record.CreateInstance("k", instance, error), VESSA_ERR_MODULE_INIT);
    EXPECT_EQ(record.state(), DelayLoadPlugin::kNotLoaded);
    ASSERT_EQ(record.CreateInstance("k", instance, error), VESSA_OK);
    EXPECT_EQ(References("a" MODULE_SUFFIX), 1);
    EXPECT_EQ(record.DestroyInstance(instance, error), VESSA_OK);
    EXPECT_EQ(record.Unload(), VESSA_OK);
    EXPECT_EQ(hook.Count("a", "Unload"), 2);
}

TEST_F(NestedLoad, InstanceThatOutlivesItsFailedInitIsRefusedAndDoesNotCrash) {
    const std::string path = Module("good_v2", "a" MODULE_SUFFIX);
    ModuleHook hook;
    hook.On("a", "Init", [&](ModuleCall& call) {
        int own_error = 0;
        EXPECT_EQ(provider.CreateInstance("k", nested, own_error), VESSA_OK);
        call.Return(7);
    });
    EXPECT_EQ(provider.RegisterPlugin("k", path, false), VESSA_OK);
    void* iface = nullptr;
    EXPECT_EQ(provider.QueryInterface(nested, TEST_MODULE_IKEY, iface, error), -1);
    EXPECT_EQ(provider.DestroyInstance(nested, error), -1);
    EXPECT_EQ(provider.DestroyInstance(nested, error), VESSA_ERR_ARGUMENT);
    std::free(nested);
    // The instance that nobody could destroy counts as live.
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
    EXPECT_EQ(PluginProviderAccess::Collection(provider).count("k"), 1u);
    PluginProviderAccess::Clear(provider);
}

TEST_F(NestedLoad, OfASiblingKeyInInitLeavesOneReferenceForEach) {
    const std::string path = Module("good_v2", "a" MODULE_SUFFIX);
    ModuleHook hook;
    hook.On("a", "Init", [&](ModuleCall&) {
        int own_error = 0;
        EXPECT_EQ(provider.CreateInstance("b", nested, own_error), VESSA_OK);
    });
    ASSERT_EQ(provider.RegisterPlugin("a", path, true), VESSA_OK);
    ASSERT_EQ(provider.RegisterPlugin("b", path, true), VESSA_OK);
    ASSERT_EQ(provider.CreateInstance("a", instance, error), VESSA_OK);
    EXPECT_EQ(References("a" MODULE_SUFFIX), 2);
    EXPECT_EQ(provider.DestroyInstance(nested, error), VESSA_OK);

    LogCapture log;
    ASSERT_EQ(provider.CreateInstance("b", nested, error), VESSA_OK);
    EXPECT_EQ(log.Count("unexpected"), 0);
    EXPECT_EQ(References("a" MODULE_SUFFIX), 2);
    EXPECT_EQ(provider.DestroyInstance(nested, error), VESSA_OK);
    EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("b"), VESSA_OK);
    EXPECT_EQ(hook.Count("a", "Uninit"), 0);
    EXPECT_EQ(provider.UnregisterPlugin("a"), VESSA_OK);
    EXPECT_EQ(hook.Count("a", "Init"), 1);
    EXPECT_EQ(hook.Count("a", "Uninit"), 1);
    EXPECT_EQ(hook.Count("a", "Unload"), 1);
}

TEST_F(NestedLoad, OfASiblingKeyAloneIsGivenBackWhenTheSiblingIsUnregistered) {
    const std::string path = Module("good_v2", "a" MODULE_SUFFIX);
    ModuleHook hook;
    hook.On("a", "Init", [&](ModuleCall&) {
        int own_error = 0;
        EXPECT_EQ(provider.CreateInstance("b", nested, own_error), VESSA_OK);
        EXPECT_EQ(provider.DestroyInstance(nested, own_error), VESSA_OK);
    });
    ASSERT_EQ(provider.RegisterPlugin("b", path, true), VESSA_OK);
    ASSERT_EQ(provider.RegisterPlugin("a", path, false), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("a"), VESSA_OK);
    EXPECT_EQ(hook.Count("a", "Unload"), 0);
    EXPECT_EQ(provider.UnregisterPlugin("b"), VESSA_OK);
    EXPECT_EQ(hook.Count("a", "Uninit"), 1);
    EXPECT_EQ(hook.Count("a", "Unload"), 1);
}

TEST_F(NestedLoad, OfASiblingKeyFallsWithTheFailingInitAndBothStartFromTheBeginning) {
    for (const char* const first : {"a", "b"}) {
        SCOPED_TRACE(first);
        const std::string second = first == std::string("a") ? "b" : "a";
        const std::string path = Module("good_v2", "a" MODULE_SUFFIX);
        ModuleHook hook;
        hook.On("a", "Init", [&](ModuleCall& call) {
            if (call.index > 1) return;
            int own_error = 0;
            EXPECT_EQ(provider.CreateInstance("b", nested, own_error), VESSA_OK);
            EXPECT_EQ(provider.DestroyInstance(nested, own_error), VESSA_OK);
            call.Return(7);
        });
        ASSERT_EQ(provider.RegisterPlugin("a", path, true), VESSA_OK);
        ASSERT_EQ(provider.RegisterPlugin("b", path, true), VESSA_OK);
        ASSERT_EQ(provider.CreateInstance("a", instance, error), VESSA_ERR_MODULE_INIT);
        EXPECT_EQ(hook.Count("a", "Unload"), 1);

        void* other = nullptr;
        ASSERT_EQ(provider.CreateInstance(first, instance, error), VESSA_OK);
        EXPECT_EQ(hook.Count("a", "Init"), 2);
        ASSERT_EQ(provider.CreateInstance(second, other, error), VESSA_OK);
        EXPECT_EQ(hook.Count("a", "Init"), 2);
        EXPECT_EQ(References("a" MODULE_SUFFIX), 2);
        EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
        EXPECT_EQ(provider.DestroyInstance(other, error), VESSA_OK);
        EXPECT_EQ(provider.UnregisterPlugin(first), VESSA_OK);
        EXPECT_EQ(hook.Count("a", "Uninit"), 0);
        EXPECT_EQ(provider.UnregisterPlugin(second), VESSA_OK);
        EXPECT_EQ(hook.Count("a", "Uninit"), 1);
        EXPECT_EQ(hook.Count("a", "Unload"), 2);
    }
}

TEST_F(NestedLoad, OfASiblingThatIsNotUsedAgainLeavesNothingAfterAFailingInit) {
    const std::string path = Module("good_v2", "a" MODULE_SUFFIX);
    ModuleHook hook;
    hook.On("a", "Init", [&](ModuleCall& call) {
        int own_error = 0;
        EXPECT_EQ(provider.CreateInstance("b", nested, own_error), VESSA_OK);
        EXPECT_EQ(provider.DestroyInstance(nested, own_error), VESSA_OK);
        call.Return(7);
    });
    ASSERT_EQ(provider.RegisterPlugin("b", path, true), VESSA_OK);
    ASSERT_EQ(provider.RegisterPlugin("a", path, false), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("b"), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("a"), VESSA_OK);
    EXPECT_EQ(hook.Count("a", "Uninit"), 0);
}

TEST_F(NestedLoad, WaitsForNobodyWhenTwoThreadsLoadTwoSiblingsOfOneFile) {
    const std::string path = Module("good_v2", "a" MODULE_SUFFIX);
    Gate in_init;
    Gate other_waits;
    ModuleHook hook;
    hook.On("a", "Init", [&](ModuleCall&) {
        in_init.Open();
        other_waits.Wait();
        int own_error = 0;
        EXPECT_EQ(provider.CreateInstance("b", nested, own_error), VESSA_OK);
    });
    ASSERT_EQ(provider.RegisterPlugin("a", path, true), VESSA_OK);
    ASSERT_EQ(provider.RegisterPlugin("b", path, true), VESSA_OK);
    void* other = nullptr;
    {
        LogCapture log;
        JoiningThread first([&] {
            int own_error = 0;
            EXPECT_EQ(provider.CreateInstance("a", instance, own_error), VESSA_OK);
        });
        in_init.Wait();
        // The loader's entry line of the second thread: the next thing it does is to wait for
        // the module.
        log.OnLine("3 param file_path = " + path, [&] { other_waits.Open(); });
        JoiningThread second([&] {
            int own_error = 0;
            EXPECT_EQ(provider.CreateInstance("b", other, own_error), VESSA_OK);
        });
        first.Join();
        second.Join();
        EXPECT_EQ(log.Count("unexpected"), 0);
    }
    EXPECT_EQ(References("a" MODULE_SUFFIX), 2);
    for (void* const each : {instance, other, nested})
        EXPECT_EQ(provider.DestroyInstance(each, error), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("a"), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("b"), VESSA_OK);
    EXPECT_EQ(hook.Count("a", "Init"), 1);
    EXPECT_EQ(hook.Count("a", "Unload"), 1);
}

TEST_F(NestedLoad, OfAnotherModuleInInitKeepsBothBalanced) {
    const std::string a = Module("good_v2", "a" MODULE_SUFFIX);
    const std::string b = Module("good_v2", "b" MODULE_SUFFIX);
    ModuleHook hook;
    hook.On("a", "Init", [&](ModuleCall&) {
        int own_error = 0;
        EXPECT_EQ(provider.CreateInstance("b", nested, own_error), VESSA_OK);
    });
    hook.On("a", "Uninit", [&](ModuleCall&) {
        int own_error = 0;
        EXPECT_EQ(provider.DestroyInstance(nested, own_error), VESSA_OK);
    });
    ASSERT_EQ(provider.RegisterPlugin("b", b, true), VESSA_OK);
    ASSERT_EQ(provider.RegisterPlugin("a", a, false), VESSA_OK);
    EXPECT_EQ(References("a" MODULE_SUFFIX), 1);
    EXPECT_EQ(References("b" MODULE_SUFFIX), 1);
    EXPECT_EQ(provider.UnregisterPlugin("a"), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("b"), VESSA_OK);
    EXPECT_EQ(hook.Count("b", "Unload"), 1);
}

TEST_F(NestedLoad, OfASiblingInUninitFailsAndLeavesTheUnloadAsItIs) {
    const std::string path = Module("good_v2", "a" MODULE_SUFFIX);
    ModuleHook hook;
    hook.On("a", "Uninit", [&](ModuleCall& call) {
        if (call.index > 1) return;
        int own_error = 0;
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(provider.CreateInstance("b", nested, own_error), VESSA_ERR_MODULE_LOAD);
            EXPECT_EQ(nested, nullptr);
        }
        EXPECT_EQ(hook.Count("a", "Unload"), 0) << "unloaded under its own Uninit";
    });
    ASSERT_EQ(provider.RegisterPlugin("b", path, true), VESSA_OK);
    ASSERT_EQ(provider.RegisterPlugin("a", path, false), VESSA_OK);
    LogCapture log;
    EXPECT_EQ(provider.UnregisterPlugin("a"), VESSA_OK);
    const std::string code = Code(VESSA_ERR_MODULE_LOAD);
    const Lines refused = {"2 param fkey = b",
                           "3 param file_path = " + path,
                           "5 load plugin dso failed, error " + code +
                               ", filename a" MODULE_SUFFIX ", folder path a" MODULE_SUFFIX,
                           "5 load plugin failed, error " + code +
                               ", plugin filename a" MODULE_SUFFIX ", plugin folder path " +
                               Folder(path),
                           "5 load plugin failed " + code + ", plugin file path " + path,
                           "5 load plugin failed " + code + ", plugin file path " + path,
                           "5 load plugin failed " + code + ", plugin file path " + path,
                           "5 create plugin instance failed " + code +
                               ", plugin error 0/0, fkey 0, plugin file path " + path};
    EXPECT_TRUE(log.Is(
        Lines{"3 param fkey = a"} + refused + refused + RecordUnload(path) +
        Lines{"3 unregister plugin succeeded, fkey a, file path " + path + ", delay load false"}));
    EXPECT_EQ(hook.Count("a", "Init"), 1);
    EXPECT_EQ(hook.Count("a", "Unload"), 1);

    ASSERT_EQ(provider.CreateInstance("b", instance, error), VESSA_OK);
    EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("b"), VESSA_OK);
    EXPECT_EQ(hook.Count("a", "Unload"), 2);
}

TEST_F(NestedLoad, OfAnotherModuleInUninitWorks) {
    const std::string a = Module("good_v2", "a" MODULE_SUFFIX);
    const std::string b = Module("good_v2", "b" MODULE_SUFFIX);
    ModuleHook hook;
    hook.On("a", "Uninit", [&](ModuleCall&) {
        int own_error = 0;
        EXPECT_EQ(provider.CreateInstance("b", nested, own_error), VESSA_OK);
        EXPECT_EQ(provider.DestroyInstance(nested, own_error), VESSA_OK);
    });
    ASSERT_EQ(provider.RegisterPlugin("b", b, true), VESSA_OK);
    ASSERT_EQ(provider.RegisterPlugin("a", a, false), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("a"), VESSA_OK);
    EXPECT_EQ(hook.Count("b", "Init"), 1);
    EXPECT_EQ(provider.UnregisterPlugin("b"), VESSA_OK);
}

}  // namespace
}  // namespace vessa_test
