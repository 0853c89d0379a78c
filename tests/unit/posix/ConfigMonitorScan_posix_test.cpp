// What a scan finds under names and among files that other systems do not have.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "unit/ScannedFiles.h"

namespace vessa_test {
namespace {

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

}  // namespace
}  // namespace vessa_test
