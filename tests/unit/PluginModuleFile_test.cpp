// What stands in a module's place and is none.
#include <sys/stat.h>

#include "unit/PluginWorld.h"
#include "vessa2/Plugin.h"

namespace vessa_test {
namespace {

class PluginModuleFile : public PluginTest {
  protected:
    // The library's lines for a file that is there and that the runtime refuses.
    Lines Refused(const std::string& path, const std::string& error) {
        const std::string code = Code(VESSA_ERR_MODULE_LOAD);
        return {"3 param filename = " + Name(path) + ", folder_path = " + Folder(path),
                "3 plugin file path " + path,
                "5 TOVA_LoadDso failed, error " + error + ", plugin path " + path,
                "3 load plugin rlt " + code + ", plugin dso handle 0",
                "5 load plugin dso failed, error " + code + ", filename " + Name(path) +
                    ", folder path " + Name(path),
                "5 load plugin failed, error " + code + ", plugin filename " + Name(path) +
                    ", plugin folder path " + Folder(path)};
    }

    void ExpectRefused(const std::string& path, const std::string& error = "8/8") {
        Plugin plugin(path);
        LogCapture log;
        EXPECT_EQ(plugin.LoadPlugin(), VESSA_ERR_MODULE_LOAD);
        EXPECT_TRUE(log.Is(Refused(path, error)));
        EXPECT_FALSE(log.Others().empty()) << "the runtime gives no reason";
    }

    std::string Changed(size_t at, char value, const std::string& relative) {
        std::string bytes = dir.Read("whole.so");
        bytes.at(at) = value;
        return dir.Write(relative, bytes);
    }
};

TEST_F(PluginModuleFile, IsReportedWhenItIsMissing) {
    const std::string path = dir.Path("p/gone.so");
    Plugin plugin(path);
    LogCapture log;
    EXPECT_EQ(plugin.LoadPlugin(), VESSA_ERR_NO_MODULE_FILE);
    const std::string code = Code(VESSA_ERR_NO_MODULE_FILE);
    EXPECT_TRUE(log.Is(
        {"3 param filename = gone.so, folder_path = " + Folder(path), "3 plugin file path " + path,
         "5 plugin file does not exist, file path " + path,
         "5 load plugin dso failed, error " + code + ", filename gone.so, folder path gone.so",
         "5 load plugin failed, error " + code + ", plugin filename gone.so, plugin folder path " +
             Folder(path)}));
}

TEST_F(PluginModuleFile, LoadsWithTheNextTryOnceItHasArrived) {
    Plugin plugin(dir.Path("late.so"));
    EXPECT_EQ(plugin.LoadPlugin(), VESSA_ERR_NO_MODULE_FILE);
    Module("good_v2", "late.so");
    EXPECT_EQ(plugin.LoadPlugin(), VESSA_OK);
    EXPECT_EQ(plugin.UnloadPlugin(), VESSA_OK);
}

TEST_F(PluginModuleFile, IsRefusedWithoutBlockingWhenItIsAFifo) {
    const std::string path = dir.Path("fifo.so");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    ExpectRefused(path);
}

TEST_F(PluginModuleFile, IsRefusedWhenItIsAFolder) {
    ExpectRefused(dir.MakeFolder("folder.so"));
}

TEST_F(PluginModuleFile, IsRefusedWhenItIsADevice) {
    ExpectRefused(dir.MakeLink("/dev/zero", "zero.so"));
}

TEST_F(PluginModuleFile, IsRefusedWhenItIsText) {
    ExpectRefused(dir.Write("text.so", "#!/bin/sh"));
}

TEST_F(PluginModuleFile, IsRefusedWhenItIsEmpty) {
    ExpectRefused(dir.Write("empty.so", ""));
}

TEST_F(PluginModuleFile, IsRefusedWhereverItIsCutShortOfItsSegments) {
    Module("good_v2", "whole.so");
    const std::string bytes = dir.Read("whole.so");
    for (const size_t size : {size_t{4}, size_t{63}, size_t{64}, size_t{100}, bytes.size() / 4}) {
        SCOPED_TRACE(size);
        ExpectRefused(dir.Write("cut.so", bytes.substr(0, size)));
    }
}

TEST_F(PluginModuleFile, IsRefusedWhenItIsOfAnotherClassOrMachine) {
    Module("good_v2", "whole.so");
    constexpr size_t kClassAt = 4;
    constexpr size_t kMachineAt = 18;
    ExpectRefused(Changed(kClassAt, 1, "class.so"));
    ExpectRefused(Changed(kMachineAt, 3, "machine.so"));
}

TEST_F(PluginModuleFile, IsRefusedWhenALibraryOrASymbolIsMissing) {
    for (const char* const module : {"needs_missing_library", "undefined_symbol"}) {
        SCOPED_TRACE(module);
        const std::string path = Module(module, std::string(module) + ".so");
        ModuleHook hook;
        ExpectRefused(path, "{*}");
        EXPECT_TRUE(hook.Journal().empty());
    }
}

TEST_F(PluginModuleFile, IsReportedWithTheErrorThatTheRuntimeLeft) {
    const std::string path = Module("good_v2", "good.so");
    Runtime runtime;
    runtime.FailCall(Tova::LoadDSo, 1, EACCES);
    Plugin plugin(path);
    LogCapture log;
    EXPECT_EQ(plugin.LoadPlugin(), VESSA_ERR_MODULE_LOAD);
    EXPECT_TRUE(log.Is(Refused(path, "13/D")));
    EXPECT_EQ(plugin.LoadPlugin(), VESSA_OK);
    EXPECT_EQ(plugin.UnloadPlugin(), VESSA_OK);
}

// Replaced by rename, the file that is loaded stays what it was.
TEST_F(PluginModuleFile, MayBeReplacedWhileItIsLoaded) {
    const std::string path = Module("good_v2", "good.so");
    ModuleHook hook;
    Plugin plugin(path);
    ASSERT_EQ(plugin.LoadPlugin(), VESSA_OK);
    Module("init_fails", "good.so");
    void* instance = nullptr;
    ASSERT_EQ(plugin.CreateInstance("k", instance), 0);
    EXPECT_EQ(plugin.DestroyInstance(instance), 0);
    ASSERT_EQ(plugin.UnloadPlugin(), VESSA_OK);
    EXPECT_EQ(plugin.LoadPlugin(), VESSA_ERR_MODULE_INIT);
}

}  // namespace
}  // namespace vessa_test
