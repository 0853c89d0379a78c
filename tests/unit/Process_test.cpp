#include "process/Process.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <system_error>
#include <thread>

#include "TestPlatform.h"
#include "support/TempDir.h"
#include "tova.h"
#include "unit/OpenedFile.h"

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
    const std::filesystem::path path = std::filesystem::u8path(file);
    EXPECT_TRUE(path.is_absolute()) << file;
    EXPECT_TRUE(std::filesystem::is_regular_file(path)) << file;
}

TEST(ReferenceToItself, MayBeMissingAndIsGivenBackAllTheSame) {
    // Code of the program itself cannot be unloaded; null or not, the release takes it.
    process::ReleaseSelf(process::ReferenceSelf());
    process::ReleaseSelf(nullptr);
}

TEST(BeingUnloaded, IsFalseWhileTheProcessLives) {
    EXPECT_FALSE(process::BeingUnloaded());
}

void ExpectOpened(const std::string& path) {
    const File file(process::OpenRegularFile(path.c_str()));
    ASSERT_NE(file, nullptr) << path;
    EXPECT_EQ(process::SeekToEnd(file.get()), 4) << path;
}

TEST(OpenRegularFile, OpensAFileAlsoThroughALink) {
    TempDir world;
    ExpectOpened(world.Write("file", "text"));
    if (!CanMakeLinks()) GTEST_SKIP() << "through a link: no symbolic links here";
    ExpectOpened(world.MakeLink("file", "link"));
}

TEST(SeekToEnd, TellsSizesBeyond32Bits) {
    TempDir world;
    const std::string path = world.Write("large", "");
    const int64_t size = (int64_t{1} << 32) + 5;
    std::error_code error;
    std::filesystem::resize_file(std::filesystem::u8path(path), size, error);
    if (error) GTEST_SKIP() << "no files of this size here";
    const File file(process::OpenRegularFile(path.c_str()));
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(process::SeekToEnd(file.get()), size);
}

TEST(ReadWhole, TellsAFileThatIsNotOfThatSize) {
    TempDir world;
    const File file(process::OpenRegularFile(world.Write("file", "a text\r\n").c_str()));
    ASSERT_NE(file, nullptr);
    char buffer[16] = {};
    ASSERT_EQ(process::SeekToEnd(file.get()), 8);
    EXPECT_EQ(process::ReadWhole(file.get(), buffer, 8), 8);
    EXPECT_EQ(std::string(buffer, 8), "a text\r\n");
    // And again from the begin.
    EXPECT_EQ(process::ReadWhole(file.get(), buffer, 7), 8);
    EXPECT_EQ(process::ReadWhole(file.get(), buffer, 12), 8);
}

TEST(RefusalsOfItsOwn, SetTheLastError) {
    SetLastSystemError(0);
    process::SetErrorFileTooLarge();
    EXPECT_EQ(TOVA_GetSystemLastError(), kErrorFileTooLarge);
    process::SetErrorTooManyFolders();
    EXPECT_EQ(TOVA_GetSystemLastError(), kErrorTooManyFolders);
}

}  // namespace
}  // namespace vessa_test
