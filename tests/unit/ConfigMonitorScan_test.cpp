// What a scan finds, and what it does not enter.
#include <gtest/gtest.h>

#include <string>

#include "FileTimes.h"
#include "TestPlatform.h"
#include "support/Allocation.h"
#include "support/LogCapture.h"
#include "support/Runtime.h"
#include "support/TempDir.h"
#include "unit/LoggedCode.h"
#include "unit/ScannedFiles.h"
#include "vessa2/ConfigMonitor.h"

namespace vessa_test {
namespace {

TEST(ConfigMonitorScan, GoesBreadthFirstAndInByteOrder) {
    TempDir dir;
    const Paths expected = {dir.Write("tarnet.xml", ""),      dir.Write("Z/tarnet.xml", ""),
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

TEST(ConfigMonitorScan, AFolderThatCannotBeOpenedFailsAll) {
    TempDir dir;
    dir.Write("tarnet.xml", "");
    dir.Write("a/tarnet.xml", "");
    Runtime runtime;
    const auto before = Runtime::Census();
    LogCapture log;
    runtime.FailCall(Tova::OpenDir, 2, kErrorAccess);
    ConfigMonitor monitor;
    Files files;
    EXPECT_FALSE(monitor.FindConfigFileInFolder(dir.Path(), "tarnet.xml", files));
    EXPECT_TRUE(files.empty());
    EXPECT_TRUE(log.Is(
        {"5 tova open dir failed " + Code(kErrorAccess) + ", folder path " + dir.Path("a")}));
    EXPECT_EQ(Runtime::Census().folders, before.folders);
}

TEST(ConfigMonitorScan, AMissingFolderFails) {
    TempDir dir;
    LogCapture log;
    ConfigMonitor monitor;
    Files files;
    EXPECT_FALSE(monitor.FindConfigFileInFolder(dir.Path("gone"), "tarnet.xml", files));
    EXPECT_TRUE(log.Is(
        {"5 tova open dir failed " + Code(kErrorNotFound) + ", folder path " + dir.Path("gone")}));
}

TEST(ConfigMonitorScan, ClosesEveryFolderThatItOpens) {
    TempDir dir;
    for (const char* const file : {"a/tarnet.xml", "b/c/tarnet.xml"}) dir.Write(file, "");
    Runtime runtime;
    Found(dir.Path());
    EXPECT_EQ(runtime.Calls(Tova::OpenDir), 4);
    EXPECT_EQ(runtime.Calls(Tova::CloseDir), 4);
}

// Folders, entries and paths cost nothing when they were there before.
TEST(ConfigMonitorScan, AScanLikeTheOneBeforeAllocatesForItsFilesAlone) {
    TempDir dir;
    dir.Write("a/tarnet.xml", "");
    dir.Write("b/deeper/still/tarnet.xml", "");
    ConfigMonitor monitor;
    const auto allocations = [&] {
        Files files;
        EXPECT_TRUE(monitor.FindConfigFileInFolder(dir.Path(), "tarnet.xml", files));
        EXPECT_EQ(files.size(), 2u);
        files.clear();
        AllocationFailure count(0);
        monitor.FindConfigFileInFolder(dir.Path(), "tarnet.xml", files);
        return count.Count();
    };
    const long few_folders = allocations();
    for (int i = 0; i < 200; ++i)
        dir.Write("c/" + std::to_string(i) + "/a file of another name", "");
    EXPECT_EQ(allocations(), few_folders);
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
    const FileTimes before = TimesOf(path);
    dir.Write("tarnet.xml", "more");
    SetTimes(path, before);
    EXPECT_NE(StampOf(dir.Path()), stamp);
}

TEST(ConfigMonitorStamp, ChangesWithARenameOverTheFileOfTheSameSizeAndTime) {
    TempDir dir;
    const std::string path = dir.Write("tarnet.xml", "text");
    const FileTimes before = TimesOf(path);
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

}  // namespace
}  // namespace vessa_test
