// What the test modules export and answer, without the plug-in host library: a test that uses
// one relies on this.
#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cstring>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "TestPlatform.h"
#include "modules/Image.h"
#include "modules/TestInterface.h"
#include "support/ModuleHook.h"
#include "support/Modules.h"
#include "support/TempDir.h"
#include "vessa/tarnet.h"

namespace {

using vessa_test::Install;
using vessa_test::ModuleCall;
using vessa_test::ModuleHook;
using vessa_test::ModulePath;
using vessa_test::TempDir;
using Fkeys = char (*)[TARNET_FKEY_SIZE];

// One letter for each slot in the table's order, "-" for a null one; "null" for a null table.
template <class Table>
std::string Slots(const Table* table) {
    if (table == nullptr) return "null";
    std::array<void*, sizeof(Table) / sizeof(void*)> slots{};
    std::memcpy(slots.data(), table, sizeof(Table));
    const std::string letters = "IUCDQKVM";
    std::string text;
    for (std::size_t i = 0; i < slots.size(); ++i) text += slots[i] == nullptr ? '-' : letters[i];
    return text;
}

struct Shape {
    std::string name;
    std::string v1;  // empty: no such entry
    std::string v2;
};

std::vector<Shape> LoadableModules() {
    std::vector<Shape> shapes = {
        {"good_v1", "IUCDQKV", ""},
        {"both_entries", "IUCDQKV", "IUCDQKVM"},
        {"no_entry", "", ""},
        {"entry_null_v1", "null", ""},
        {"entry_null_v2", "", "null"},
        {"no_init_v1", "-UCDQKV", ""},
        {"no_init_v2", "", "-UCDQKVM"},
        {"no_uninit_v1", "I-CDQKV", ""},
        {"no_uninit_v2", "", "I-CDQKVM"},
        {"no_create_v1", "IU-DQKV", ""},
        {"no_create_v2", "", "IU-DQKVM"},
        {"no_destroy_v1", "IUC-QKV", ""},
        {"no_destroy_v2", "", "IUC-QKVM"},
        {"no_query_v1", "IUCD-KV", ""},
        {"no_query_v2", "", "IUCD-KVM"},
        {"no_version_v1", "IUCDQK-", ""},
        {"no_version", "", "IUCDQK-M"},
        {"no_ikeys_v1", "IUCDQ-V", ""},
        {"no_ikeys", "", "IUCDQ-VM"},
        {"no_map", "", "IUCDQKV-"},
        {"create_fails_v1", "IUCDQKV", ""},
        {"throw_create_v1", "IUCDQKV", ""},
    };
    for (const char* name : {"good_v2",
                             "ikeys_null",
                             "ikeys_empty_entry",
                             "init_fails",
                             "uninit_fails",
                             "create_fails",
                             "create_fails_writing",
                             "destroy_fails",
                             "query_fails",
                             "create_null",
                             "same_instance",
                             "map_two",
                             "map_negative",
                             "map_huge",
                             "map_grows",
                             "map_shrinks",
                             "map_second_negative",
                             "map_unterminated",
                             "map_empty_key",
                             "map_repeated",
                             "map_fails_first",
                             "map_fails_second",
                             "throw_init",
                             "throw_uninit",
                             "throw_create",
                             "throw_destroy",
                             "throw_query",
                             "throw_ikeys",
                             "throw_version",
                             "throw_map"})
        shapes.push_back({name, "", "IUCDQKVM"});
    return shapes;
}

// Checked by tests of their own.
const std::set<std::string> kOthers = {"throw_entry",         "throw_entry_v1",
                                       "undefined_symbol",    "needs_missing_library",
                                       "entry_in_dependency", "v1_entry_v2_in_dependency"};

const tarnet_export_table_v2& TableOf(const Image& image) {
    const tarnet_export_table_v2* const table = image.V2();
    if (table == nullptr) throw std::runtime_error("no table");
    return *table;
}

struct MapAnswer {
    int first_result = 0;
    int first_count = -99;
    int second_result = 0;
    int second_count = -99;
    std::vector<std::string> fkeys;  // the announced number of entries, each up to its zero
};

MapAnswer AskForMap(const std::string& module, int entries) {
    const Image image(ModulePath(module));
    MapAnswer answer;
    answer.first_result = TableOf(image).GetPluginMapFkeys(nullptr, &answer.first_count);
    std::vector<std::array<char, TARNET_FKEY_SIZE>> array(static_cast<std::size_t>(entries));
    answer.second_count = entries;
    answer.second_result = TableOf(image).GetPluginMapFkeys(reinterpret_cast<Fkeys>(array.data()),
                                                            &answer.second_count);
    for (const auto& entry : array)
        answer.fkeys.emplace_back(entry.data(), strnlen(entry.data(), entry.size()));
    return answer;
}

TEST(TestModules, HaveTheStatedEntriesAndSlots) {
    for (const Shape& shape : LoadableModules()) {
        SCOPED_TRACE(shape.name);
        const Image image(ModulePath(shape.name));
        ASSERT_TRUE(image.IsLoaded()) << image.Error();
        EXPECT_EQ(image.Symbol(TARNET_ENTRY_V1) != nullptr, !shape.v1.empty());
        EXPECT_EQ(image.Symbol(TARNET_ENTRY_V2) != nullptr, !shape.v2.empty());
        if (!shape.v1.empty()) {
            EXPECT_EQ(Slots(image.V1()), shape.v1);
        }
        if (!shape.v2.empty()) {
            EXPECT_EQ(Slots(image.V2()), shape.v2);
        }
    }
}

TEST(TestModules, AreAllCoveredHere) {
    std::set<std::string> covered = kOthers;
    covered.insert(kModulesOfTheSystem.begin(), kModulesOfTheSystem.end());
    for (const Shape& shape : LoadableModules()) covered.insert(shape.name);
    std::set<std::string> built;
    const std::filesystem::path folder = std::filesystem::path(ModulePath("good_v2")).parent_path();
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.path().extension() == MODULE_SUFFIX) built.insert(entry.path().stem().string());
    }
    EXPECT_EQ(built, covered);
}

