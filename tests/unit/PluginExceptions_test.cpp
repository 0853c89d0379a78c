// Modules that throw.
#include "TestPlatform.h"
#include "unit/PluginThrows.h"

namespace vessa_test {
namespace {

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

    ASSERT_EQ(provider.RegisterPlugin("m", Module("throw_map", "m" MODULE_SUFFIX), false),
              VESSA_OK);
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

}  // namespace
}  // namespace vessa_test
