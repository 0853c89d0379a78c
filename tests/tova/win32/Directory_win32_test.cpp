#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <utility>

#include "../Support.h"
#include "Links.h"
#include "LongFolder.h"
#include "System.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;
using testing::ElementsAre;
using tova_test::CurrentFolder;
using tova_test::EntryOf;
using tova_test::Find;
using tova_test::kShareAll;
using tova_test::List;
using tova_test::LongFolder;
using tova_test::Names;
using tova_test::Open;
using tova_test::OpenHandles;
using tova_test::TempFolder;
using tova_test::Verbatim;
using tova_test::Wide;

namespace {

bool IsOther(const tova_dirent_t& entry) {
    return entry.type != TOVA_DIRENT_FOLDER && entry.type != TOVA_DIRENT_FILE;
}

std::pair<uint64_t, uint64_t> IdentityOf(const tova_dirent_t& entry) {
    return {entry.volume, entry.file_id};
}

void ExpectTheSame(const tova_dirent_t& one, const tova_dirent_t& other) {
    EXPECT_EQ(one.type, other.type);
    EXPECT_EQ(one.stamp, other.stamp);
    EXPECT_EQ(IdentityOf(one), IdentityOf(other));
}

int ErrorOfOpening(const std::string& folder) {
    void* const dir = TOVA_OpenDir(folder.c_str());
    const int error = TOVA_GetSystemLastError();
    EXPECT_EQ(dir, nullptr) << folder;
    if (dir != nullptr) TOVA_CloseDir(dir);
    return error;
}

// What the system lists itself: it may have changed a name on the way.
std::wstring OnlyNameIn(const std::string& folder) {
    WIN32_FIND_DATAW found{};
    const HANDLE search = FindFirstFileW((Verbatim(folder) + L"\\*").c_str(), &found);
    std::wstring name;
    do {
        if (found.cFileName != std::wstring(L".") && found.cFileName != std::wstring(L".."))
            name = found.cFileName;
    } while (FindNextFileW(search, &found));
    FindClose(search);
    return name;
}

}  // namespace

TEST(DirectoryWin32, IsNamedWithEitherSeparator) {
    TempFolder folder;
    folder.Folder("sub");
    folder.Write("sub/file", "x");
    std::string path = folder.Path("sub");
    for (const auto& [from, to] : {std::make_pair('\\', '/'), std::make_pair('/', '\\')}) {
        for (char& c : path) {
            if (c == from) c = to;
        }
        for (const char* end : {"", "/", "\\", "\\\\", "/.", "\\.\\..\\sub"})
            EXPECT_THAT(Names(List(path + end)), ElementsAre(".", "..", "file")) << path << end;
    }
}

TEST(DirectoryWin32, NamesAreListedInTheCaseTheyWereMadeIn) {
    TempFolder folder;
    folder.Write("Mixed.XML", "");
    folder.Folder("FOLDER");
    std::string upper = folder.Path();
    for (char& c : upper) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    EXPECT_THAT(Names(List(folder.Path())), ElementsAre(".", "..", "FOLDER", "Mixed.XML"));
    EXPECT_THAT(Names(List(upper)), ElementsAre(".", "..", "FOLDER", "Mixed.XML"));
}

TEST(DirectoryWin32, NamesMayHaveLettersOutsideTheAnsiCodePage) {
    TempFolder folder;
    for (const char* name : {"\xE6\x97\xA5\xE6\x9C\xAC", "\xD0\x96", "\xF0\x9F\x98\x80"})
        folder.Folder(name);
    EXPECT_THAT(Names(List(folder.Path())),
                ElementsAre(".", "..", "\xD0\x96", "\xE6\x97\xA5\xE6\x9C\xAC", "\xF0\x9F\x98\x80"));
    folder.Write("\xE6\x97\xA5\xE6\x9C\xAC/file", "x");
    EXPECT_THAT(Names(List(folder.Path("\xE6\x97\xA5\xE6\x9C\xAC"))),
                ElementsAre(".", "..", "file"));
}