TEST(TestModules, MakeInstancesThatKnowTheirFkey) {
    const Image image(ModulePath("good_v2"));
    const tarnet_export_table_v2& table = TableOf(image);
    ASSERT_EQ(table.Init(), 0);
    void* first = nullptr;
    void* second = nullptr;
    ASSERT_EQ(table.CreateInstance_V2("one", &first), 0);
    ASSERT_EQ(table.CreateInstance_V2("two", &second), 0);
    EXPECT_NE(first, second);
    void* found = nullptr;
    EXPECT_EQ(table.QueryInterface(second, "other", &found), TEST_MODULE_ERR_UNKNOWN_IKEY);
    EXPECT_EQ(found, nullptr);
    ASSERT_EQ(table.QueryInterface(second, TEST_MODULE_IKEY, &found), 0);
    const auto* const iface = static_cast<const test_interface*>(found);
    EXPECT_EQ(iface->instance, second);
    EXPECT_STREQ(iface->Fkey(second), "two");
    EXPECT_EQ(iface->Add(2, 3), 5);
    EXPECT_STREQ(table.GetFileVersion(), TEST_MODULE_VERSION);
    EXPECT_STREQ(table.GetAllInterfaceIkeys()[0], TEST_MODULE_IKEY);
    EXPECT_EQ(table.GetAllInterfaceIkeys()[1], nullptr);
    EXPECT_EQ(table.DestroyInstance(first), 0);
    EXPECT_EQ(table.DestroyInstance(second), 0);
    EXPECT_EQ(table.Uninit(), 0);
}

TEST(TestModules, MakeInstancesWithoutFkeyInVersionOne) {
    const Image image(ModulePath("good_v1"));
    const tarnet_export_table_v1& table = *image.V1();
    ASSERT_EQ(table.Init(), 0);
    void* instance = nullptr;
    ASSERT_EQ(table.CreateInstance(&instance), 0);
    void* found = nullptr;
    ASSERT_EQ(table.QueryInterface(instance, TEST_MODULE_IKEY, &found), 0);
    EXPECT_STREQ(static_cast<const test_interface*>(found)->Fkey(instance), "");
    EXPECT_STREQ(table.GetFileVersion(), TEST_MODULE_VERSION);
    EXPECT_STREQ(table.GetAllInterfaceIkeys()[0], TEST_MODULE_IKEY);
    EXPECT_EQ(table.DestroyInstance(instance), 0);
    EXPECT_EQ(table.Uninit(), 0);
}

