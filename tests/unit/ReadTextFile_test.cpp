#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "OpenFiles.h"
#include "TestPlatform.h"
#include "support/TempDir.h"
#include "tova.h"
#include "unit/ReadHook.h"
#include "vessa2/PluginConfigList.h"

namespace {

using vessa_test::kErrorFileTooLarge;
using vessa_test::kErrorNotFound;
using vessa_test::NoRegularFiles;
using vessa_test::OpenFiles;
using vessa_test::ReadHook;
using vessa_test::SetLastSystemError;
using vessa_test::TempDir;

constexpr size_t kMaxSize = 1000;

void Append(const std::string& path, const std::string& text) {
    std::ofstream(std::filesystem::u8path(path), std::ios::app | std::ios::binary) << text;
}

void Resize(const std::string& path, std::uintmax_t size) {
    std::filesystem::resize_file(std::filesystem::u8path(path), size);
}

// By its last byte: not every C library of the systems lets a file grow so far by its size alone.
void Lengthen(const std::string& path, std::int64_t size) {
    std::ofstream file(std::filesystem::u8path(path),
                       std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(size - 1)).put('x');
    ASSERT_TRUE(file.good());
}

TEST(ReadTextFile, ReadsAWholeFileWithEveryKindOfLineEnd) {
    TempDir dir;
    const std::string content = "a\r\nb\nc\x1A\xFF";
    std::string text;
    EXPECT_TRUE(ReadTextFile(dir.Write("f", content), text, kMaxSize));
    EXPECT_EQ(text, content);
}

TEST(ReadTextFile, ReplacesWhatTheTextWas) {
    TempDir dir;
    std::string text = "something longer than the file";
    EXPECT_TRUE(ReadTextFile(dir.Write("f", "short"), text, kMaxSize));
    EXPECT_EQ(text, "short");
}

TEST(ReadTextFile, CutsTheTextAtItsFirstZeroByte) {
    TempDir dir;
    std::string text;
    EXPECT_TRUE(ReadTextFile(dir.Write("f", std::string("ab\0cd\0", 6)), text, kMaxSize));
    EXPECT_EQ(text, "ab");
    EXPECT_TRUE(ReadTextFile(dir.Write("f", std::string("\0cd", 3)), text, kMaxSize));
    EXPECT_EQ(text, "");
}

TEST(ReadTextFile, LeavesTheTextForAnEmptyFile) {
    TempDir dir;
    std::string text = "as it was";
    EXPECT_TRUE(ReadTextFile(dir.Write("f", ""), text, kMaxSize));
    EXPECT_EQ(text, "as it was");
}

TEST(ReadTextFile, ReadsLessThanTheLimitAndRefusesTheLimit) {
    TempDir dir;
    std::string text;
    EXPECT_TRUE(ReadTextFile(dir.Write("f", std::string(kMaxSize - 1, 'x')), text, kMaxSize));
    EXPECT_EQ(text.size(), kMaxSize - 1);
    SetLastSystemError(0);
    EXPECT_FALSE(ReadTextFile(dir.Write("f", std::string(kMaxSize, 'x')), text, kMaxSize));
    EXPECT_EQ(TOVA_GetSystemLastError(), kErrorFileTooLarge);
    EXPECT_EQ(text, "");
}

// 5 in 32 bits.
TEST(ReadTextFile, RefusesAFileWhoseSizeLooksSmallInFewerBits) {
    TempDir dir;
    const std::string path = dir.Write("f", "");
    Lengthen(path, (std::int64_t{1} << 32) + 5);
    std::string text = "x";
    EXPECT_FALSE(ReadTextFile(path, text, kMaxSize));
    EXPECT_EQ(TOVA_GetSystemLastError(), kErrorFileTooLarge);
    EXPECT_EQ(text, "");

    // Negative in 32 bits.
    Resize(path, 0);
    Lengthen(path, (std::int64_t{1} << 31) + 5);
    EXPECT_FALSE(ReadTextFile(path, text, kMaxSize));
}

TEST(ReadTextFile, RefusesAnEmptyPathAndAFileThatDoesNotExist) {
    TempDir dir;
    std::string text = "x";
    EXPECT_FALSE(ReadTextFile("", text, kMaxSize));
    EXPECT_FALSE(ReadTextFile(dir.Path("f"), text, kMaxSize));
    EXPECT_EQ(TOVA_GetSystemLastError(), kErrorNotFound);
}

TEST(ReadTextFile, RefusesAFileThatGrowsMeanwhile) {
    TempDir dir;
    for (const size_t size : {size_t{5}, size_t{1000000}}) {
        const std::string path = dir.Write("f", std::string(size, 'x'));
        {
            const ReadHook hook([&] { Append(path, "y"); });
            std::string text = "x";
            SetLastSystemError(0);
            EXPECT_FALSE(ReadTextFile(path, text, 1048576)) << size;
            EXPECT_NE(TOVA_GetSystemLastError(), 0) << size;
            EXPECT_EQ(text, "") << size;
        }
        std::string text;
        EXPECT_TRUE(ReadTextFile(path, text, 1048576)) << size;
        EXPECT_EQ(text, std::string(size, 'x') + "y") << size;
    }
}

TEST(ReadTextFile, RefusesAFileThatShrinksMeanwhile) {
    TempDir dir;
    // More than a stream reads ahead.
    const std::string path = dir.Write("f", std::string(1000000, 'x'));
    const ReadHook hook([&] { Resize(path, 2); });
    std::string text = "x";
    SetLastSystemError(0);
    EXPECT_FALSE(ReadTextFile(path, text, 1048576));
    EXPECT_NE(TOVA_GetSystemLastError(), 0);
    EXPECT_EQ(text, "");
}

TEST(ReadTextFile, ClosesTheFileWhateverBecomesOfIt) {
    TempDir dir;
    const std::string good = dir.Write("good", "text");
    const std::string large = dir.Write("large", std::string(kMaxSize, 'x'));
    const std::string empty = dir.Write("empty", "");
    const std::vector<std::string> others = NoRegularFiles(dir);
    const int before = OpenFiles();
    std::string text;
    EXPECT_TRUE(ReadTextFile(good, text, kMaxSize));
    EXPECT_FALSE(ReadTextFile(large, text, kMaxSize));
    EXPECT_TRUE(ReadTextFile(empty, text, kMaxSize));
    for (const std::string& other : others)
        EXPECT_FALSE(ReadTextFile(other, text, kMaxSize)) << other;
    EXPECT_FALSE(ReadTextFile(dir.Path(""), text, kMaxSize));
    EXPECT_EQ(OpenFiles(), before);
}

}  // namespace
