// What stands in a module's place and would block, and a module that is replaced while it is in
// use.
#include <sys/stat.h>

#include "TestPlatform.h"
#include "unit/PluginModuleFile.h"

namespace vessa_test {
namespace {

TEST_F(PluginModuleFile, IsRefusedWithoutBlockingWhenItIsAFifo) {
    const std::string path = dir.Path("fifo" MODULE_SUFFIX);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    ExpectRefused(path);
}

TEST_F(PluginModuleFile, IsRefusedWhenItIsADevice) {
    ExpectRefused(dir.MakeLink("/dev/zero", "zero" MODULE_SUFFIX));
}

// Replaced by rename, the file that is loaded stays what it was.
TEST_F(PluginModuleFile, MayBeReplacedWhileItIsLoaded) {
    const std::string path = Module("good_v2", "good" MODULE_SUFFIX);
    ModuleHook hook;
    Plugin plugin(path);
    ASSERT_EQ(plugin.LoadPlugin(), VESSA_OK);
    Module("init_fails", "good" MODULE_SUFFIX);
    void* instance = nullptr;
    ASSERT_EQ(plugin.CreateInstance("k", instance), 0);
    EXPECT_EQ(plugin.DestroyInstance(instance), 0);
    ASSERT_EQ(plugin.UnloadPlugin(), VESSA_OK);
    EXPECT_EQ(plugin.LoadPlugin(), VESSA_ERR_MODULE_INIT);
}

}  // namespace
}  // namespace vessa_test
