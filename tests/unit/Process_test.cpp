#include "process/Process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include "support/TempDir.h"
#include "tova.h"

namespace vessa_test {
namespace {

TEST(ThreadSlot, IsNullUntilItIsSetAndBelongsToOneThread) {
    int mine = 0;
    int others = 0;
    ASSERT_EQ(process::ThreadSlotGet(), nullptr);
    ASSERT_TRUE(process::ThreadSlotSet(&mine));
    std::thread([&] {
        EXPECT_EQ(process::ThreadSlotGet(), nullptr);
        EXPECT_TRUE(process::ThreadSlotSet(&others));
        EXPECT_EQ(process::ThreadSlotGet(), &others);
    }).join();
    EXPECT_EQ(process::ThreadSlotGet(), &mine);
    EXPECT_TRUE(process::ThreadSlotSet(nullptr));
    EXPECT_EQ(process::ThreadSlotGet(), nullptr);
}

TEST(ModuleFile, IsAbsoluteAndExists) {
    const std::string file = process::ModuleFile();
    ASSERT_FALSE(file.empty());
    EXPECT_EQ(file[0], '/');
    EXPECT_EQ(access(file.c_str(), R_OK), 0) << file;
}

TEST(ReferenceToItself, MayBeMissingAndIsGivenBackAllTheSame) {
    // Code of the program itself cannot be unloaded; null or not, the release takes it.
    process::ReleaseSelf(process::ReferenceSelf());
    process::ReleaseSelf(nullptr);
}

TEST(BeingUnloaded, IsFalseWhileTheProcessLives) {
    EXPECT_FALSE(process::BeingUnloaded());
}

TEST(ProcessId, IsAnotherOneInAForkedChild) {
    const int32_t own = process::ProcessId();
    EXPECT_EQ(own, static_cast<int32_t>(getpid()));
    const pid_t child = fork();
    if (child == 0) _exit(process::ProcessId() == getpid() && getpid() != own ? 0 : 1);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

struct CloseFile {
    void operator()(FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, CloseFile>;

void ExpectRefused(const std::string& path, int error) {
    errno = 0;
    const File file(process::OpenRegularFile(path.c_str()));
    EXPECT_EQ(file, nullptr) << path;
    if (error != 0) {
        EXPECT_EQ(TOVA_GetSystemLastError(), error) << path;
    }
    EXPECT_NE(TOVA_GetSystemLastError(), 0) << path;
}

TEST(OpenRegularFile, OpensAFileAlsoThroughALink) {
    TempDir world;
    world.Write("file", "text");
    world.MakeLink("file", "link");
    for (const char* name : {"file", "link"}) {
        const File file(process::OpenRegularFile(world.Path(name).c_str()));
        ASSERT_NE(file, nullptr) << name;
        EXPECT_EQ(process::SeekToEnd(file.get()), 4);
    }
}

TEST(OpenRegularFile, RefusesEverythingElseWithoutBlocking) {
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

TEST(OpenRegularFile, KeepsNoDescriptorOfARefusedFileAndClosesItsOwnOnExec) {
    TempDir world;
    world.MakeFolder("folder");
    world.Write("file", "text");
    const File before(process::OpenRegularFile(world.Path("file").c_str()));
    ASSERT_NE(before, nullptr);
    EXPECT_NE(fcntl(fileno(before.get()), F_GETFD) & FD_CLOEXEC, 0);
    for (int i = 0; i < 10; ++i) ExpectRefused(world.Path("folder"), EISDIR);
    const File after(process::OpenRegularFile(world.Path("file").c_str()));
    ASSERT_NE(after, nullptr);
    EXPECT_EQ(fileno(after.get()), fileno(before.get()) + 1);
}

TEST(SeekToEnd, TellsSizesBeyond32Bits) {
    TempDir world;
    const std::string path = world.Write("large", "");
    const int64_t size = (int64_t{1} << 32) + 5;
    if (truncate(path.c_str(), size) != 0) GTEST_SKIP() << "no sparse files of this size here";
    const File file(process::OpenRegularFile(path.c_str()));
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(process::SeekToEnd(file.get()), size);
}

TEST(RefusalsOfItsOwn, SetTheLastError) {
    errno = 0;
    process::SetErrorFileTooLarge();
    EXPECT_EQ(TOVA_GetSystemLastError(), EFBIG);
    process::SetErrorTooManyFolders();
    EXPECT_EQ(TOVA_GetSystemLastError(), ELOOP);
}

}  // namespace
}  // namespace vessa_test