TEST(TestModules, FailInOneOperationWithANumberOfItsOwn) {
    EXPECT_EQ(TableOf(Image(ModulePath("init_fails"))).Init(), 7);
    EXPECT_EQ(TableOf(Image(ModulePath("uninit_fails"))).Uninit(), 9);
    void* out = nullptr;
    EXPECT_EQ(TableOf(Image(ModulePath("create_fails"))).CreateInstance_V2("k", &out), 11);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(Image(ModulePath("create_fails_v1")).V1()->CreateInstance(&out), 11);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(TableOf(Image(ModulePath("create_fails_writing"))).CreateInstance_V2("k", &out), 11);
    EXPECT_NE(out, nullptr);

    const Image destroy(ModulePath("destroy_fails"));
    ASSERT_EQ(TableOf(destroy).CreateInstance_V2("k", &out), 0);
    EXPECT_EQ(TableOf(destroy).DestroyInstance(out), 12);
    const Image query(ModulePath("query_fails"));
    ASSERT_EQ(TableOf(query).CreateInstance_V2("k", &out), 0);
    void* found = nullptr;
    EXPECT_EQ(TableOf(query).QueryInterface(out, TEST_MODULE_IKEY, &found), 13);
    EXPECT_NE(found, nullptr);
    EXPECT_EQ(TableOf(query).DestroyInstance(out), 0);
}

TEST(TestModules, SucceedWithNullOrWithOneInstanceForAll) {
    int something = 0;
    void* out = &something;
    EXPECT_EQ(TableOf(Image(ModulePath("create_null"))).CreateInstance_V2("k", &out), 0);
    EXPECT_EQ(out, nullptr);
    const Image same(ModulePath("same_instance"));
    void* first = nullptr;
    void* second = nullptr;
    EXPECT_EQ(TableOf(same).CreateInstance_V2("k", &first), 0);
    EXPECT_EQ(TableOf(same).CreateInstance_V2("l", &second), 0);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(first, second);
    EXPECT_EQ(TableOf(same).DestroyInstance(first), 0);
    EXPECT_EQ(TableOf(same).DestroyInstance(second), 0);
}

TEST(TestModules, ListIkeysInOddWays) {
    EXPECT_EQ(TableOf(Image(ModulePath("ikeys_null"))).GetAllInterfaceIkeys(), nullptr);
    const Image image(ModulePath("ikeys_empty_entry"));
    const char** const ikeys = TableOf(image).GetAllInterfaceIkeys();
    EXPECT_STREQ(ikeys[0], "a");
    EXPECT_STREQ(ikeys[1], "");
    EXPECT_STREQ(ikeys[2], "b");
    EXPECT_EQ(ikeys[3], nullptr);
}

TEST(TestModules, AnnounceFkeys) {
    using Texts = std::vector<std::string>;
    const MapAnswer two = AskForMap("map_two", 2);
    EXPECT_EQ(two.first_result, 0);
    EXPECT_EQ(two.first_count, 2);
    EXPECT_EQ(two.second_result, 0);
    EXPECT_EQ(two.second_count, 2);
    EXPECT_EQ(two.fkeys, (Texts{"a", "b"}));
    EXPECT_EQ(AskForMap("good_v2", 0).first_count, 0);
    EXPECT_EQ(AskForMap("map_negative", 0).first_count, -1);
    const MapAnswer huge = AskForMap("map_huge", 3);
    EXPECT_EQ(huge.first_count, INT_MAX);
    EXPECT_EQ(huge.second_count, INT_MAX);
    EXPECT_EQ(huge.fkeys, (Texts{"a", "b", ""}));
    EXPECT_EQ(AskForMap("map_grows", 2).second_count, 1000);
    EXPECT_EQ(AskForMap("map_grows", 2).fkeys, (Texts{"a", "b"}));
    EXPECT_EQ(AskForMap("map_shrinks", 3).first_count, 3);
    EXPECT_EQ(AskForMap("map_shrinks", 3).second_count, 1);
    EXPECT_EQ(AskForMap("map_shrinks", 3).fkeys, (Texts{"a", "b", "c"}));
    EXPECT_EQ(AskForMap("map_second_negative", 2).second_count, -5);
    EXPECT_EQ(AskForMap("map_unterminated", 2).fkeys,
              (Texts{std::string(256, 'x'), std::string(256, 'x')}));
    EXPECT_EQ(AskForMap("map_empty_key", 2).fkeys, (Texts{"a", ""}));
    EXPECT_EQ(AskForMap("map_repeated", 2).fkeys, (Texts{"a", "a"}));
}

