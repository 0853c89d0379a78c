// Files that others have open, rename or delete, and what has a file's name only.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstddef>
#include <string>

#include "HeldFile.h"
#include "OpenFiles.h"
#include "TestPlatform.h"
#include "VerbatimTree.h"
#include "support/TempDir.h"
#include "support/win32/WideText.h"
#include "tova.h"
#include "unit/ReadHook.h"
#include "vessa2/PluginConfigList.h"

namespace vessa_test {
namespace {

constexpr size_t kMaxSize = 1000;

TEST(ReadTextFile, RefusesAFolderAndADeviceAtOnce) {
    TempDir dir;
    for (const std::string& path : NoRegularFiles(dir)) {
        std::string text;
        SetLastSystemError(0);
        EXPECT_FALSE(ReadTextFile(path, text, kMaxSize)) << path;
        EXPECT_NE(TOVA_GetSystemLastError(), 0) << path;
        EXPECT_EQ(text, "") << path;
    }
}

TEST(ReadTextFile, ReadsTheFileThatItOpenedWhenAnotherTakesItsName) {
    TempDir dir;
    const std::string path = dir.Write("f", "first");
    const ReadHook hook([&] {
        dir.Rename("f", "away");
        dir.Write("f", "second");
    });
    std::string text;
    EXPECT_TRUE(ReadTextFile(path, text, kMaxSize));
    EXPECT_EQ(text, "first");
    EXPECT_EQ(dir.Read("f"), "second");
}

TEST(ReadTextFile, ReadsTheFileThatIsDeletedMeanwhile) {
    TempDir dir;
    const std::string path = dir.Write("f", "text");
    const ReadHook hook([&] { EXPECT_TRUE(DeleteFileW(WideText(path).c_str())); });
    std::string text;
    EXPECT_TRUE(ReadTextFile(path, text, kMaxSize));
    EXPECT_EQ(text, "text");
    EXPECT_FALSE(dir.Exists("f"));
}

TEST(ReadTextFile, RefusesAFileThatAnotherSharesWithNobodyUntilItIsFree) {
    TempDir dir;
    const std::string path = dir.Write("f", "text");
    std::string text;
    {
        const HeldFile other(path, GENERIC_READ | GENERIC_WRITE, 0);
        ASSERT_TRUE(other.IsHeld());
        EXPECT_FALSE(ReadTextFile(path, text, kMaxSize));
        EXPECT_EQ(TOVA_GetSystemLastError(), ERROR_SHARING_VIOLATION);
    }
    EXPECT_TRUE(ReadTextFile(path, text, kMaxSize));
    EXPECT_EQ(text, "text");
}

TEST(ReadTextFile, TakesANameAsItIs) {
    TempDir dir;
    VerbatimTree tree(dir);
    const std::string part(200, 'x');
    for (const std::string& relative :
         {std::string("f."), std::string("f "), std::string("nul"), part + "/" + part + "/f"}) {
        dir.Write("f", "another");
        const std::string path = tree.Write(relative, "of " + relative.substr(0, 3));
        std::string text;
        EXPECT_TRUE(ReadTextFile(path, text, kMaxSize)) << path;
        EXPECT_EQ(text, "of " + relative.substr(0, 3));
    }
}

}  // namespace
}  // namespace vessa_test
