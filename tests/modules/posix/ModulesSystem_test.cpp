#include <gtest/gtest.h>

#include "TestPlatform.h"
#include "modules/Image.h"
#include "support/Modules.h"
#include "support/TempDir.h"

namespace {

using vessa_test::Install;
using vessa_test::ModulePath;
using vessa_test::TempDir;

TEST(TestModules, DoNotLoadWithAMissingLibraryOrSymbol) {
    const Image missing(ModulePath("needs_missing_library"));
    EXPECT_FALSE(missing.IsLoaded());
    EXPECT_NE(missing.Error().find("libtest_missing_library.so"), std::string::npos)
        << missing.Error();
    const Image undefined(ModulePath("undefined_symbol"));
    EXPECT_FALSE(undefined.IsLoaded());
    EXPECT_NE(undefined.Error().find("TestModule_DefinedNowhere"), std::string::npos)
        << undefined.Error();
}

TEST(TestModules, ShowTheEntryOfADependencyToAPlainLookUp) {
    TempDir world;
    const Image image(Install(world, "entry_in_dependency", "entry_in_dependency.so"));
    ASSERT_TRUE(image.IsLoaded()) << image.Error();
    EXPECT_EQ(image.Definer(TARNET_ENTRY_V2), "libtest_entry_dependency.so");
    const Image mixed(Install(world, "v1_entry_v2_in_dependency", "mixed.so"));
    ASSERT_TRUE(mixed.IsLoaded()) << mixed.Error();
    EXPECT_EQ(mixed.Definer(TARNET_ENTRY_V1), "mixed.so");
    EXPECT_EQ(mixed.Definer(TARNET_ENTRY_V2), "libtest_entry_dependency.so");
    EXPECT_EQ(mixed.V1()->Init(), 0);
}

}  // namespace
