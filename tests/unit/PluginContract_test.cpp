// How a module's entry is found and its table read.
#include <cstring>

#include "ModuleImage.h"
#include "TestPlatform.h"
#include "tova.h"
#include "unit/PluginWorld.h"
#include "vessa2/Plugin.h"

namespace vessa_test {
namespace {

class PluginContract : public PluginTest {
  protected:
    // Loads the module as a plug-in and gives the lines after the load of its file.
    int Load(const std::string& module, Lines* lines) {
        Plugin plugin(Module(module, module + MODULE_SUFFIX));
        LogCapture log;
        const int result = plugin.LoadPlugin();
        *lines = log.Lines();
        lines->erase(lines->begin(), lines->begin() + 3);
        if (result == VESSA_OK) {
            EXPECT_EQ(plugin.UnloadPlugin(), VESSA_OK);
        }
        return result;
    }

    Lines Refused(const std::string& module, const std::string& reason) {
        const std::string path = dir.Path(module + MODULE_SUFFIX);
        const std::string code = Code(VESSA_ERR_NO_INTERFACE);
        return {"3 param plugin_handle = {*h}", "5 " + reason,
                "5 get plugin ops failed, error " + code + ", plugin handle {*h}, filename " +
                    module + MODULE_SUFFIX,
                "3 param dso_handle = {*h}",
                "5 load plugin failed, error " + code + ", plugin filename " + module +
                    MODULE_SUFFIX ", plugin folder path " + Folder(path)};
    }