TEST(DirectoryWin32, NamesMayEndInAFullStopOrABlank) {
    TempFolder folder;
    const std::wstring top = Verbatim(folder.Path());
    for (const wchar_t* name : {L"\\x", L"\\x.", L"\\x "})
        ASSERT_TRUE(CreateDirectoryW((top + name).c_str(), nullptr));
    Open(top + L"\\x.\\in the second", GENERIC_WRITE, 0, CREATE_NEW);
    Open(top + L"\\x \\in the third ", GENERIC_WRITE, 0, CREATE_NEW);
    EXPECT_THAT(Names(List(folder.Path())), ElementsAre(".", "..", "x", "x ", "x."));
    EXPECT_THAT(Names(List(folder.Path() + "/x")), ElementsAre(".", ".."));
    EXPECT_THAT(Names(List(folder.Path() + "/x.")), ElementsAre(".", "..", "in the second"));
    EXPECT_THAT(Names(List(folder.Path() + "/x ")), ElementsAre(".", "..", "in the third "));
    {
        const CurrentFolder current(folder.Path());
        EXPECT_THAT(Names(List("x.")), ElementsAre(".", "..", "in the second"));
        EXPECT_THAT(Names(List("./x ")), ElementsAre(".", "..", "in the third "));
    }
}

TEST(DirectoryWin32, MayHaveALongPath) {
    TempFolder folder;
    const LongFolder deep(folder);
    deep.CopyOf(PLAIN_MODULE, "file");
    const auto entries = List(deep.Path());
    EXPECT_THAT(Names(entries), ElementsAre(".", "..", "file"));
    EXPECT_EQ(Find(entries, "file").type, uint32_t{TOVA_DIRENT_FILE});
    const std::string above = deep.Path().substr(0, deep.Path().rfind('\\'));
    EXPECT_EQ(IdentityOf(Find(entries, "..")), IdentityOf(Find(List(above), ".")));
    EXPECT_EQ(Names(List(above))[2], std::string(99, 'd'));
}

// Some volumes keep a short name beside such a one, by which it can be had.
TEST(DirectoryWin32, ANameTooLongForAnEntryShowsAsItsShortNameOrFailsTheListing) {
    TempFolder folder;
    const std::wstring name(100, L'\x65E5');
    const std::wstring path = Verbatim(folder.Path()) + L"\\" + name;
    ASSERT_TRUE(CreateDirectoryW(path.c_str(), nullptr));
    if (OnlyNameIn(folder.Path()) != name)
        GTEST_SKIP() << "the temporary folder's file system cuts names of 300 bytes in UTF-8";
    wchar_t with_short_name[MAX_PATH] = {};
    GetShortPathNameW(path.c_str(), with_short_name, MAX_PATH);
    if (with_short_name == path) {
        EXPECT_EQ(ErrorOfOpening(folder.Path()), ERROR_FILENAME_EXCED_RANGE);
        return;
    }
    const std::vector<std::string> names = Names(List(folder.Path()));
    ASSERT_EQ(names.size(), 3u);
    EXPECT_EQ(fs::path(with_short_name).filename().u8string(), names[2]);
    EXPECT_THAT(Names(List(folder.Path(names[2]))), ElementsAre(".", ".."));
}

TEST(DirectoryWin32, TheLongestNameOfLettersWithThreeBytesIsListed) {
    TempFolder folder;
    std::string name;
    for (int i = 0; i < 85; ++i) name += "\xE6\x97\xA5";
    ASSERT_TRUE(CreateDirectoryW((Verbatim(folder.Path()) + L"\\" + Wide(name)).c_str(), nullptr));
    EXPECT_THAT(Names(List(folder.Path())), ElementsAre(".", "..", name));
    EXPECT_THAT(Names(List(folder.Path() + "/" + name)), ElementsAre(".", ".."));
}

TEST(DirectoryWin32, AFileThatOneProgramHasForItselfIsListed) {
    TempFolder folder;
    const std::string path = folder.Write("file", "x");
    folder.Write("other", "x");
    const tova_dirent_t before = EntryOf(folder, "file");
    const Open alone(Wide(path), GENERIC_READ | GENERIC_WRITE | DELETE, 0);
    EXPECT_THAT(Names(List(folder.Path())), ElementsAre(".", "..", "file", "other"));
    ExpectTheSame(EntryOf(folder, "file"), before);
}

