// No memory at any point of an operation: the stated code, nothing left behind, and the next
// try succeeds.
#include <cstdlib>

#include "TestPlatform.h"
#include "support/Allocation.h"
#include "support/Child.h"
#include "unit/PluginWorld.h"

namespace vessa_test {
namespace {

class PluginAllocation : public ProviderTest {
  protected:
    struct Outcome {
        int result = 0;
        bool threw = false;
        long failed = 0;
    };

    template <class Operation>
    static Outcome WithFailure(long nth, Operation operation) {
        Outcome outcome;
        AllocationFailure failure(nth);
        try {
            outcome.result = operation();
        } catch (const std::bad_alloc&) {
            outcome.threw = true;
        }
        outcome.failed = failure.Failed();
        return outcome;
    }

    // Fails the first allocation of the operation, then the second, until it succeeds without
    // a failure. prepare and check run before and after each try.
    template <class Prepare, class Operation, class Check>
    void FailEach(Prepare prepare, Operation operation, Check check) {
        constexpr long kMost = 500;
        long nth = 1;
        for (; nth <= kMost; ++nth) {
            SCOPED_TRACE(nth);
            prepare();
            const Outcome outcome = WithFailure(nth, operation);
            EXPECT_FALSE(outcome.threw);
            EXPECT_EQ(PluginProviderAccess::Readers(provider), 0);
            check(outcome.result, outcome.failed > 0);
            if (outcome.failed == 0 || HasFailure()) break;
        }
        EXPECT_GT(nth, 1) << "the operation allocates nothing";
        EXPECT_LE(nth, kMost);
    }
    static void Nothing() {}

