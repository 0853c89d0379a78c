#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "../HeaderFunctions.h"
#include "ExportTable.h"

using tova_test::ExportTable;

TEST(ExportsWin32, AreTheFunctionsOfTheHeaderAndNothingElse) {
    const std::set<std::string> declared = tova_test::FunctionsOfTheHeader();
    EXPECT_EQ(declared.size(), 24u);
    EXPECT_EQ(ExportTable("tova.dll").Names(), declared);
    EXPECT_EQ(ExportTable("tova.dll").Count(), 24u) << "none without a name";
}

TEST(ExportsWin32, TheLibraryBearsTheNameThatApplicationsAreLinkedWith) {
    EXPECT_EQ(ExportTable("tova.dll").LibraryName(), "tova.dll");
}
