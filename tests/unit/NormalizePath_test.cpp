#include "common/NormalizePath.h"

#include <gtest/gtest.h>
#include <time.h>

#include <string>

#include "TestPlatform.h"
#include "unit/PathRules.h"

using vessa_test::TranscribedPath;

namespace {

double CpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

std::string Repeated(const std::string& part, size_t size) {
    std::string text;
    while (text.size() < size) text += part;
    return text;
}

TEST(NormalizePath, BringsSpellingsIntoOneForm) {
    EXPECT_EQ(NormalizePath("C:\\a\\\\b\\.\\c\\"), "C:/a/b/c");
    EXPECT_EQ(NormalizePath("./x/"), "x");
    EXPECT_EQ(NormalizePath("a/b/"), "a/b");
    EXPECT_EQ(NormalizePath("/a//b///c/././d"), "/a/b/c/d");
    EXPECT_EQ(NormalizePath("a/."), "a");
}

TEST(NormalizePath, KeepsTheRootAndDriveRoots) {
    EXPECT_EQ(NormalizePath("/"), "/");
    EXPECT_EQ(NormalizePath("/."), "/");
    EXPECT_EQ(NormalizePath("//"), "/");
    EXPECT_EQ(NormalizePath("C:/"), "C:/");
    EXPECT_EQ(NormalizePath("C:/."), "C:/");
    EXPECT_EQ(NormalizePath("z:\\"), "z:/");
    EXPECT_EQ(NormalizePath("C:"), "C:");
    EXPECT_EQ(NormalizePath("1:/"), "1:");
    EXPECT_EQ(NormalizePath("/C:/"), "/C:");
}

TEST(NormalizePath, TakesOnlyALetterForADrive) {
    for (const char* const sign : {"@", "[", "_", "`", "{", "1"}) {
        const std::string root = std::string(sign) + ":/";
        EXPECT_EQ(NormalizePath(root), root.substr(0, 2)) << root;
        EXPECT_EQ(NormalizePath(root + "."), root.substr(0, 2)) << root;
    }
    for (const char* const letter : {"A", "Z", "a", "z"})
        EXPECT_EQ(NormalizePath(std::string(letter) + ":/."), std::string(letter) + ":/");
}

TEST(NormalizePath, AnEmptyTextAndANullPointerAreEmpty) {
    EXPECT_EQ(NormalizePath(""), "");
    EXPECT_EQ(NormalizePath(std::string()), "");
    EXPECT_EQ(NormalizePath(static_cast<const char*>(nullptr)), "");
}

TEST(NormalizePath, KeepsTheServerOfANetworkPath) {
    EXPECT_EQ(NormalizePath("\\\\srv\\share\\d"), "\\\\srv\\share/d");
    EXPECT_EQ(NormalizePath("\\\\srv\\a\\\\b\\.\\c\\"), "\\\\srv\\a/b/c");
    EXPECT_EQ(NormalizePath("\\\\srv"), "\\\\srv");
    EXPECT_EQ(NormalizePath("\\\\"), "\\\\");
    EXPECT_EQ(NormalizePath("\\\\\\a\\b"), "\\\\\\a/b");
    EXPECT_EQ(NormalizePath("\\a\\b"), "/a/b");
}

TEST(NormalizePath, KeepsParentsLetterCaseAndRelativePaths) {
    EXPECT_EQ(NormalizePath("a/../b"), "a/../b");
    EXPECT_EQ(NormalizePath("../A/b"), "../A/b");
    EXPECT_EQ(NormalizePath("/.."), "/..");
    EXPECT_EQ(NormalizePath("a/...//b"), "a/.../b");
    EXPECT_EQ(NormalizePath(".hidden"), ".hidden");
    EXPECT_EQ(NormalizePath("."), ".");
    EXPECT_EQ(NormalizePath("a."), "a.");
}

TEST(NormalizePath, CutsAStringAtItsFirstZeroByte) {
    EXPECT_EQ(NormalizePath(std::string("a\\b\0c", 5)), "a/b");
}

TEST(NormalizePath, LeavesItsOwnResultAlone) {
    for (const char* const path : {"\\\\srv\\share\\d", "C:\\a\\\\b\\.\\c\\", "./x/", "/."}) {
        const std::string once = NormalizePath(path);
        EXPECT_EQ(NormalizePath(once), once);
    }
}

TEST(NormalizePath, AgreesWithItsDefinitionOnEveryShortText) {
    static const std::string kAlphabet = "/.\\a:";
    constexpr size_t kLongest = 8;
    int differences = 0;
    long texts = 0;
    std::string text;
    std::string digits;
    for (size_t length = 0; length <= kLongest; ++length) {
        digits.assign(length, '\0');
        for (bool more = true; more;) {
            text.clear();
            for (const char digit : digits) text += kAlphabet[static_cast<size_t>(digit)];
            ++texts;
            const std::string expected = TranscribedPath(text);
            if (NormalizePath(text) != expected || NormalizePath(text.c_str()) != expected) {
                if (++differences <= 10)
                    ADD_FAILURE() << "\"" << text << "\": \"" << NormalizePath(text)
                                  << "\" instead of \"" << expected << "\"";
            }
            more = false;
            for (char& digit : digits) {
                if (++digit < static_cast<char>(kAlphabet.size())) {
                    more = true;
                    break;
                }
                digit = 0;
            }
        }
    }
    EXPECT_EQ(texts, 488281);
    EXPECT_EQ(differences, 0);
}

// The definition taken literally needs seconds for each of these.
TEST(NormalizePath, NeedsOnePassForAnyText) {
    constexpr size_t kSize = size_t{1} << 20;
    const std::string parts[] = {"/", "./", "/./", "\\", "//a", "/.", "a", "..", "/./."};
    const double before = CpuSeconds();
    for (const std::string& part : parts) {
        const std::string text = Repeated(part, kSize);
        EXPECT_LE(NormalizePath(text).size(), text.size());
    }
    EXPECT_LT(CpuSeconds() - before, 3.0);
    EXPECT_EQ(NormalizePath(Repeated("/", kSize)), "/");
    EXPECT_EQ(NormalizePath("x" + Repeated("/./", kSize)), "x");
    EXPECT_EQ(NormalizePath(Repeated("\\", kSize) + "x"), "\\\\\\/x");
}

TEST(NormalizePath, FolderAndFileNameAreTheSidesOfTheLastSlash) {
    EXPECT_EQ(FolderOf("/a/b/c" MODULE_SUFFIX), "/a/b");
    EXPECT_EQ(FileNameOf("/a/b/c" MODULE_SUFFIX), "c" MODULE_SUFFIX);
    EXPECT_EQ(FolderOf("/c" MODULE_SUFFIX), "");
    EXPECT_EQ(FileNameOf("/c" MODULE_SUFFIX), "c" MODULE_SUFFIX);
    EXPECT_EQ(FolderOf("c" MODULE_SUFFIX), "");
    EXPECT_EQ(FileNameOf("c" MODULE_SUFFIX), "c" MODULE_SUFFIX);
    EXPECT_EQ(FileNameOf("C:/"), "");
    EXPECT_EQ(FolderOf("C:/"), "C:");
    EXPECT_EQ(FileNameOf("/"), "");
    EXPECT_EQ(FileNameOf(""), "");
    EXPECT_EQ(FolderOf(""), "");
    EXPECT_EQ(FileNameOf("\\\\srv\\share/d"), "d");
}

}  // namespace
