// What a scan finds, and what it does not enter.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <list>
#include <string>
#include <vector>

#include "support/LogCapture.h"
#include "support/Runtime.h"
#include "support/TempDir.h"
#include "vessa2/ConfigMonitor.h"

namespace {

using vessa_test::LogCapture;
using vessa_test::Runtime;
using vessa_test::TempDir;
using vessa_test::Tova;
using Paths = std::vector<std::string>;
using Files = std::list<ConfigMonitor::FileInfo>;

Paths Found(const std::string& folder, const std::string& filename = "tarnet.xml") {
    ConfigMonitor monitor;
    Files files;
    EXPECT_TRUE(monitor.FindConfigFileInFolder(folder, filename, files)) << folder;
    Paths paths;
    for (const auto& file : files) paths.push_back(file.path);
    return paths;
}

uint64_t StampOf(const std::string& folder) {
    ConfigMonitor monitor;
    Files files;
    EXPECT_TRUE(monitor.FindConfigFileInFolder(folder, "tarnet.xml", files));
    EXPECT_EQ(files.size(), 1u);
    return files.empty() ? 0 : files.front().stamp;
}

TEST(ConfigMonitorScan, GoesBreadthFirstAndInByteOrder) {
    TempDir dir;
    const Paths expected = {dir.Write("tarnet.xml", ""),      dir.Write("B/tarnet.xml", ""),
                            dir.Write("a/tarnet.xml", ""),    dir.Write("b/tarnet.xml", ""),
                            dir.Write("a/x/tarnet.xml", ""),  dir.Write("b/e/tarnet.xml", ""),
                            dir.Write("a/x/y/tarnet.xml", "")};
    EXPECT_EQ(Found(dir.Path()), expected);
}

TEST(ConfigMonitorScan, MatchesTheFileNameByteForByte) {
    TempDir dir;
    dir.Write("TARNET.XML", "");
    dir.Write("a/tarnet.xml.bak", "");
    dir.Write("a/xtarnet.xml", "");
    const std::string other = dir.Write("a/other", "");
    EXPECT_EQ(Found(dir.Path()), Paths{});
    EXPECT_EQ(Found(dir.Path(), "other"), Paths{other});
}

TEST(ConfigMonitorScan, GivesNormalisedPaths) {
    TempDir dir;
    const std::string path = dir.Write("a/tarnet.xml", "");
    EXPECT_EQ(Found(dir.Path() + "//./a/"), Paths{path});
    EXPECT_EQ(Found(dir.Path() + "\\a"), Paths{path});
}

TEST(ConfigMonitorScan, EntersHiddenAndOddlyNamedFolders) {
    TempDir dir;
    const Paths expected = {
        dir.Write(" /tarnet.xml", ""),          dir.Write("!/tarnet.xml", ""),
        dir.Write("..a/tarnet.xml", ""),        dir.Write(".hidden/tarnet.xml", ""),
        dir.Write("tarnet.xml/tarnet.xml", ""), dir.Write("\xC3\xA4/tarnet.xml", "")};
    Paths in_order = expected;
    // Byte order of the names.
    EXPECT_EQ(Found(dir.Path()), in_order);
}

TEST(ConfigMonitorScan, FindsRegularFilesAndLinksToThemOnly) {
    TempDir dir;
    const std::string target = dir.Write("real", "");
    const std::string linked = dir.MakeLink("../real", "link/tarnet.xml");
    dir.MakeLink("nowhere", "dangling/tarnet.xml");
    dir.MakeLink("/dev/null", "device/tarnet.xml");
    dir.MakeFolder("folder/tarnet.xml");
    dir.MakeFolder("fifo");
    ASSERT_EQ(mkfifo(dir.Path("fifo/tarnet.xml").c_str(), 0600), 0);
    EXPECT_EQ(Found(dir.Path()), Paths{linked});
}

TEST(ConfigMonitorScan, SkipsAFolderWithABackslashInItsName) {
    TempDir dir;
    dir.Write("a\\b/tarnet.xml", "");
    dir.Write("\\/tarnet.xml", "");
    const std::string other = dir.Write("z/tarnet.xml", "");
    LogCapture log;
    EXPECT_EQ(Found(dir.Path()), Paths{other});
    EXPECT_TRUE(log.Is({}));

    // Also where the converted name exists.
    const std::string converted = dir.Write("a/b/tarnet.xml", "");
    EXPECT_EQ(Found(dir.Path()), (Paths{other, converted}));
}

TEST(ConfigMonitorScan, OneLinkToItsOwnFolderAddsNothing) {
    TempDir dir;
    const std::string path = dir.Write("tarnet.xml", "");
    dir.MakeLink(".", "loop");
    Runtime runtime;
    EXPECT_EQ(Found(dir.Path()), Paths{path});
    EXPECT_EQ(runtime.Calls(Tova::OpenDir), 1);
}

TEST(ConfigMonitorScan, TwoLinksToTheirOwnFolderAddNothing) {
    TempDir dir;
    const std::string path = dir.Write("a/tarnet.xml", "");
    dir.MakeLink(".", "a/loop");
    dir.MakeLink(dir.Path("a"), "a/loop2");
    EXPECT_EQ(Found(dir.Path()), Paths{path});
}

TEST(ConfigMonitorScan, ALinkToAnAncestorIsNotEntered) {
    TempDir dir;
    const std::string path = dir.Write("a/b/c/tarnet.xml", "");
    dir.MakeLink("../../..", "a/b/c/root");
    dir.MakeLink("../..", "a/b/c/a");
    dir.MakeLink("..", "a/b/c/b");
    EXPECT_EQ(Found(dir.Path()), Paths{path});
    EXPECT_EQ(Found(dir.Path("a/b")), (Paths{path}));
}

TEST(ConfigMonitorScan, ALinkToASiblingIsFollowed) {
    TempDir dir;
    const std::string path = dir.Write("a/tarnet.xml", "");
    dir.MakeFolder("b");
    dir.MakeLink("../a", "b/link");
    EXPECT_EQ(Found(dir.Path()), (Paths{path, dir.Path("b/link/tarnet.xml")}));
}

TEST(ConfigMonitorScan, LinksToEachOthersFoldersAreFollowedOnce) {
    TempDir dir;
    const std::string a = dir.Write("a/tarnet.xml", "");
    const std::string b = dir.Write("b/tarnet.xml", "");
    dir.MakeLink("../b", "a/to_b");
    dir.MakeLink("../a", "b/to_a");
    EXPECT_EQ(Found(dir.Path()),
              (Paths{a, b, dir.Path("a/to_b/tarnet.xml"), dir.Path("b/to_a/tarnet.xml")}));
}

TEST(ConfigMonitorScan, ALinkOutOfTheRootIsFollowed) {
    TempDir dir;
    TempDir elsewhere;
    elsewhere.Write("deep/tarnet.xml", "");
    dir.MakeLink(elsewhere.Path(), "out");
    EXPECT_EQ(Found(dir.Path()), Paths{dir.Path("out/deep/tarnet.xml")});
}

TEST(ConfigMonitorScan, TheRootMayBeALinkAndItsTargetIsItsAncestor) {
    TempDir dir;
    dir.Write("real/a/tarnet.xml", "");
    dir.MakeLink(dir.Path("real"), "real/a/loop");
    const std::string root = dir.MakeLink("real", "root");
    EXPECT_EQ(Found(root), Paths{root + "/a/tarnet.xml"});
}

TEST(ConfigMonitorScan, AFolderThatCannotBeOpenedFailsAll) {
    TempDir dir;
    dir.Write("tarnet.xml", "");
    dir.Write("a/tarnet.xml", "");
    Runtime runtime;
    const auto before = Runtime::Census();
    LogCapture log;
    runtime.FailCall(Tova::OpenDir, 2, EACCES);
    ConfigMonitor monitor;
    Files files;
    EXPECT_FALSE(monitor.FindConfigFileInFolder(dir.Path(), "tarnet.xml", files));
    EXPECT_TRUE(files.empty());
    EXPECT_TRUE(log.Is({"5 tova open dir failed 13/D, folder path " + dir.Path("a")}));
    EXPECT_EQ(Runtime::Census().folders, before.folders);
}

TEST(ConfigMonitorScan, AMissingFolderFails) {
    TempDir dir;
    LogCapture log;
    ConfigMonitor monitor;
    Files files;
    EXPECT_FALSE(monitor.FindConfigFileInFolder(dir.Path("gone"), "tarnet.xml", files));
    EXPECT_TRUE(log.Is({"5 tova open dir failed 2/2, folder path " + dir.Path("gone")}));
}

TEST(ConfigMonitorScan, ClosesEveryFolderThatItOpens) {
    TempDir dir;
    for (const char* const file : {"a/tarnet.xml", "b/c/tarnet.xml"}) dir.Write(file, "");
    Runtime runtime;
    Found(dir.Path());
    EXPECT_EQ(runtime.Calls(Tova::OpenDir), 4);
    EXPECT_EQ(runtime.Calls(Tova::CloseDir), 4);
}

// 1,000 ways into one folder of 1,000.
TEST(ConfigMonitorScan, ATreeOfLinksThatMultipliesFailsAtTheLimit) {
    TempDir dir;
    for (int i = 0; i < 1000; ++i) {
        std::filesystem::create_directory(dir.MakeFolder("many") + "/" + std::to_string(i));
        dir.MakeLink("../many", "root/" + std::to_string(i));
    }
    dir.Write("root/tarnet.xml", "");
    LogCapture log;
    ConfigMonitor monitor;
    Files files;
    EXPECT_FALSE(monitor.FindConfigFileInFolder(dir.Path("root"), "tarnet.xml", files));
    EXPECT_TRUE(files.empty());
    EXPECT_TRUE(
        log.Is({"5 tova open dir failed {*}/{*}, folder path " + dir.Path("root") + "/{*}"}));
    EXPECT_EQ(log.Count("tova open dir failed 0/0"), 0);
}

void SetTimes(const std::string& path, const struct stat& as) {
    const timespec times[2] = {as.st_atim, as.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

TEST(ConfigMonitorStamp, StaysWhileTheFileIsNotWritten) {
    TempDir dir;
    dir.Write("tarnet.xml", "text");
    const uint64_t stamp = StampOf(dir.Path());
    dir.Read("tarnet.xml");
    EXPECT_EQ(StampOf(dir.Path()), stamp);
}

TEST(ConfigMonitorStamp, ChangesWithARewriteOfTheSameSizeAndRestoredTime) {
    TempDir dir;
    const std::string path = dir.Write("tarnet.xml", "text");
    const uint64_t stamp = StampOf(dir.Path());
    struct stat before {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    dir.Write("tarnet.xml", "more");
    SetTimes(path, before);
    EXPECT_NE(StampOf(dir.Path()), stamp);
}

TEST(ConfigMonitorStamp, ChangesWithARenameOverTheFileOfTheSameSizeAndTime) {
    TempDir dir;
    const std::string path = dir.Write("tarnet.xml", "text");
    struct stat before {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    const uint64_t stamp = StampOf(dir.Path());
    dir.WriteByRename("tarnet.xml", "more");
    SetTimes(path, before);
    EXPECT_NE(StampOf(dir.Path()), stamp);
}

TEST(ConfigMonitorStamp, ChangesWithEveryRewriteHoweverFast) {
    TempDir dir;
    dir.Write("tarnet.xml", "0");
    uint64_t stamp = StampOf(dir.Path());
    for (int i = 1; i < 20; ++i) {
        dir.Write("tarnet.xml", std::to_string(i % 10));
        const uint64_t next = StampOf(dir.Path());
        EXPECT_NE(next, stamp) << i;
        stamp = next;
    }
}

TEST(ConfigMonitorStamp, IsThatOfTheFileALinkPointsTo) {
    TempDir dir;
    dir.Write("real", "text");
    dir.MakeLink("../real", "root/tarnet.xml");
    const uint64_t stamp = StampOf(dir.Path("root"));
    dir.Write("real", "more");
    EXPECT_NE(StampOf(dir.Path("root")), stamp);
}

}  // namespace
