#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <utility>

#include "Support.h"

namespace fs = std::filesystem;
using testing::ElementsAre;
using tova_test::EntryOf;
using tova_test::Find;
using tova_test::List;
using tova_test::Names;
using tova_test::TempFolder;

TEST(Directory, ListsTheTwoDotsFirstAndThenInByteOrder) {
    TempFolder folder;
    // No two of them differ in their case alone, which is one name to some systems.
    for (const char* name :
         {"c", "a", "B", "aC", "ab", "a1", "!before the dots", "\xC3\xA4", ".x"}) {
        folder.Write(name, "");
    }
    EXPECT_THAT(Names(List(folder.Path())), ElementsAre(".", "..", "!before the dots", ".x", "B",
                                                        "a", "a1", "aC", "ab", "c", "\xC3\xA4"));
}

TEST(Directory, ListsTheTwoDotsOfAnEmptyFolder) {
    TempFolder folder;
    EXPECT_THAT(Names(List(folder.Path())), ElementsAre(".", ".."));
}

TEST(Directory, TellsFoldersFromFiles) {
    TempFolder folder;
    folder.Folder("folder");
    folder.Write("file", "x");
    const auto entries = List(folder.Path());
    EXPECT_EQ(Find(entries, ".").type, uint32_t{TOVA_DIRENT_FOLDER});
    EXPECT_EQ(Find(entries, "..").type, uint32_t{TOVA_DIRENT_FOLDER});
    EXPECT_EQ(Find(entries, "folder").type, uint32_t{TOVA_DIRENT_FOLDER});
    EXPECT_EQ(Find(entries, "file").type, uint32_t{TOVA_DIRENT_FILE});
}

TEST(Directory, ListsTheLongestName) {
    TempFolder folder;
    const std::string name(255, 'n');
    std::error_code error;
    fs::create_directory(fs::u8path(folder.Path(name)), error);
    if (error) GTEST_SKIP() << "the temporary folder's file system has shorter names";
    EXPECT_THAT(Names(List(folder.Path())), ElementsAre(".", "..", name));
}

TEST(Directory, ListsManyEntries) {
    TempFolder folder;
    std::vector<std::string> expected = {".", ".."};
    for (int i = 10000; i < 12000; ++i) {
        expected.push_back("file" + std::to_string(i));
        folder.Write(expected.back(), "");
    }
    EXPECT_EQ(Names(List(folder.Path())), expected);
}

TEST(Directory, ShowsTheListingOfTheMomentItWasOpened) {
    TempFolder folder;
    folder.Write("before", "");
    void* const dir = TOVA_OpenDir(folder.Path().c_str());
    ASSERT_NE(dir, nullptr);
    folder.Write("after", "");
    fs::remove(folder.Path("before"));
    std::vector<std::string> names;
    tova_dirent_t entry;
    while (TOVA_FindFileInDir(dir, &entry) == 0) names.emplace_back(entry.name);
    EXPECT_EQ(TOVA_CloseDir(dir), 0);
    EXPECT_THAT(names, ElementsAre(".", "..", "before"));
}

TEST(Directory, FailsAtTheEndAsOftenAsItIsAsked) {
    TempFolder folder;
    void* const dir = TOVA_OpenDir(folder.Path().c_str());
    ASSERT_NE(dir, nullptr);
    tova_dirent_t entry;
    EXPECT_EQ(TOVA_FindFileInDir(dir, &entry), 0);
    EXPECT_EQ(TOVA_FindFileInDir(dir, &entry), 0);
    for (int i = 0; i < 3; ++i) {
        EXPECT_NE(TOVA_FindFileInDir(dir, &entry), 0);
        EXPECT_NE(TOVA_GetSystemLastError(), 0);
    }
    EXPECT_EQ(TOVA_CloseDir(dir), 0);
}

TEST(Directory, FillsTheReservedFieldsAndTheRestOfTheNameWithZeros) {
    TempFolder folder;
    folder.Write("file", "x");
    void* const dir = TOVA_OpenDir(folder.Path().c_str());
    ASSERT_NE(dir, nullptr);
    tova_dirent_t entry;
    std::memset(&entry, 0xFF, sizeof entry);
    while (TOVA_FindFileInDir(dir, &entry) == 0) {
        const size_t length = std::strlen(entry.name);
        EXPECT_EQ(std::string(entry.name + length, sizeof entry.name - length),
                  std::string(sizeof entry.name - length, '\0'));
        EXPECT_EQ(entry.reserved_256, 0u);
        EXPECT_EQ(entry.reserved_260, 0u);
        EXPECT_EQ(entry.reserved_268, 0u);
        for (const uint64_t reserved : entry.reserved_288) EXPECT_EQ(reserved, 0u);
        std::memset(&entry, 0xFF, sizeof entry);
    }
    EXPECT_EQ(TOVA_CloseDir(dir), 0);
}

