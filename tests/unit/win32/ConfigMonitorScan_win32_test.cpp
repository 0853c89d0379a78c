// What a scan finds under names, among files and behind links that other systems do not have.
#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <string>

#include "HeldFile.h"
#include "VerbatimTree.h"
#include "support/LogCapture.h"
#include "support/Runtime.h"
#include "support/TempDir.h"
#include "support/win32/WideText.h"
#include "unit/LoggedCode.h"
#include "unit/ScannedFiles.h"

namespace vessa_test {
namespace {

TEST(ConfigMonitorScan, EntersHiddenAndOddlyNamedFolders) {
    TempDir dir;
    VerbatimTree tree(dir);
    // Byte order of the names.
    const Paths expected = {tree.Write(" /tarnet.xml", ""),
                            tree.Write("!/tarnet.xml", ""),
                            tree.Write("..a/tarnet.xml", ""),
                            tree.Write(".hidden/tarnet.xml", ""),
                            tree.Write("blank /tarnet.xml", ""),
                            tree.Write("nul/tarnet.xml", ""),
                            tree.Write("stop./tarnet.xml", ""),
                            tree.Write("tarnet.xml/tarnet.xml", ""),
                            tree.Write("\xC3\xA4/tarnet.xml", ""),
                            tree.Write("\xE6\xBC\xA2/tarnet.xml", ""),
                            tree.Write("\xF0\x9F\x98\x80/tarnet.xml", "")};
    ASSERT_TRUE(SetFileAttributesW(WideText(dir.Path(".hidden")).c_str(), FILE_ATTRIBUTE_HIDDEN));
    EXPECT_EQ(Found(dir.Path()), expected);
}

TEST(ConfigMonitorScan, GoesBeyondTheOldLimitOfAPath) {
    TempDir dir;
    VerbatimTree tree(dir);
    const std::string part(200, 'x');
    const std::string path = tree.Write(part + "/" + part + "/tarnet.xml", "");
    EXPECT_EQ(Found(dir.Path()), Paths{path});
}

TEST(ConfigMonitorScan, FindsRegularFilesOnly) {
    TempDir dir;
    dir.MakeFolder("folder/tarnet.xml");
    const std::string file = dir.Write("regular/tarnet.xml", "");
    EXPECT_EQ(Found(dir.Path()), Paths{file});
}

TEST(ConfigMonitorScan, TakesTheRootAsItIsSpelled) {
    TempDir dir;
    dir.Write("a/tarnet.xml", "");
    std::string root = dir.Path();
    std::transform(root.begin(), root.end(), root.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    EXPECT_EQ(Found(root), Paths{root + "/a/tarnet.xml"});
}

TEST(ConfigMonitorScan, FindsAListFileThatAnotherSharesWithNobody) {
    TempDir dir;
    const std::string path = dir.Write("tarnet.xml", "text");
    const uint64_t stamp = StampOf(dir.Path());
    const HeldFile other(path, GENERIC_READ, 0);
    ASSERT_TRUE(other.IsHeld());
    EXPECT_EQ(Found(dir.Path()), Paths{path});
    EXPECT_EQ(StampOf(dir.Path()), stamp);
}

TEST(ConfigMonitorScan, AFolderThatAnotherSharesWithNobodyFailsAll) {
    TempDir dir;
    dir.Write("a/tarnet.xml", "");
    dir.Write("b/tarnet.xml", "");
    LogCapture log;
    ConfigMonitor monitor;
    Files files;
    {
        const HeldFile other(dir.Path("b"), FILE_LIST_DIRECTORY, 0);
        ASSERT_TRUE(other.IsHeld());
        EXPECT_FALSE(monitor.FindConfigFileInFolder(dir.Path(), "tarnet.xml", files));
    }
    EXPECT_TRUE(files.empty());
    EXPECT_TRUE(log.Is({"5 tova open dir failed " + Code(ERROR_SHARING_VIOLATION) +
                        ", folder path " + dir.Path("b")}));
    EXPECT_TRUE(monitor.FindConfigFileInFolder(dir.Path(), "tarnet.xml", files));
    EXPECT_EQ(files.size(), 2u);
}

// A link to a folder, for which no right is needed. Taken away at its end: whoever removes the
// folders around it must not go through it.
class Junction {
  public:
    Junction(const std::string& target, const std::string& path) : path_(WideText(path)) {
        std::string places = "\"" + path + "\" \"" + target + "\"";
        std::replace(places.begin(), places.end(), '/', '\\');
        made_ = std::system(("mklink /J " + places + " >nul 2>&1").c_str()) == 0 && IsLink();
    }
    ~Junction() {
        if (made_) RemoveDirectoryW(path_.c_str());
    }
    Junction(const Junction&) = delete;
    Junction& operator=(const Junction&) = delete;

    // False: there are none on this system.
    bool IsMade() const { return made_; }

  private:
    bool IsLink() const {
        const DWORD attributes = GetFileAttributesW(path_.c_str());
        return attributes != INVALID_FILE_ATTRIBUTES &&
               (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
    }

    const std::wstring path_;
    bool made_ = false;
};

TEST(ConfigMonitorScan, AJunctionToAnAncestorIsNotEntered) {
    TempDir dir;
    const std::string path = dir.Write("a/b/tarnet.xml", "");
    const Junction loop(dir.Path("a"), dir.Path("a/b/loop"));
    if (!loop.IsMade()) GTEST_SKIP() << "no junctions here";
    Runtime runtime;
    EXPECT_EQ(Found(dir.Path()), Paths{path});
    EXPECT_EQ(runtime.Calls(Tova::OpenDir), 3);
}

TEST(ConfigMonitorScan, AJunctionOutOfTheRootIsFollowed) {
    TempDir dir;
    TempDir elsewhere;
    elsewhere.Write("deep/tarnet.xml", "");
    const Junction out(elsewhere.Path(), dir.Path("out"));
    if (!out.IsMade()) GTEST_SKIP() << "no junctions here";
    EXPECT_EQ(Found(dir.Path()), Paths{dir.Path("out/deep/tarnet.xml")});
}

}  // namespace
}  // namespace vessa_test