    static std::string Hex(const void* pointer) {
        char text[24];
        std::snprintf(text, sizeof text, "%llX",
                      static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(pointer)));
        return text;
    }
    template <class Function>
    static std::string Hex(Function* function) {
        return Hex(reinterpret_cast<const void*>(function));
    }
};

TEST_F(PluginContract, RefusesAnInvalidHandle) {
    Plugin plugin("/x/y" MODULE_SUFFIX);
    LogCapture log;
    tarnet_export_interface_t2 ops = {};
    EXPECT_EQ(plugin.GetPluginOps(nullptr, ops), VESSA_ERR_ARGUMENT);
    EXPECT_TRUE(log.Is(
        {"3 param plugin_handle = 0", "5 param plugin_handle should not be invalid handle."}));
}

TEST_F(PluginContract, ReadsAVersion2TableAndShowsItUnderTheKeptLabels) {
    const std::string path = Module("good_v2", "good" MODULE_SUFFIX);
    void* const handle = TOVA_LoadDSo(path.c_str());
    ASSERT_NE(handle, nullptr);
    const auto* const table =
        reinterpret_cast<tarnet_entry_v2_t>(TOVA_GetDsoSym(handle, TARNET_ENTRY_V2))();
    Plugin plugin(path);
    tarnet_export_interface_t2 ops = {};
    {
        LogCapture log;
        EXPECT_EQ(plugin.GetPluginOps(handle, ops), VESSA_OK);
        EXPECT_TRUE(log.Is(
            {"3 param plugin_handle = " + Hex(handle),
             "3 tarnet_handle " + Hex(handle) + ",Init " + Hex(table->Init) + ", Unint " +
                 Hex(table->Uninit) + ", CreateInstance 0, CreateInstance_V2 " +
                 Hex(table->DestroyInstance) + ",DestroyInstance " + Hex(table->QueryInterface) +
                 ", QueryInterface " + Hex(table->GetAllInterfaceIkeys) +
                 ", GetAllInterfaceIkeys " + Hex(table->GetFileVersion) + ", GetFileVersion " +
                 Hex(table->CreateInstance_V2) + ","}));
    }
    EXPECT_EQ(ops.Init, table->Init);
    EXPECT_EQ(ops.Uninit, table->Uninit);
    EXPECT_EQ(ops.CreateInstance, nullptr);
    EXPECT_EQ(ops.CreateInstance_V2, table->CreateInstance_V2);
    EXPECT_EQ(ops.DestroyInstance, table->DestroyInstance);
    EXPECT_EQ(ops.QueryInterface, table->QueryInterface);
    EXPECT_EQ(ops.GetAllInterfaceIkeys, table->GetAllInterfaceIkeys);
    EXPECT_EQ(ops.GetFileVersion, table->GetFileVersion);
    EXPECT_EQ(ops.GetPluginMapFkeys, table->GetPluginMapFkeys);
    TOVA_UnloadDSo(handle);
}

int SomeMap(char (*)[TARNET_FKEY_SIZE], int*) {
    return 0;
}
int SomeCreate(const char*, void**) {
    return 0;
}

TEST_F(PluginContract, ReadsAVersion1TableAndLeavesTheMapSlotAlone) {
    const std::string path = Module("good_v1", "good" MODULE_SUFFIX);
    void* const handle = TOVA_LoadDSo(path.c_str());
    ASSERT_NE(handle, nullptr);
    const auto* const table =
        reinterpret_cast<tarnet_entry_v1_t>(TOVA_GetDsoSym(handle, TARNET_ENTRY_V1))();
    Plugin plugin(path);
    tarnet_export_interface_t2 ops = {};
    ops.CreateInstance_V2 = SomeCreate;
    ops.GetPluginMapFkeys = SomeMap;
    {
        LogCapture log;
        EXPECT_EQ(plugin.GetPluginOps(handle, ops), VESSA_OK);
        EXPECT_TRUE(log.Contains(", CreateInstance " + Hex(table->CreateInstance) +
                                 ", CreateInstance_V2 " + Hex(table->DestroyInstance) + ","));
        EXPECT_TRUE(log.Contains(", GetFileVersion 0,"));
    }
    EXPECT_EQ(ops.Init, table->Init);
    EXPECT_EQ(ops.Uninit, table->Uninit);
    EXPECT_EQ(ops.CreateInstance, table->CreateInstance);
    EXPECT_EQ(ops.CreateInstance_V2, nullptr);
    EXPECT_EQ(ops.DestroyInstance, table->DestroyInstance);
    EXPECT_EQ(ops.QueryInterface, table->QueryInterface);
    EXPECT_EQ(ops.GetAllInterfaceIkeys, table->GetAllInterfaceIkeys);
    EXPECT_EQ(ops.GetFileVersion, table->GetFileVersion);
    EXPECT_EQ(ops.GetPluginMapFkeys, SomeMap);
    TOVA_UnloadDSo(handle);
}

TEST_F(PluginContract, TriesTheFourNamesInTheirOrder) {
    const std::string path = Module("no_entry", "no_entry" MODULE_SUFFIX);
    Runtime runtime;
    std::vector<std::string> names;
    runtime.Before(Tova::GetDsoSym, [&](RuntimeCall& call) { names.emplace_back(call.text); });
    Lines lines;
    EXPECT_EQ(Load("no_entry", &lines), VESSA_ERR_NO_INTERFACE);
    EXPECT_TRUE(LinesAre(
        lines,
        Refused("no_entry",
                "no tarnet export entry, e.g. Tarnet_GetPluginInterface, plugin_handle {*h}, "
                "error " +
                    Code(kErrorNoSymbol))));
    EXPECT_EQ(names, (std::vector<std::string>{
                         "TARNET_GetPluginInterface_V2", "_TARNET_GetPluginInterface_V2@0",
                         "TARNET_GetPluginInterface", "_TARNET_GetPluginInterface@0"}));
    runtime.Before(Tova::GetDsoSym, nullptr);
}

TEST_F(PluginContract, ReadsTheErrorThatTheLookUpLeft) {
    Runtime runtime;
    runtime.FailFrom(Tova::GetDsoSym, 1, kErrorBadModule);
    Lines lines;
    EXPECT_EQ(Load("no_entry", &lines), VESSA_ERR_NO_INTERFACE);
    ASSERT_GE(lines.size(), 2u);
    EXPECT_TRUE(LineMatches(lines[1],
                            "5 no tarnet export entry, e.g. Tarnet_GetPluginInterface, "
                            "plugin_handle {*}, error " +
                                Code(kErrorBadModule)));
}

// What the decorated names resolve to where they exist.
TEST_F(PluginContract, ReadsTheDecoratedNamesInTheVersionOfTheirPlainOnes) {
    for (const bool version2 : {true, false}) {
        SCOPED_TRACE(version2);
        const std::string path = Module(version2 ? "good_v2" : "good_v1", "good" MODULE_SUFFIX);
        ModuleHook hook;
        Runtime runtime;
        const std::string decorated =
            version2 ? TARNET_ENTRY_V2_DECORATED : TARNET_ENTRY_V1_DECORATED;
        runtime.Before(Tova::GetDsoSym, [&](RuntimeCall& call) {
            if (call.text != decorated) return call.Fail(kErrorNotFound);
            const char* const plain = version2 ? TARNET_ENTRY_V2 : TARNET_ENTRY_V1;
            call.ReturnPointer(
                FunctionBehind<void*(void*, const char*)>("TOVA_GetDsoSym")(call.object, plain));
        });
        Plugin plugin(path);
        ASSERT_EQ(plugin.LoadPlugin(), VESSA_OK);
        void* instance = nullptr;
        ASSERT_EQ(plugin.CreateInstance("k", instance), 0);
        EXPECT_EQ(hook.Count("good", version2 ? "CreateInstance_V2" : "CreateInstance"), 1);
        EXPECT_EQ(plugin.DestroyInstance(instance), 0);
        EXPECT_EQ(plugin.UnloadPlugin(), VESSA_OK);
        runtime.Before(Tova::GetDsoSym, nullptr);
    }
}

TEST_F(PluginContract, ReadsAModuleWithBothEntriesAsVersion2Only) {
    const std::string path = Module("both_entries", "both" MODULE_SUFFIX);
    ModuleHook hook;
    Runtime runtime;
    Plugin plugin(path);
    ASSERT_EQ(plugin.LoadPlugin(), VESSA_OK);
    EXPECT_EQ(runtime.Calls(Tova::GetDsoSym), 1);
    EXPECT_EQ(hook.Count("both", "Entry"), 1);
    void* instance = nullptr;
    ASSERT_EQ(plugin.CreateInstance("k", instance), 0);
    EXPECT_EQ(hook.Count("both", "CreateInstance_V2"), 1);
    EXPECT_EQ(hook.Count("both", "CreateInstance"), 0);
    EXPECT_EQ(plugin.DestroyInstance(instance), 0);
    EXPECT_EQ(plugin.UnloadPlugin(), VESSA_OK);
}

TEST_F(PluginContract, RefusesAnEntryThatReturnsNull) {
    Lines lines;
    EXPECT_EQ(Load("entry_null_v2", &lines), VESSA_ERR_NO_INTERFACE);
    EXPECT_TRUE(LinesAre(
        lines,
        Refused("entry_null_v2", "unable to get plugin export interface2, plugin_handle {*h}")));
    EXPECT_EQ(Load("entry_null_v1", &lines), VESSA_ERR_NO_INTERFACE);
    EXPECT_TRUE(LinesAre(
        lines,
        Refused("entry_null_v1", "unable to get plugin export interface, plugin_handle {*h}")));
}

TEST_F(PluginContract, RefusesATableWithoutAMandatoryOperation) {
    const std::pair<const char*, const char*> slots[] = {
        {"init", "Init"},
        {"uninit", "Uninit"},
        {"create", "CreateInstance/CreateInstance_V2"},
        {"destroy", "DestroyInstance"},
        {"query", "QueryInterface"}};
    for (const auto& [slot, name] : slots) {
        for (const char* const version : {"v1", "v2"}) {
            const std::string module = std::string("no_") + slot + "_" + version;
            SCOPED_TRACE(module);
            ModuleHook hook;
            Lines lines;
            EXPECT_EQ(Load(module, &lines), VESSA_ERR_NO_INTERFACE);
            EXPECT_TRUE(LinesAre(lines, Refused(module, std::string("no func ") + name +
                                                            " in plugin export interface, "
                                                            "plugin_handle {*h}")));
            EXPECT_EQ(hook.Journal(),
                      (Lines{"Load " + module, "Entry " + module, "Unload " + module}));
        }
    }
}

TEST_F(PluginContract, OnlyWarnsOfAMissingVersionOrIkeys) {
    struct Row {
        const char* module;
        const char* name;
        const char* described;
    };
    const char kNoVersion[] = "plugin file version , interface ikeys [iface]";
    const char kNoIkeys[] = "plugin file version 1.2.3 test, interface ikeys []";
    for (const Row& row : {Row{"no_version", "GetFileVersion", kNoVersion},
                           Row{"no_version_v1", "GetFileVersion", kNoVersion},
                           Row{"no_ikeys", "GetAllInterfaceIkeys", kNoIkeys},
                           Row{"no_ikeys_v1", "GetAllInterfaceIkeys", kNoIkeys}}) {
        SCOPED_TRACE(row.module);
        Lines lines;
        EXPECT_EQ(Load(row.module, &lines), VESSA_OK);
        EXPECT_TRUE(LinesAre(
            lines, {"3 param plugin_handle = {*h}",
                    std::string("4 no func ") + row.name +
                        " in plugin export interface, plugin_handle {*h}",
                    "3 tarnet_handle {*h},Init {*}",
                    "3 load plugin succeeded, plugin handle {*h}, plugin folder " + dir.Path() +
                        ", plugin filename " + row.module + MODULE_SUFFIX ", " + row.described}));
    }
}

TEST_F(PluginContract, SaysNothingOfAMissingMapQuestion) {
    const std::string path = Module("no_map", "no_map" MODULE_SUFFIX);
    Plugin plugin(path);
    LogCapture log;
    ASSERT_EQ(plugin.LoadPlugin(), VESSA_OK);
    EXPECT_TRUE(log.Is(ModuleLoad(path)));
    log.Clear();
    int count = 0;
    EXPECT_EQ(plugin.GetPluginMapFkeys(nullptr, &count), 0);
    EXPECT_TRUE(log.Is({"5 plugin ops GetPluginMapFkeys should not be NULL"}));
    EXPECT_EQ(plugin.UnloadPlugin(), VESSA_OK);
}

TEST_F(PluginContract, EndsTheIkeysAtTheFirstEmptyOne) {
    Lines lines;
    EXPECT_EQ(Load("ikeys_empty_entry", &lines), VESSA_OK);
    EXPECT_NE(lines.back().find("interface ikeys [a]"), std::string::npos) << lines.back();
    EXPECT_EQ(Load("ikeys_null", &lines), VESSA_OK);
    EXPECT_NE(lines.back().find("interface ikeys []"), std::string::npos) << lines.back();
}

TEST_F(PluginContract, TakesNoEntryFromALibraryThatTheModuleLinks) {
    Lines lines;
    EXPECT_EQ(Load("entry_in_dependency", &lines), VESSA_ERR_NO_INTERFACE);
    EXPECT_TRUE(LinesAre(
        lines,
        Refused("entry_in_dependency",
                "no tarnet export entry, e.g. Tarnet_GetPluginInterface, plugin_handle {*h}, "
                "error " +
                    Code(kErrorNoSymbol))));
    ModuleHook hook;
    Plugin plugin(Module("v1_entry_v2_in_dependency", "v1" MODULE_SUFFIX));
    ASSERT_EQ(plugin.LoadPlugin(), VESSA_OK);
    void* instance = nullptr;
    ASSERT_EQ(plugin.CreateInstance("k", instance), 0);
    EXPECT_EQ(hook.Count("v1", "CreateInstance"), 1);
    EXPECT_EQ(plugin.DestroyInstance(instance), 0);
    EXPECT_EQ(plugin.UnloadPlugin(), VESSA_OK);
}

}  // namespace
}  // namespace vessa_test