TEST(DirectoryWin32, AFileShowsEachWriteWhileItIsStillOpen) {
    TempFolder folder;
    const std::string path = folder.Write("file", "");
    uint64_t before = EntryOf(folder, "file").stamp;
    const Open writer(Wide(path), GENERIC_WRITE, 0);
    for (int i = 0; i < 10; ++i) {
        writer.Write("content");
        const uint64_t after = EntryOf(folder, "file").stamp;
        EXPECT_NE(after, before) << "write " << i;
        before = after;
    }
}

TEST(DirectoryWin32, AnOpenListingKeepsNobodyFromFilesAndFolder) {
    TempFolder folder;
    const std::string below = folder.Folder("below");
    folder.Write("below/file", "x");
    void* const dir = TOVA_OpenDir(below.c_str());
    ASSERT_NE(dir, nullptr);
    { const Open alone(Wide(below) + L"\\file", GENERIC_READ | GENERIC_WRITE | DELETE, 0); }
    fs::rename(below + "\\file", below + "\\renamed");
    fs::rename(below, folder.Path("moved"));
    fs::remove_all(folder.Path("moved"));
    EXPECT_FALSE(fs::exists(folder.Path("moved")));
    EXPECT_EQ(TOVA_CloseDir(dir), 0);
}

TEST(DirectoryWin32, AnOpenListingHoldsNoHandle) {
    TempFolder folder;
    folder.Write("file", "x");
    const size_t before = OpenHandles();
    {
        const Open file(Wide(folder.Path("file")), GENERIC_READ, kShareAll);
        ASSERT_EQ(OpenHandles(), before + 1);
    }
    void* const dir = TOVA_OpenDir(folder.Path().c_str());
    ASSERT_NE(dir, nullptr);
    EXPECT_EQ(OpenHandles(), before);
    EXPECT_EQ(TOVA_CloseDir(dir), 0);
    EXPECT_EQ(TOVA_OpenDir(folder.Path("file").c_str()), nullptr);
    EXPECT_EQ(OpenHandles(), before);
}

TEST(DirectoryWin32, ARootHasItselfAboveIt) {
    TempFolder folder;
    const std::string root = folder.Path().substr(0, 3);
    const auto entries = List(root);
    ASSERT_GE(entries.size(), 2u);
    EXPECT_EQ(Names(entries)[0], ".");
    EXPECT_EQ(Names(entries)[1], "..");
    EXPECT_EQ(IdentityOf(entries[0]), IdentityOf(entries[1]));
    EXPECT_EQ(entries[0].type, uint32_t{TOVA_DIRENT_FOLDER});
}

TEST(DirectoryWin32, IdentityIsThatOfTheFileSystem) {
    TempFolder folder;
    const Open file(Wide(folder.Write("file", "x")), GENERIC_READ, kShareAll);
    BY_HANDLE_FILE_INFORMATION about{};
    ASSERT_TRUE(GetFileInformationByHandle(file.Get(), &about));
    const tova_dirent_t entry = EntryOf(folder, "file");
    EXPECT_EQ(entry.volume, about.dwVolumeSerialNumber);
    EXPECT_EQ(entry.file_id, uint64_t{about.nFileIndexHigh} << 32 | about.nFileIndexLow);
}

// A time far ahead is no reason to wait for it.
TEST(DirectoryWin32, AModificationTimeFarAheadIsListed) {
    TempFolder folder;
    {
        const Open file(Wide(folder.Write("file", "x")), FILE_WRITE_ATTRIBUTES, kShareAll);
        const FILETIME ahead{5, 0x02FFFFFF};
        ASSERT_TRUE(SetFileTime(file.Get(), nullptr, nullptr, &ahead));
    }
    EXPECT_EQ(EntryOf(folder, "file").type, uint32_t{TOVA_DIRENT_FILE});
}

