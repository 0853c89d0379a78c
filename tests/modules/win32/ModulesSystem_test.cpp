#include <gtest/gtest.h>

#include "TestPlatform.h"
#include "modules/Image.h"
#include "modules/TestInterface.h"
#include "support/Modules.h"
#include "support/TempDir.h"

namespace {

using vessa_test::Install;
using vessa_test::ModulePath;
using vessa_test::TempDir;

TEST(TestModules, DoNotLoadWithAMissingLibrary) {
    const Image missing(ModulePath("needs_missing_library"));
    EXPECT_FALSE(missing.IsLoaded());
    EXPECT_EQ(missing.Error(), std::to_string(ERROR_MOD_NOT_FOUND));
    // Present, but not beside it.
    EXPECT_FALSE(Image(ModulePath("entry_in_dependency")).IsLoaded());
}

TEST(TestModules, DoNotLoadWithAMissingSymbol) {
    if (vessa_test::UnderWine()) GTEST_SKIP() << "Wine puts a function that raises in its place";
    TempDir world;
    const Image undefined(Install(world, "undefined_symbol", "undefined.dll"));
    EXPECT_FALSE(undefined.IsLoaded());
    EXPECT_EQ(undefined.Error(), std::to_string(ERROR_PROC_NOT_FOUND));
}

TEST(TestModules, DoNotShowTheEntryOfADependency) {
    TempDir world;
    const Image image(Install(world, "entry_in_dependency", "sub/entry_in_dependency.dll"));
    ASSERT_TRUE(image.IsLoaded()) << image.Error();
    EXPECT_EQ(image.Symbol(TARNET_ENTRY_V2), nullptr);
    const Image mixed(Install(world, "v1_entry_v2_in_dependency", "mixed.dll"));
    ASSERT_TRUE(mixed.IsLoaded()) << mixed.Error();
    EXPECT_EQ(mixed.Symbol(TARNET_ENTRY_V2), nullptr);
    EXPECT_EQ(mixed.V1()->Init(), 0);
}

TEST(TestModules, ExportDecoratedEntriesExactly) {
    const Image v1(ModulePath("decorated_v1"));
    EXPECT_EQ(v1.Symbol(TARNET_ENTRY_V1), nullptr);
    EXPECT_EQ(v1.Symbol(TARNET_ENTRY_V2), nullptr);
    EXPECT_EQ(v1.Symbol(TARNET_ENTRY_V2_DECORATED), nullptr);
    EXPECT_STREQ(v1.V1(TARNET_ENTRY_V1_DECORATED)->GetFileVersion(), TEST_MODULE_VERSION);

    const Image v2(ModulePath("decorated_v2"));
    EXPECT_EQ(v2.Symbol(TARNET_ENTRY_V2), nullptr);
    EXPECT_EQ(v2.Symbol(TARNET_ENTRY_V1), nullptr);
    EXPECT_EQ(v2.Symbol(TARNET_ENTRY_V1_DECORATED), nullptr);
    EXPECT_STREQ(v2.V2(TARNET_ENTRY_V2_DECORATED)->GetFileVersion(), TEST_MODULE_VERSION);

    const Image both(ModulePath("decorated_v1_plain_v2"));
    EXPECT_EQ(both.Symbol(TARNET_ENTRY_V1), nullptr);
    EXPECT_EQ(both.Symbol(TARNET_ENTRY_V2_DECORATED), nullptr);
    EXPECT_EQ(both.V1(TARNET_ENTRY_V1_DECORATED)->Init(), 0);
    EXPECT_EQ(both.V2()->Init(), 0);
}

}  // namespace
