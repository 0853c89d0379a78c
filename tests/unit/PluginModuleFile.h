// PluginModuleFile.h: the load of a plug-in from a file that the runtime refuses.
#ifndef VESSA_TESTS_UNIT_PLUGINMODULEFILE_H
#define VESSA_TESTS_UNIT_PLUGINMODULEFILE_H

#include <string>

#include "ModuleImage.h"
#include "TestPlatform.h"
#include "unit/PluginWorld.h"
#include "vessa2/Plugin.h"

namespace vessa_test {

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

    void ExpectRefused(const std::string& path, const std::string& error = Code(kErrorNoModule)) {
        Plugin plugin(path);
        LogCapture log;
        EXPECT_EQ(plugin.LoadPlugin(), VESSA_ERR_MODULE_LOAD);
        EXPECT_TRUE(log.Is(Refused(path, error)));
        EXPECT_FALSE(log.Others().empty()) << "the runtime gives no reason";
    }

    void ExpectRefusedUnrun(const std::string& module) {
        const std::string path = Module(module, module + MODULE_SUFFIX);
        ModuleHook hook;
        ExpectRefused(path, "{*}");
        EXPECT_TRUE(hook.Journal().empty()) << module;
    }
};

}  // namespace vessa_test

#endif
