// Module files that others have open, rename or replace.
#include <windows.h>

#include <string>

#include "HeldFile.h"
#include "unit/PluginModuleFile.h"

namespace vessa_test {
namespace {

TEST_F(PluginModuleFile, IsRefusedWhileAnotherSharesItWithNobody) {
    const std::string path = Module("good_v2", "good.dll");
    Plugin plugin(path);
    {
        const HeldFile other(path, GENERIC_READ, 0);
        ASSERT_TRUE(other.IsHeld());
        ExpectRefused(path, Code(ERROR_SHARING_VIOLATION));
    }
    EXPECT_EQ(plugin.LoadPlugin(), VESSA_OK);
    EXPECT_EQ(plugin.UnloadPlugin(), VESSA_OK);
}

TEST_F(PluginModuleFile, LoadsWhileAnotherReadsIt) {
    const std::string path = Module("good_v2", "good.dll");
    const HeldFile other(path, GENERIC_READ, FILE_SHARE_READ);
    ASSERT_TRUE(other.IsHeld());
    Plugin plugin(path);
    EXPECT_EQ(plugin.LoadPlugin(), VESSA_OK);
    EXPECT_EQ(plugin.UnloadPlugin(), VESSA_OK);
}

TEST_F(PluginModuleFile, LoadsUnderLettersOutsideTheCodePage) {
    const std::string path = Module("good_v2", "\xC3\xA4/\xE6\xBC\xA2/\xF0\x9F\x98\x80.dll");
    Plugin plugin(path);
    LogCapture log;
    EXPECT_EQ(plugin.LoadPlugin(), VESSA_OK);
    EXPECT_TRUE(log.Is(ModuleLoad(path)));
    EXPECT_EQ(plugin.UnloadPlugin(), VESSA_OK);
}

// As installers do it: the loaded file stays what it was under another name.
TEST_F(PluginModuleFile, MayBeRenamedAwayAndReplacedWhileItIsLoaded) {
    const std::string path = Module("good_v2", "good.dll");
    ModuleHook hook;
    Plugin plugin(path);
    ASSERT_EQ(plugin.LoadPlugin(), VESSA_OK);
    dir.Rename("good.dll", "good.old");
    Module("init_fails", "good.dll");
    void* instance = nullptr;
    ASSERT_EQ(plugin.CreateInstance("k", instance), 0);
    EXPECT_EQ(plugin.DestroyInstance(instance), 0);
    ASSERT_EQ(plugin.UnloadPlugin(), VESSA_OK);
    EXPECT_EQ(plugin.LoadPlugin(), VESSA_ERR_MODULE_INIT);
}

}  // namespace
}  // namespace vessa_test