TEST(DirectoryWin32, NamesTheErrorOfAFailedOpen) {
    TempFolder folder;
    EXPECT_EQ(ErrorOfOpening(folder.Path("missing")), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(ErrorOfOpening(folder.Path("missing/below")), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(ErrorOfOpening(folder.Write("file", "")), ERROR_DIRECTORY);
    EXPECT_EQ(ErrorOfOpening(folder.Path() + "/\xFF"), ERROR_NO_UNICODE_TRANSLATION);
    for (const char* device : {"nul", "\\\\.\\C:", "\\\\.\\pipe\\"})
        EXPECT_NE(ErrorOfOpening(device), 0);
}

TEST(DirectoryWin32, ALinkShowsWhatItPointsTo) {
    if (!vessa_test::CanMakeLinks()) GTEST_SKIP() << "no symbolic links here";
    vessa_test::TempDir folder;
    folder.Write("file", "x");
    folder.MakeFolder("folder");
    folder.MakeLink("file", "to file");
    folder.MakeLink("folder", "to folder");
    const auto entries = List(folder.Path());
    ExpectTheSame(Find(entries, "to file"), Find(entries, "file"));
    ExpectTheSame(Find(entries, "to folder"), Find(entries, "folder"));
}

TEST(DirectoryWin32, ARewriteShowsThroughALink) {
    if (!vessa_test::CanMakeLinks()) GTEST_SKIP() << "no symbolic links here";
    vessa_test::TempDir folder;
    vessa_test::TempDir elsewhere;
    folder.MakeLink(elsewhere.Write("file", "content 1"), "link");
    const uint64_t before = Find(List(folder.Path()), "link").stamp;
    elsewhere.Write("file", "content 2");
    EXPECT_NE(Find(List(folder.Path()), "link").stamp, before);
}

TEST(DirectoryWin32, ALinkThatLeadsNowhereIsListedAsNeitherFolderNorFile) {
    if (!vessa_test::CanMakeLinks()) GTEST_SKIP() << "no symbolic links here";
    vessa_test::TempDir folder;
    folder.Write("file", "x");
    folder.MakeLink("missing", "dangling");
    folder.MakeLink("loop", "loop");
    folder.MakeLink("file/below", "through a file");
    const auto entries = List(folder.Path());
    EXPECT_THAT(Names(entries),
                ElementsAre(".", "..", "dangling", "file", "loop", "through a file"));
    for (const char* name : {"dangling", "loop", "through a file"})
        EXPECT_TRUE(IsOther(Find(entries, name))) << name;
}

TEST(DirectoryWin32, AJunctionShowsTheFolderItPointsTo) {
    TempFolder folder;
    TempFolder elsewhere;
    elsewhere.Folder("target");
    elsewhere.Write("target/file", "x");
    if (!tova_test::MakeJunction(elsewhere.Path("target"), folder.Path("junction")))
        GTEST_SKIP() << "no junctions here";
    ExpectTheSame(EntryOf(folder, "junction"), EntryOf(elsewhere, "target"));
    const auto through = List(folder.Path("junction"));
    EXPECT_THAT(Names(through), ElementsAre(".", "..", "file"));
    EXPECT_EQ(IdentityOf(Find(through, "..")), IdentityOf(EntryOf(elsewhere, ".")));
}

TEST(DirectoryWin32, AJunctionThatLeadsNowhereIsListedAsNeitherFolderNorFile) {
    TempFolder folder;
    if (!tova_test::MakeJunction(folder.Path("missing"), folder.Path("junction")))
        GTEST_SKIP() << "no junctions here";
    EXPECT_TRUE(IsOther(EntryOf(folder, "junction")));
}

TEST(DirectoryWin32, AFolderThatThisUserMayNotReadCannotBeOpened) {
    TempFolder folder;
    const std::string closed = folder.Folder("closed");
    folder.Write("closed/file", "x");
    const tova_test::ReadingDenied denied(closed);
    if (!denied.Holds()) GTEST_SKIP() << "to this user every folder is open";
    EXPECT_EQ(ErrorOfOpening(closed), ERROR_ACCESS_DENIED);
    EXPECT_EQ(EntryOf(folder, "closed").type, uint32_t{TOVA_DIRENT_FOLDER});
}
