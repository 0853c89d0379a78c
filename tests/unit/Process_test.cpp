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
        // At the thread's end it would be taken for a thread's place.
        EXPECT_TRUE(process::ThreadSlotSet(nullptr));
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
    process::RegularFile file;
    ASSERT_TRUE(file.Open(path.c_str())) << path;
    EXPECT_EQ(file.size(), 4) << path;
    char bytes[5] = {};
    EXPECT_EQ(file.ReadWhole(bytes, 4), 4) << path;
    EXPECT_STREQ(bytes, "text") << path;
}

TEST(RegularFile, OpensAFileAlsoThroughALink) {
    TempDir world;
    ExpectOpened(world.Write("file", "text"));
    if (!CanMakeLinks()) GTEST_SKIP() << "through a link: no symbolic links here";
    ExpectOpened(world.MakeLink("file", "link"));
}

TEST(RegularFile, TellsSizesBeyond32Bits) {
    TempDir world;
    const std::string path = world.Write("large", "");
    const int64_t size = (int64_t{1} << 32) + 5;
    std::error_code error;
    std::filesystem::resize_file(std::filesystem::u8path(path), size, error);
    if (error) GTEST_SKIP() << "no files of this size here";
    process::RegularFile file;
    ASSERT_TRUE(file.Open(path.c_str()));
    EXPECT_EQ(file.size(), size);
}

TEST(RegularFile, ShowsByOneByteMoreOrByLessThatItIsNotOfThatSize) {
    TempDir world;
    const std::string path = world.Write("file", "a text\r\n");
    for (const size_t size : {size_t{7}, size_t{8}, size_t{12}}) {
        process::RegularFile file;
        ASSERT_TRUE(file.Open(path.c_str()));
        char bytes[13] = {};
        EXPECT_EQ(file.ReadWhole(bytes, size), 8) << size;
        EXPECT_STREQ(bytes, "a text\r\n") << size;
    }
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