TEST(TestModules, FailWhileTheyAnnounceFkeys) {
    const MapAnswer first = AskForMap("map_fails_first", 2);
    EXPECT_EQ(first.first_result, 3);
    EXPECT_EQ(first.first_count, 2);
    const MapAnswer second = AskForMap("map_fails_second", 2);
    EXPECT_EQ(second.first_result, 0);
    EXPECT_EQ(second.first_count, 2);
    EXPECT_EQ(second.second_result, 4);
    EXPECT_EQ(second.second_count, 2);
    EXPECT_EQ(second.fkeys, (std::vector<std::string>{"", ""}));
}

// Runs the use of a module that is to throw. The module stays until the exception is dealt with:
// its code may be needed for that.
template <class Use>
void ExpectThrow(const std::string& module, Use use) {
    SCOPED_TRACE(module);
    const Image image(ModulePath(module));
    ASSERT_TRUE(image.IsLoaded()) << image.Error();
    EXPECT_THROW(use(image), std::runtime_error);
}

TEST(TestModules, ThrowInOneOperation) {
    ExpectThrow("throw_entry", [](const Image& image) { image.V2(); });
    ExpectThrow("throw_entry_v1", [](const Image& image) { image.V1(); });
    ExpectThrow("throw_init", [](const Image& image) { TableOf(image).Init(); });
    ExpectThrow("throw_uninit", [](const Image& image) { TableOf(image).Uninit(); });
    void* out = nullptr;
    ExpectThrow("throw_create",
                [&](const Image& image) { TableOf(image).CreateInstance_V2("k", &out); });
    ExpectThrow("throw_create_v1", [&](const Image& image) { image.V1()->CreateInstance(&out); });
    ExpectThrow("throw_ikeys", [](const Image& image) { TableOf(image).GetAllInterfaceIkeys(); });
    ExpectThrow("throw_version", [](const Image& image) { TableOf(image).GetFileVersion(); });
    int count = 0;
    ExpectThrow("throw_map",
                [&](const Image& image) { TableOf(image).GetPluginMapFkeys(nullptr, &count); });
    ExpectThrow("throw_destroy",
                [](const Image& image) { TableOf(image).DestroyInstance(nullptr); });
    ExpectThrow("throw_query",
                [&](const Image& image) { TableOf(image).QueryInterface(nullptr, "iface", &out); });
}

TEST(TestModules, ReportEveryOperationUnderTheNameOfTheirFile) {
    TempDir world;
    ModuleHook hook;
    {
        const Image image(Install(world, "good_v2", "sub/codec" MODULE_SUFFIX));
        const tarnet_export_table_v2& table = TableOf(image);
        table.Init();
        void* instance = nullptr;
        table.CreateInstance_V2("k", &instance);
        void* found = nullptr;
        table.QueryInterface(instance, TEST_MODULE_IKEY, &found);
        table.GetAllInterfaceIkeys();
        table.GetFileVersion();
        int count = 0;
        table.GetPluginMapFkeys(nullptr, &count);
        char fkeys[1][TARNET_FKEY_SIZE];
        table.GetPluginMapFkeys(fkeys, &count);
        table.DestroyInstance(instance);
        table.Uninit();
    }
    EXPECT_EQ(hook.Journal(),
              (std::vector<std::string>{
                  "Load codec", "Entry codec", "Init codec", "CreateInstance_V2 codec key=k",
                  "QueryInterface codec key=iface", "GetAllInterfaceIkeys codec",
                  "GetFileVersion codec", "GetPluginMapFkeys codec", "GetPluginMapFkeys codec fill",
                  "DestroyInstance codec", "Uninit codec", "Unload codec"}));
}

}  // namespace
