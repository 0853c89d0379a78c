// A registration and an unregistration whose thread ends inside the module.
#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>
#include <string>

#include "TestPlatform.h"
#include "support/ModuleHook.h"
#include "support/Modules.h"
#include "support/TempDir.h"
#include "unit/ConfigItems.h"
#include "unit/posix/EndsItsThread.h"
#include "vessa/vessa.h"
#include "vessa2/PluginCoordinator.h"

namespace vessa_test {
namespace {

int Create(PluginCoordinator& coordinator, const std::string& fkey) {
    void* instance = nullptr;
    int plugin_error = 0;
    const int code = coordinator.provider().CreateInstance(fkey, instance, plugin_error);
    if (code == VESSA_OK) coordinator.provider().DestroyInstance(instance, plugin_error);
    return code;
}

TEST(CoordinatorWhoseThreadEnds, RegistersTheRestWithTheNextListAndUnregistersOnce) {
    TempDir dir;
    ModuleHook hook;
    PluginCoordinator coordinator;
    const std::string path = Install(dir, "good_v2", "a" MODULE_SUFFIX);
    const auto end_the_thread = [](ModuleCall& call) {
        if (call.index == 1) pthread_exit(nullptr);
    };
    hook.On("a", "Init", end_the_thread);
    hook.On("a", "Uninit", end_the_thread);
    PluginConfigList list;
    list.push_back(ItemFields{"k", path, false, false, "/list", {}}.Make());

    EXPECT_TRUE(EndsItsThread([&] { coordinator.RegisterPluginList(list); }));
    EXPECT_EQ(hook.Count("a", "Init"), 1);
    coordinator.RegisterPluginList({});
    EXPECT_EQ(hook.Count("a", "Init"), 2);
    EXPECT_EQ(Create(coordinator, "k"), VESSA_OK);

    EXPECT_TRUE(EndsItsThread([&] { coordinator.UnregisterPluginList(list); }));
    EXPECT_EQ(hook.Count("a", "Uninit"), 1);
    EXPECT_EQ(Create(coordinator, "k"), VESSA_ERR_NOT_REGISTERED);
    coordinator.UnregisterPluginList(list);
    EXPECT_EQ(hook.Count("a", "Uninit"), 1);
    EXPECT_TRUE(coordinator.provider().IsEmpty());
}

}  // namespace
}  // namespace vessa_test
