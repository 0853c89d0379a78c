// What the library asks of the system about itself: forks, descriptors, and files that would block.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "process/Process.h"
#include "support/TempDir.h"
#include "unit/OpenedFile.h"

namespace vessa_test {
namespace {

TEST(ProcessId, IsAnotherOneInAForkedChild) {
    const int32_t own = process::ProcessId();
    EXPECT_EQ(own, static_cast<int32_t>(getpid()));
    const pid_t child = fork();
    if (child == 0) _exit(process::ProcessId() == getpid() && getpid() != own ? 0 : 1);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST(RegularFile, RefusesEverythingElseWithoutBlocking) {
    TempDir world;
    world.MakeFolder("folder");
    world.MakeLink("nowhere", "dangling");
    ASSERT_EQ(mkfifo(world.Path("fifo").c_str(), 0600), 0);
    ExpectRefused(world.Path("missing"), ENOENT);
    ExpectRefused(world.Path("dangling"), ENOENT);
    ExpectRefused(world.Path("folder"), EISDIR);
    ExpectRefused(world.Path("fifo"), 0);
    ExpectRefused("/dev/null", 0);
    ExpectRefused("", ENOENT);
}

TEST(RegularFile, KeepsNoDescriptorOfARefusedFileAndClosesItsOwnOnExec) {
    TempDir world;
    world.MakeFolder("folder");
    world.Write("file", "text");
    process::RegularFile before;
    ASSERT_TRUE(before.Open(world.Path("file").c_str()));
    EXPECT_NE(fcntl(static_cast<int>(before.handle()), F_GETFD) & FD_CLOEXEC, 0);
    for (int i = 0; i < 10; ++i) ExpectRefused(world.Path("folder"), EISDIR);
    {
        process::RegularFile after;
        ASSERT_TRUE(after.Open(world.Path("file").c_str()));
        EXPECT_EQ(after.handle(), before.handle() + 1);
    }
    process::RegularFile again;
    ASSERT_TRUE(again.Open(world.Path("file").c_str()));
    EXPECT_EQ(again.handle(), before.handle() + 1);
}

}  // namespace
}  // namespace vessa_test
