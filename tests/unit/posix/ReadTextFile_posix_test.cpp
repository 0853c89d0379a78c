// Files that would block their reader, and one that is replaced under it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string>

#include "support/TempDir.h"
#include "tova.h"
#include "unit/ReadHook.h"
#include "vessa2/PluginConfigList.h"

namespace {

using vessa_test::ReadHook;
using vessa_test::TempDir;

constexpr size_t kMaxSize = 1000;

TEST(ReadTextFile, RefusesAFifoAFolderAndADeviceAtOnce) {
    TempDir dir;
    const std::string fifo = dir.Path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string& path : {fifo, dir.MakeFolder("folder"), std::string("/dev/zero")}) {
        std::string text;
        errno = 0;
        EXPECT_FALSE(ReadTextFile(path, text, kMaxSize)) << path;
        EXPECT_NE(TOVA_GetSystemLastError(), 0) << path;
        EXPECT_EQ(text, "") << path;
    }
}

// The other end stays open, so that there is something to wait for.
TEST(ReadTextFile, RefusesAFifoThatSomebodyWrites) {
    TempDir dir;
    const std::string fifo = dir.Path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int both_ends = open(fifo.c_str(), O_RDWR);
    ASSERT_GE(both_ends, 0);
    std::string text;
    EXPECT_FALSE(ReadTextFile(fifo, text, kMaxSize));
    close(both_ends);
}

TEST(ReadTextFile, ReadsTheFileThatItOpenedWhenAnotherTakesItsName) {
    TempDir dir;
    const std::string path = dir.Write("f", "first");
    const ReadHook hook([&] { dir.WriteByRename("f", "second"); });
    std::string text;
    EXPECT_TRUE(ReadTextFile(path, text, kMaxSize));
    EXPECT_EQ(text, "first");
}

}  // namespace
