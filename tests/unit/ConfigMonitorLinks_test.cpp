// How a scan follows links.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/LogCapture.h"
#include "support/Runtime.h"
#include "support/TempDir.h"
#include "unit/ScannedFiles.h"
#include "vessa2/ConfigMonitor.h"

namespace vessa_test {
namespace {

TEST(ConfigMonitorScan, OneLinkToItsOwnFolderAddsNothing) {
    if (!CanMakeLinks()) GTEST_SKIP() << "no symbolic links here";
    TempDir dir;
    const std::string path = dir.Write("tarnet.xml", "");
    dir.MakeLink(".", "loop");
    Runtime runtime;
    EXPECT_EQ(Found(dir.Path()), Paths{path});
    EXPECT_EQ(runtime.Calls(Tova::OpenDir), 1);
}

TEST(ConfigMonitorScan, TwoLinksToTheirOwnFolderAddNothing) {
    if (!CanMakeLinks()) GTEST_SKIP() << "no symbolic links here";
    TempDir dir;
    const std::string path = dir.Write("a/tarnet.xml", "");
    dir.MakeLink(".", "a/loop");
    dir.MakeLink(dir.Path("a"), "a/loop2");
    EXPECT_EQ(Found(dir.Path()), Paths{path});
}

TEST(ConfigMonitorScan, ALinkToAnAncestorIsNotEntered) {
    if (!CanMakeLinks()) GTEST_SKIP() << "no symbolic links here";
    TempDir dir;
    const std::string path = dir.Write("a/b/c/tarnet.xml", "");
    dir.MakeLink("../../..", "a/b/c/root");
    dir.MakeLink("../..", "a/b/c/a");
    dir.MakeLink("..", "a/b/c/b");
    EXPECT_EQ(Found(dir.Path()), Paths{path});
    EXPECT_EQ(Found(dir.Path("a/b")), (Paths{path}));
}

TEST(ConfigMonitorScan, ALinkToASiblingIsFollowed) {
    if (!CanMakeLinks()) GTEST_SKIP() << "no symbolic links here";
    TempDir dir;
    const std::string path = dir.Write("a/tarnet.xml", "");
    dir.MakeFolder("b");
    dir.MakeLink("../a", "b/link");
    EXPECT_EQ(Found(dir.Path()), (Paths{path, dir.Path("b/link/tarnet.xml")}));
}

TEST(ConfigMonitorScan, LinksToEachOthersFoldersAreFollowedOnce) {
    if (!CanMakeLinks()) GTEST_SKIP() << "no symbolic links here";
    TempDir dir;
    const std::string a = dir.Write("a/tarnet.xml", "");
    const std::string b = dir.Write("b/tarnet.xml", "");
    dir.MakeLink("../b", "a/to_b");
    dir.MakeLink("../a", "b/to_a");
    EXPECT_EQ(Found(dir.Path()),
              (Paths{a, b, dir.Path("a/to_b/tarnet.xml"), dir.Path("b/to_a/tarnet.xml")}));
}

TEST(ConfigMonitorScan, ALinkOutOfTheRootIsFollowed) {
    if (!CanMakeLinks()) GTEST_SKIP() << "no symbolic links here";
    TempDir dir;
    TempDir elsewhere;
    elsewhere.Write("deep/tarnet.xml", "");
    dir.MakeLink(elsewhere.Path(), "out");
    EXPECT_EQ(Found(dir.Path()), Paths{dir.Path("out/deep/tarnet.xml")});
}

TEST(ConfigMonitorScan, TheRootMayBeALinkAndItsTargetIsItsAncestor) {
    if (!CanMakeLinks()) GTEST_SKIP() << "no symbolic links here";
    TempDir dir;
    dir.Write("real/a/tarnet.xml", "");
    dir.MakeLink(dir.Path("real"), "real/a/loop");
    const std::string root = dir.MakeLink("real", "root");
    EXPECT_EQ(Found(root), Paths{root + "/a/tarnet.xml"});
}

// 1,000 ways into one folder of 1,000.
TEST(ConfigMonitorScan, ATreeOfLinksThatMultipliesFailsAtTheLimit) {
    if (!CanMakeLinks()) GTEST_SKIP() << "no symbolic links here";
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

TEST(ConfigMonitorStamp, IsThatOfTheFileALinkPointsTo) {
    if (!CanMakeLinks()) GTEST_SKIP() << "no symbolic links here";
    TempDir dir;
    dir.Write("real", "text");
    dir.MakeLink("../real", "root/tarnet.xml");
    const uint64_t stamp = StampOf(dir.Path("root"));
    dir.Write("real", "more");
    EXPECT_NE(StampOf(dir.Path("root")), stamp);
}

}  // namespace
}  // namespace vessa_test
