// What stands in a module's place and is none.
#include "unit/PluginModuleFile.h"

#include "ModuleImage.h"
#include "TestPlatform.h"

namespace vessa_test {
namespace {

TEST_F(PluginModuleFile, IsReportedWhenItIsMissing) {
    const std::string path = dir.Path("p/gone" MODULE_SUFFIX);
    Plugin plugin(path);
    LogCapture log;
    EXPECT_EQ(plugin.LoadPlugin(), VESSA_ERR_NO_MODULE_FILE);
    const std::string code = Code(VESSA_ERR_NO_MODULE_FILE);
    EXPECT_TRUE(log.Is(
        {"3 param filename = gone" MODULE_SUFFIX ", folder_path = " + Folder(path),
         "3 plugin file path " + path, "5 plugin file does not exist, file path " + path,
         "5 load plugin dso failed, error " + code +
             ", filename gone" MODULE_SUFFIX ", folder path gone" MODULE_SUFFIX,
         "5 load plugin failed, error " + code +
             ", plugin filename gone" MODULE_SUFFIX ", plugin folder path " + Folder(path)}));
}

TEST_F(PluginModuleFile, LoadsWithTheNextTryOnceItHasArrived) {
    Plugin plugin(dir.Path("late" MODULE_SUFFIX));
    EXPECT_EQ(plugin.LoadPlugin(), VESSA_ERR_NO_MODULE_FILE);
    Module("good_v2", "late" MODULE_SUFFIX);
    EXPECT_EQ(plugin.LoadPlugin(), VESSA_OK);
    EXPECT_EQ(plugin.UnloadPlugin(), VESSA_OK);
}

TEST_F(PluginModuleFile, IsRefusedWhenItIsAFolder) {
    ExpectRefused(dir.MakeFolder("folder" MODULE_SUFFIX));
}

TEST_F(PluginModuleFile, IsRefusedWhenItIsText) {
    ExpectRefused(dir.Write("text" MODULE_SUFFIX, "#!/bin/sh"));
}

TEST_F(PluginModuleFile, IsRefusedWhenItIsEmpty) {
    ExpectRefused(dir.Write("empty" MODULE_SUFFIX, ""));
}

TEST_F(PluginModuleFile, IsRefusedWhereverItIsCutShortOfItsSegments) {
    Module("good_v2", "whole" MODULE_SUFFIX);
    const std::string bytes = dir.Read("whole" MODULE_SUFFIX);
    for (const size_t size : {size_t{4}, size_t{63}, size_t{64}, size_t{100}, bytes.size() / 4}) {
        SCOPED_TRACE(size);
        ExpectRefused(dir.Write("cut" MODULE_SUFFIX, bytes.substr(0, size)));
    }
}

TEST_F(PluginModuleFile, IsRefusedWhenItIsOfAnotherClassOrMachine) {
    Module("good_v2", "whole" MODULE_SUFFIX);
    const std::string bytes = dir.Read("whole" MODULE_SUFFIX);
    ExpectRefused(dir.Write("class" MODULE_SUFFIX, OfAnotherClass(bytes)));
    ExpectRefused(dir.Write("machine" MODULE_SUFFIX, OfAnotherMachine(bytes)));
}

TEST_F(PluginModuleFile, IsRefusedWhenALibraryOrASymbolIsMissing) {
    ExpectRefusedUnrun("needs_missing_library");
    if (!LoaderLooksForSymbols(dir))
        GTEST_SKIP() << "the symbol: this system's loader takes it later";
    ExpectRefusedUnrun("undefined_symbol");
}

TEST_F(PluginModuleFile, IsReportedWithTheErrorThatTheRuntimeLeft) {
    const std::string path = Module("good_v2", "good" MODULE_SUFFIX);
    Runtime runtime;
    runtime.FailCall(Tova::LoadDSo, 1, kErrorAccess);
    Plugin plugin(path);
    LogCapture log;
    EXPECT_EQ(plugin.LoadPlugin(), VESSA_ERR_MODULE_LOAD);
    EXPECT_TRUE(log.Is(Refused(path, Code(kErrorAccess))));
    EXPECT_EQ(plugin.LoadPlugin(), VESSA_OK);
    EXPECT_EQ(plugin.UnloadPlugin(), VESSA_OK);
}

}  // namespace
}  // namespace vessa_test
