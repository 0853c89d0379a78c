#include <gtest/gtest.h>

#include "Support.h"

using tova_test::TempFolder;

TEST(File, ExistsOnceItIsWritten) {
    TempFolder folder;
    const std::string path = folder.Path("list.xml");
    EXPECT_NE(TOVA_AccessFile(path.c_str(), 0), 0);
    EXPECT_NE(TOVA_GetSystemLastError(), 0);
    folder.Write("list.xml", "");
    EXPECT_EQ(TOVA_AccessFile(path.c_str(), 0), 0);
    std::filesystem::remove(path);
    EXPECT_NE(TOVA_AccessFile(path.c_str(), 0), 0);
}

TEST(File, ExistsAlsoAsAFolder) {
    TempFolder folder;
    EXPECT_EQ(TOVA_AccessFile(folder.Path().c_str(), 0), 0);
}

TEST(File, IsNamedInUtf8) {
    TempFolder folder;
    const std::string path = folder.Write("\xC3\xA4\xE2\x82\xAC.xml", "x");
    EXPECT_EQ(TOVA_AccessFile(path.c_str(), 0), 0);
}

TEST(File, DoesNotExistWithoutAName) {
    EXPECT_NE(TOVA_AccessFile("", 0), 0);
    EXPECT_NE(TOVA_AccessFile(nullptr, 0), 0);
    EXPECT_NE(TOVA_GetSystemLastError(), 0);
}

TEST(File, IsAskedForItsExistenceOnly) {
    TempFolder folder;
    const std::string path = folder.Write("list.xml", "x");
    EXPECT_NE(TOVA_AccessFile(path.c_str(), 4), 0);
    EXPECT_NE(TOVA_GetSystemLastError(), 0);
}