TEST(Directory, CannotBeOpenedIfItIsMissingOrAFile) {
    TempFolder folder;
    EXPECT_EQ(TOVA_OpenDir(folder.Path("missing").c_str()), nullptr);
    EXPECT_NE(TOVA_GetSystemLastError(), 0);
    EXPECT_EQ(TOVA_OpenDir(folder.Write("file", "x").c_str()), nullptr);
    EXPECT_NE(TOVA_GetSystemLastError(), 0);
    EXPECT_EQ(TOVA_OpenDir(""), nullptr);
    EXPECT_EQ(TOVA_OpenDir(nullptr), nullptr);
}

TEST(Directory, NullHandlesFail) {
    tova_dirent_t entry;
    EXPECT_NE(TOVA_FindFileInDir(nullptr, &entry), 0);
    EXPECT_NE(TOVA_CloseDir(nullptr), 0);
    TempFolder folder;
    void* const dir = TOVA_OpenDir(folder.Path().c_str());
    ASSERT_NE(dir, nullptr);
    EXPECT_NE(TOVA_FindFileInDir(dir, nullptr), 0);
    EXPECT_EQ(TOVA_CloseDir(dir), 0);
}

TEST(DirectoryIdentity, IsTheSameForTwoNamesOfOneFile) {
    TempFolder folder;
    folder.Write("one", "x");
    folder.Write("other", "x");
    fs::create_hard_link(folder.Path("one"), folder.Path("two"));
    const auto entries = List(folder.Path());
    const auto id = [&entries](const char* name) {
        const tova_dirent_t entry = Find(entries, name);
        return std::make_pair(entry.volume, entry.file_id);
    };
    EXPECT_EQ(id("one"), id("two"));
    EXPECT_NE(id("one"), id("other"));
}

TEST(DirectoryIdentity, OfAFolderIsThatOfItsDotAndOfItsFoldersTwoDots) {
    TempFolder folder;
    const std::string below = folder.Folder("below");
    folder.Folder("beside");
    const auto id = [](const tova_dirent_t& entry) {
        return std::make_pair(entry.volume, entry.file_id);
    };
    const auto above_entries = List(folder.Path());
    const auto below_entries = List(below);
    EXPECT_EQ(id(Find(above_entries, "below")), id(Find(below_entries, ".")));
    EXPECT_EQ(id(Find(above_entries, ".")), id(Find(below_entries, "..")));
    EXPECT_NE(id(Find(above_entries, "below")), id(Find(above_entries, "beside")));
}

TEST(DirectoryStamp, StaysWhileNothingIsWritten) {
    TempFolder folder;
    folder.Write("file", "content");
    const uint64_t first = EntryOf(folder, "file").stamp;
    for (int i = 0; i < 20; ++i) EXPECT_EQ(EntryOf(folder, "file").stamp, first);
    tova_test::ReadBytes(folder.Path("file"));
    EXPECT_EQ(EntryOf(folder, "file").stamp, first);
}

// As fast as it goes: many of these rewrites fall into one tick of the clock.
TEST(DirectoryStamp, ChangesWithEachRewriteOfTheSameSize) {
    TempFolder folder;
    folder.Write("file", "content 0");
    uint64_t before = EntryOf(folder, "file").stamp;
    for (int i = 1; i < 100; ++i) {
        folder.Write("file", "content " + std::to_string(i % 10));
        const uint64_t after = EntryOf(folder, "file").stamp;
        EXPECT_NE(after, before) << "rewrite " << i;
        before = after;
    }
}

TEST(DirectoryStamp, ChangesWithARewriteWhoseTimeIsRestored) {
    TempFolder folder;
    const std::string path = folder.Write("file", "content 0");
    const auto time = fs::last_write_time(path);
    uint64_t before = EntryOf(folder, "file").stamp;
    for (int i = 1; i < 20; ++i) {
        folder.Write("file", "content " + std::to_string(i % 10));
        fs::last_write_time(path, time);
        const uint64_t after = EntryOf(folder, "file").stamp;
        EXPECT_NE(after, before) << "rewrite " << i;
        before = after;
    }
}

TEST(DirectoryStamp, ChangesWithARenameOverIt) {
    TempFolder folder;
    const std::string path = folder.Write("file", "content 0");
    const auto time = fs::last_write_time(path);
    uint64_t before = EntryOf(folder, "file").stamp;
    for (int i = 1; i < 20; ++i) {
        fs::last_write_time(folder.Write("new", "content " + std::to_string(i % 10)), time);
        fs::rename(folder.Path("new"), path);
        const uint64_t after = EntryOf(folder, "file").stamp;
        EXPECT_NE(after, before) << "rename " << i;
        before = after;
    }
}

TEST(DirectoryStamp, ChangesWithTheSize) {
    TempFolder folder;
    folder.Write("file", "1");
    const uint64_t before = EntryOf(folder, "file").stamp;
    folder.Write("file", "12");
    EXPECT_NE(EntryOf(folder, "file").stamp, before);
}

TEST(DirectoryStamp, DiffersBetweenFilesOfEqualContent) {
    TempFolder folder;
    folder.Write("one", "x");
    folder.Write("two", "x");
    const auto time = fs::last_write_time(folder.Path("one"));
    fs::last_write_time(folder.Path("two"), time);
    const auto entries = List(folder.Path());
    EXPECT_NE(Find(entries, "one").stamp, Find(entries, "two").stamp);
}
