#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <fstream>
#include <functional>
#include <string>

#include "support/TempDir.h"
#include "tova.h"
#include "vessa2/PluginConfigList.h"

namespace {

using vessa_test::TempDir;

constexpr size_t kMaxSize = 1000;

// Runs a function between the look at a file's size and the reading of its bytes.
std::function<void()> before_read;

class ReadHook {
  public:
    explicit ReadHook(std::function<void()> function) { before_read = std::move(function); }
    // Whoever wants it to happen wants to know that it did.
    ~ReadHook() {
        EXPECT_FALSE(before_read) << "nothing was read";
        before_read = nullptr;
    }
    ReadHook(const ReadHook&) = delete;
    ReadHook& operator=(const ReadHook&) = delete;
};

void Append(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::app | std::ios::binary) << text;
}

int OpenFiles() {
    int open = 0;
    for (int file = 0; file < 256; ++file) {
        if (fcntl(file, F_GETFD) != -1) ++open;
    }
    return open;
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
    errno = 0;
    EXPECT_FALSE(ReadTextFile(dir.Write("f", std::string(kMaxSize, 'x')), text, kMaxSize));
    EXPECT_EQ(TOVA_GetSystemLastError(), EFBIG);
    EXPECT_EQ(text, "");
}

// 5 in 32 bits.
TEST(ReadTextFile, RefusesAFileWhoseSizeLooksSmallInFewerBits) {
    TempDir dir;
    const std::string path = dir.Write("f", "");
    ASSERT_EQ(truncate(path.c_str(), (off_t{1} << 32) + 5), 0);
    std::string text = "x";
    EXPECT_FALSE(ReadTextFile(path, text, kMaxSize));
    EXPECT_EQ(TOVA_GetSystemLastError(), EFBIG);
    EXPECT_EQ(text, "");

    // Negative in 32 bits.
    ASSERT_EQ(truncate(path.c_str(), (off_t{1} << 31) + 5), 0);
    EXPECT_FALSE(ReadTextFile(path, text, kMaxSize));
}

TEST(ReadTextFile, RefusesAnEmptyPathAndAFileThatDoesNotExist) {
    TempDir dir;
    std::string text = "x";
    EXPECT_FALSE(ReadTextFile("", text, kMaxSize));
    EXPECT_FALSE(ReadTextFile(dir.Path("f"), text, kMaxSize));
    EXPECT_EQ(TOVA_GetSystemLastError(), ENOENT);
}

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

TEST(ReadTextFile, RefusesAFileThatGrowsMeanwhile) {
    TempDir dir;
    for (const size_t size : {size_t{5}, size_t{1000000}}) {
        const std::string path = dir.Write("f", std::string(size, 'x'));
        {
            const ReadHook hook([&] { Append(path, "y"); });
            std::string text = "x";
            errno = 0;
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
    const ReadHook hook([&] { EXPECT_EQ(truncate(path.c_str(), 2), 0); });
    std::string text = "x";
    errno = 0;
    EXPECT_FALSE(ReadTextFile(path, text, 1048576));
    EXPECT_NE(TOVA_GetSystemLastError(), 0);
    EXPECT_EQ(text, "");
}

TEST(ReadTextFile, ReadsTheFileThatItOpenedWhenAnotherTakesItsName) {
    TempDir dir;
    const std::string path = dir.Write("f", "first");
    const ReadHook hook([&] { dir.WriteByRename("f", "second"); });
    std::string text;
    EXPECT_TRUE(ReadTextFile(path, text, kMaxSize));
    EXPECT_EQ(text, "first");
}

TEST(ReadTextFile, ClosesTheFileWhateverBecomesOfIt) {
    TempDir dir;
    const std::string good = dir.Write("good", "text");
    const std::string large = dir.Write("large", std::string(kMaxSize, 'x'));
    const std::string empty = dir.Write("empty", "");
    const std::string fifo = dir.Path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int before = OpenFiles();
    std::string text;
    EXPECT_TRUE(ReadTextFile(good, text, kMaxSize));
    EXPECT_FALSE(ReadTextFile(large, text, kMaxSize));
    EXPECT_TRUE(ReadTextFile(empty, text, kMaxSize));
    EXPECT_FALSE(ReadTextFile(fifo, text, kMaxSize));
    EXPECT_FALSE(ReadTextFile(dir.Path(""), text, kMaxSize));
    EXPECT_EQ(OpenFiles(), before);
}

}  // namespace

// Stands in for the C library's function in this whole program.
extern "C" size_t fread(void* buffer, size_t size, size_t count, FILE* file) {
    if (before_read) {
        const std::function<void()> function = std::move(before_read);
        before_read = nullptr;
        function();
    }
    using Read = size_t (*)(void*, size_t, size_t, FILE*);
    static const auto real = reinterpret_cast<Read>(dlsym(RTLD_NEXT, "fread"));
    return real(buffer, size, count, file);
}
