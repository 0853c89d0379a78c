// Modules that export their entries under decorated names.
#include <string>
#include <vector>

#include "unit/PluginWorld.h"
#include "vessa2/Plugin.h"

namespace vessa_test {
namespace {

using Names = std::vector<std::string>;

class DecoratedEntry : public PluginTest {
  protected:
    // Loads the module, creates and destroys an instance, and unloads it: the names that were
    // looked up, and the operations from the entry to the create.
    void Use(const std::string& module) {
        const std::string path = Module(module, "m.dll");
        ModuleHook hook;
        Runtime runtime;
        LogCapture log;
        runtime.Before(Tova::GetDsoSym, [&](RuntimeCall& call) { names.emplace_back(call.text); });
        Plugin plugin(path);
        ASSERT_EQ(plugin.LoadPlugin(), VESSA_OK);
        EXPECT_TRUE(log.Contains("load plugin succeeded"));
        runtime.Before(Tova::GetDsoSym, nullptr);
        void* instance = nullptr;
        EXPECT_EQ(plugin.CreateInstance("k", instance), 0);
        EXPECT_EQ(plugin.DestroyInstance(instance), 0);
        EXPECT_EQ(plugin.UnloadPlugin(), VESSA_OK);
        operations = hook.Journal();
    }

    Names names;
    Lines operations;
};

TEST_F(DecoratedEntry, OfVersion2IsLookedForAfterThePlainOne) {
    Use("decorated_v2");
    EXPECT_EQ(names, (Names{"TARNET_GetPluginInterface_V2", "_TARNET_GetPluginInterface_V2@0"}));
    EXPECT_EQ(operations,
              (Lines{"Load m", "Entry m", "Init m", "GetFileVersion m", "GetAllInterfaceIkeys m",
                     "CreateInstance_V2 m key=k", "DestroyInstance m", "Uninit m", "Unload m"}));
}

TEST_F(DecoratedEntry, OfVersion1IsLookedForLast) {
    Use("decorated_v1");
    EXPECT_EQ(names, (Names{"TARNET_GetPluginInterface_V2", "_TARNET_GetPluginInterface_V2@0",
                            "TARNET_GetPluginInterface", "_TARNET_GetPluginInterface@0"}));
    EXPECT_EQ(operations,
              (Lines{"Load m", "Entry m", "Init m", "GetFileVersion m", "GetAllInterfaceIkeys m",
                     "CreateInstance m", "DestroyInstance m", "Uninit m", "Unload m"}));
}

TEST_F(DecoratedEntry, OfVersion1IsNotUsedBesideAPlainOneOfVersion2) {
    Use("decorated_v1_plain_v2");
    EXPECT_EQ(names, Names{"TARNET_GetPluginInterface_V2"});
    EXPECT_EQ(operations,
              (Lines{"Load m", "Entry m", "Init m", "GetFileVersion m", "GetAllInterfaceIkeys m",
                     "CreateInstance_V2 m key=k", "DestroyInstance m", "Uninit m", "Unload m"}));
}

}  // namespace
}  // namespace vessa_test