    // A name too long to be kept inside a string object.
    const std::string fkey = "a key that is longer than a string keeps inside";
    int error = 0;
    void* instance = nullptr;
};

TEST_F(PluginAllocation, FailureInARegistrationLeavesNoEntryAndTheNextSucceeds) {
    for (const int threshold : {1, 6}) {
        SCOPED_TRACE(threshold);
        LogCapture log(threshold);
        const std::string path = "/nowhere/and/a/long/path/to/a/module" MODULE_SUFFIX;
        FailEach(
            Nothing, [&] { return provider.RegisterPlugin(fkey, path, true); },
            [&](int result, bool failed) {
                const bool entered = PluginProviderAccess::Collection(provider).count(fkey) == 1;
                EXPECT_EQ(entered, result == VESSA_OK);
                EXPECT_EQ(PluginProviderAccess::IndexedNames(provider), entered ? 1u : 0u);
                if (!failed) {
                    EXPECT_EQ(result, VESSA_OK);
                }
                if (result != VESSA_OK) {
                    EXPECT_EQ(result, VESSA_ERR_OUT_OF_MEMORY);
                    EXPECT_EQ(provider.RegisterPlugin(fkey, path, true), VESSA_OK);
                }
                EXPECT_EQ(provider.UnregisterPlugin(fkey), VESSA_OK);
            });
    }
}

TEST_F(PluginAllocation, FailureOfARecordIsReported) {
    LogCapture log;
    const std::string path = "/nowhere/x" MODULE_SUFFIX;
    const std::string values =
        ", out of memory, fkey " + fkey + ", file_path " + path + ", delay_load true";
    int of_record = 0;
    FailEach([&] { log.Clear(); }, [&] { return provider.RegisterPlugin(fkey, path, true); },
             [&](int result, bool) {
                 if (result == VESSA_OK) {
                     EXPECT_EQ(provider.UnregisterPlugin(fkey), VESSA_OK);
                     return;
                 }
                 of_record += log.Count("5 create PluginData failed" + values);
                 EXPECT_EQ(log.Count("5 "), 1);
             });
    EXPECT_GE(of_record, 3);
}

TEST_F(PluginAllocation, FailureInARegistrationBesideOthersLeavesTheseAlone) {
    const std::string path = "/nowhere/long/enough/to/allocate/x" MODULE_SUFFIX;
    LogCapture log;
    ASSERT_EQ(provider.RegisterPlugin("a", path, true), VESSA_OK);
    FailEach(
        Nothing, [&] { return provider.RegisterPlugin(fkey, path, true); },
        [&](int result, bool) {
            EXPECT_EQ(PluginProviderAccess::Collection(provider).count("a"), 1u);
            if (result != VESSA_OK) {
                EXPECT_EQ(result, VESSA_ERR_OUT_OF_MEMORY);
                EXPECT_EQ(PluginProviderAccess::Collection(provider).count(fkey), 0u);
                EXPECT_EQ(provider.RegisterPlugin("b", "/elsewhere/x" MODULE_SUFFIX, true),
                          VESSA_ERR_PLUGIN_CONFLICT);
            } else {
                EXPECT_EQ(provider.UnregisterPlugin(fkey), VESSA_OK);
            }
        });
    EXPECT_EQ(provider.UnregisterPlugin("a"), VESSA_OK);
}

TEST_F(PluginAllocation, FailureInALoadingRegistrationRegistersAndLoadsLater) {
    const std::string path = Module("good_v2", "a_module_with_a_long_name" MODULE_SUFFIX);
    LogCapture log;
    FailEach(
        Nothing, [&] { return provider.RegisterPlugin(fkey, path, false); },
        [&](int result, bool) {
            if (result != VESSA_OK) {
                EXPECT_EQ(result, VESSA_ERR_OUT_OF_MEMORY);
                EXPECT_TRUE(PluginProviderAccess::Collection(provider).empty());
                EXPECT_TRUE(PluginLoaderAccess::Collection(loader).empty());
                return;
            }
            EXPECT_EQ(provider.CreateInstance(fkey, instance, error), VESSA_OK);
            EXPECT_EQ(References("a_module_with_a_long_name" MODULE_SUFFIX), 1);
            EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
            EXPECT_EQ(provider.UnregisterPlugin(fkey), VESSA_OK);
            EXPECT_TRUE(PluginLoaderAccess::Collection(loader).empty());
        });
}

TEST_F(PluginAllocation, FailureInACreateLeavesNoInstanceAndTheNextSucceeds) {
    const std::string path = Module("good_v2", "a_module_with_a_long_name" MODULE_SUFFIX);
    ModuleHook hook;
    LogCapture log;
    FailEach([&] { ASSERT_EQ(provider.RegisterPlugin(fkey, path, true), VESSA_OK); },
             [&] { return provider.CreateInstance(fkey, instance, error); },
             [&](int result, bool) {
                 if (result != VESSA_OK) {
                     EXPECT_EQ(result, VESSA_ERR_OUT_OF_MEMORY);
                     EXPECT_EQ(instance, nullptr);
                     EXPECT_EQ(error, 0);
                     EXPECT_EQ(Record(fkey)->instance_count(), 0);
                     EXPECT_EQ(PluginProviderAccess::Instances(provider).Size(), 0u);
                     EXPECT_EQ(provider.CreateInstance(fkey, instance, error), VESSA_OK);
                 }
                 EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
                 EXPECT_EQ(provider.UnregisterPlugin(fkey), VESSA_OK);
                 EXPECT_TRUE(PluginLoaderAccess::Collection(loader).empty());
             });
    EXPECT_EQ(hook.Count("a_module_with_a_long_name", "CreateInstance_V2"),
              hook.Count("a_module_with_a_long_name", "DestroyInstance"));
}

TEST_F(PluginAllocation, FailureInACreateOfALoadedPluginKeepsItsOtherInstances) {
    const std::string path = Module("good_v2", "a_module_with_a_long_name" MODULE_SUFFIX);
    LogCapture log;
    ASSERT_EQ(provider.RegisterPlugin(fkey, path, false), VESSA_OK);
    void* other = nullptr;
    ASSERT_EQ(provider.CreateInstance(fkey, other, error), VESSA_OK);
    FailEach(
        Nothing, [&] { return provider.CreateInstance(fkey, instance, error); },
        [&](int result, bool) {
            if (result == VESSA_OK) {
                EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
            } else {
                EXPECT_EQ(result, VESSA_ERR_OUT_OF_MEMORY);
                EXPECT_EQ(instance, nullptr);
            }
            EXPECT_EQ(Record(fkey)->instance_count(), 1);
            EXPECT_EQ(PluginProviderAccess::Instances(provider).Size(), 1u);
        });
    EXPECT_EQ(provider.DestroyInstance(other, error), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin(fkey), VESSA_OK);
}

// An unload cannot be tried again: it must not need memory.
TEST_F(PluginAllocation, FailureInAnUnregistrationStillUnloads) {
    const std::string path = Module("good_v2", "a_module_with_a_long_name" MODULE_SUFFIX);
    ModuleHook hook;
    LogCapture log;
    FailEach([&] { ASSERT_EQ(provider.RegisterPlugin(fkey, path, false), VESSA_OK); },
             [&] { return provider.UnregisterPlugin(fkey); },
             [&](int result, bool) {
                 EXPECT_EQ(result, VESSA_OK);
                 EXPECT_TRUE(PluginProviderAccess::Collection(provider).empty());
                 EXPECT_TRUE(PluginLoaderAccess::Collection(loader).empty());
             });
    EXPECT_EQ(hook.Count("a_module_with_a_long_name", "Init"),
              hook.Count("a_module_with_a_long_name", "Unload"));
}

TEST_F(PluginAllocation, FailureInTheDestroyOfTheLastInstanceStillUnloads) {
    const std::string path = Module("good_v2", "a_module_with_a_long_name" MODULE_SUFFIX);
    ModuleHook hook;
    LogCapture log;
    FailEach(
        [&] {
            ASSERT_EQ(provider.RegisterPlugin(fkey, path, true), VESSA_OK);
            ASSERT_EQ(provider.CreateInstance(fkey, instance, error), VESSA_OK);
            ASSERT_EQ(provider.UnregisterPlugin(fkey), VESSA_OK);
        },
        [&] { return provider.DestroyInstance(instance, error); },
        [&](int result, bool) {
            EXPECT_EQ(result, VESSA_OK);
            EXPECT_TRUE(PluginProviderAccess::Collection(provider).empty());
            EXPECT_TRUE(PluginLoaderAccess::Collection(loader).empty());
        });
    EXPECT_EQ(hook.Count("a_module_with_a_long_name", "Init"),
              hook.Count("a_module_with_a_long_name", "Unload"));
}

TEST_F(PluginAllocation, FailureDuringAnUnloadThatWasPutOffStillUnloads) {
    const std::string helper_path = Module("good_v2", "a_helper_with_a_long_name" MODULE_SUFFIX);
    const std::string path = Module("good_v2", "player" MODULE_SUFFIX);
    ModuleHook hook;
    LogCapture log;
    void* helper = nullptr;
    long nth = 0;
    hook.On("player", "CreateInstance_V2", [&](ModuleCall&) {
        int own_error = 0;
        EXPECT_EQ(provider.DestroyInstance(helper, own_error), VESSA_OK);
    });
    ASSERT_EQ(provider.RegisterPlugin("player", path, false), VESSA_OK);
    FailEach(
        [&] {
            ++nth;
            ASSERT_EQ(provider.RegisterPlugin(fkey, helper_path, true), VESSA_OK);
            ASSERT_EQ(provider.CreateInstance(fkey, helper, error), VESSA_OK);
            ASSERT_EQ(provider.UnregisterPlugin(fkey), VESSA_OK);
        },
        [&] { return provider.CreateInstance("player", instance, error); },
        [&](int result, bool) {
            if (result == VESSA_OK) {
                EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
            } else {
                EXPECT_EQ(result, VESSA_ERR_OUT_OF_MEMORY);
            }
            EXPECT_EQ(PluginProviderAccess::Collection(provider).count(fkey), 0u);
            EXPECT_EQ(PluginLoaderAccess::Collection(loader).size(), 1u);
        });
    EXPECT_EQ(hook.Count("a_helper_with_a_long_name", "Unload"), nth);
    EXPECT_EQ(provider.UnregisterPlugin("player"), VESSA_OK);
}

TEST_F(PluginAllocation, FailureInAQueryOnlyCostsMessages) {
    const std::string path = Module("good_v2", "a_module_with_a_long_name" MODULE_SUFFIX);
    LogCapture log;
    ASSERT_EQ(provider.RegisterPlugin(fkey, path, false), VESSA_OK);
    ASSERT_EQ(provider.CreateInstance(fkey, instance, error), VESSA_OK);
    void* iface = nullptr;
    const std::string ikey = TEST_MODULE_IKEY;
    FailEach([&] { iface = nullptr; },
             [&] { return provider.QueryInterface(instance, ikey, iface, error); },
             [&](int result, bool) {
                 EXPECT_EQ(result, VESSA_OK);
                 EXPECT_NE(iface, nullptr);
             });
    EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin(fkey), VESSA_OK);
}

TEST_F(PluginAllocation, FailureInTheLoaderKeepsNoEntryAndTheNextSucceeds) {
    const std::string path = Module("good_v2", "a_module_with_a_long_name" MODULE_SUFFIX);
    LogCapture log;
    int reported = 0;
    Plugin* plugin = nullptr;
    FailEach([&] { log.Clear(); }, [&] { return loader.LoadPlugin(path, plugin); },
             [&](int result, bool) {
                 if (result != VESSA_OK) {
                     EXPECT_EQ(result, VESSA_ERR_OUT_OF_MEMORY);
                     EXPECT_EQ(plugin, nullptr);
                     EXPECT_TRUE(PluginLoaderAccess::Collection(loader).empty());
                     reported += log.Count(
                         "5 create PluginData failed, out of memory, plugin file path " + path);
                     EXPECT_EQ(loader.LoadPlugin(path, plugin), VESSA_OK);
                 }
                 EXPECT_EQ(loader.UnloadPlugin(plugin), VESSA_OK);
                 EXPECT_TRUE(PluginLoaderAccess::Collection(loader).empty());
             });
    EXPECT_GE(reported, 2);
}

// Most declared plug-ins are never asked for: they have no primitives of the system.
TEST_F(PluginAllocation, ARecordHasItsPrimitivesWithItsFirstLoad) {
    Runtime runtime;
    const long before = runtime.Calls(Tova::MutexCreate);
    ASSERT_EQ(provider.RegisterPlugin("k", "/nowhere/x" MODULE_SUFFIX, true), VESSA_OK);
    EXPECT_EQ(runtime.Calls(Tova::MutexCreate), before);
    EXPECT_NE(provider.CreateInstance("k", instance, error), VESSA_OK);
    EXPECT_GT(runtime.Calls(Tova::MutexCreate), before);
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
}

TEST_F(PluginAllocation, FailureOfAPrimitiveOfARecordIsOneOfMemoryAndTheNextLoadSucceeds) {
    const std::string path = Module("good_v2", "x" MODULE_SUFFIX);
    ASSERT_EQ(provider.RegisterPlugin("k", path, true), VESSA_OK);
    for (int nth = 1; nth <= 2; ++nth) {
        LogCapture log;
        Runtime runtime;
        runtime.FailCall(Tova::MutexCreate, nth, kErrorNoMemory);
        EXPECT_EQ(provider.CreateInstance("k", instance, error), VESSA_ERR_OUT_OF_MEMORY);
        EXPECT_EQ(instance, nullptr);
        EXPECT_TRUE(log.Contains("5 load plugin failed -2147483640/"));
    }
    ASSERT_EQ(provider.CreateInstance("k", instance, error), VESSA_OK);
    EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin("k"), VESSA_OK);
}

// The process's loader is made with the first load, so each try needs a process of its own.
constexpr char kNth[] = "VESSA_TEST_NTH";
constexpr int kNothingFailed = 3;

void RegisterInAFreshProcess(long nth) {
    // What the stand-in for the runtime keeps is not to be the allocation that fails.
    { const Runtime runtime; }
    TempDir dir;
    const std::string path = Install(dir, "good_v2", "a" MODULE_SUFFIX);
    const std::string fkey = "k";
    PluginProvider provider;
    int result = 0;
    long failed = 0;
    {
        AllocationFailure failure(nth);
        result = provider.RegisterPlugin(fkey, path, false);
        failed = failure.Failed();
    }
    EXPECT_EQ(PluginProviderAccess::Readers(provider), 0);
    EXPECT_EQ(PluginProviderAccess::Collection(provider).count(fkey), result == VESSA_OK ? 1u : 0u);
    EXPECT_EQ(provider.RegisterPlugin(fkey, path, false), VESSA_OK);
    int error = 0;
    void* instance = nullptr;
    EXPECT_EQ(provider.CreateInstance(fkey, instance, error), VESSA_OK);
    EXPECT_EQ(provider.DestroyInstance(instance, error), VESSA_OK);
    EXPECT_EQ(provider.UnregisterPlugin(fkey), VESSA_OK);
    if (failed == 0 && !testing::Test::HasFailure()) {
        std::fflush(nullptr);
        std::_Exit(kNothingFailed);
    }
}

TEST(PluginLoaderFirstUse, WithoutMemoryIsAFailedLoadThatTheNextOneMakesGood) {
    if (IsChild()) {
        RegisterInAFreshProcess(std::atol(std::getenv(kNth)));
        return;
    }
    for (long nth = 1; nth < 200; ++nth) {
        ChildOptions options = ThisTestAsChild();
        options.environment[kNth] = std::to_string(nth);
        const ChildResult result = RunChild(options);
        if (result.Exited(kNothingFailed)) return;
        ASSERT_TRUE(result.Exited(0)) << "allocation " << nth << "\n" << result;
    }
    FAIL() << "every try failed";
}

}  // namespace
}  // namespace vessa_test
