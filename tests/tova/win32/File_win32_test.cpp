#include <gtest/gtest.h>

#include "../Support.h"
#include "LongFolder.h"
#include "System.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;
using tova_test::CurrentFolder;
using tova_test::LongFolder;
using tova_test::Open;
using tova_test::TempFolder;
using tova_test::Verbatim;
using tova_test::Wide;

namespace {

int Access(const std::string& path) {
    return TOVA_AccessFile(path.c_str(), 0);
}

std::string WithBackSlashes(std::string path) {
    for (char& c : path) {
        if (c == '/') c = '\\';
    }
    return path;
}

std::string WithSlashes(std::string path) {
    for (char& c : path) {
        if (c == '\\') c = '/';
    }
    return path;
}

}  // namespace

TEST(FileWin32, IsNamedWithEitherSeparator) {
    TempFolder folder;
    folder.Folder("sub");
    const std::string path = folder.Write("sub/file", "x");
    EXPECT_EQ(Access(WithSlashes(path)), 0);
    EXPECT_EQ(Access(WithBackSlashes(path)), 0);
    EXPECT_EQ(Access(WithBackSlashes(folder.Path()) + "/sub\\/file"), 0);
    EXPECT_EQ(Access(WithSlashes(folder.Path()) + "/./sub/..\\sub\\file"), 0);
}

TEST(FileWin32, IsNamedInAnyCase) {
    TempFolder folder;
    folder.Write("Mixed.Xml", "x");
    EXPECT_EQ(Access(folder.Path("mIXED.xML")), 0);
}

TEST(FileWin32, MayHaveLettersOutsideTheAnsiCodePage) {
    TempFolder folder;
    for (const char* name : {"\xE6\x97\xA5\xE6\x9C\xAC", "\xD0\x96\xC3\xA4", "\xF0\x9F\x98\x80"}) {
        EXPECT_NE(Access(folder.Path(name)), 0) << name;
        folder.Write(name, "x");
        EXPECT_EQ(Access(folder.Path(name)), 0) << name;
    }
}

TEST(FileWin32, DoesNotExistUnderANameThatIsNotUtf8) {
    TempFolder folder;
    folder.Write("\xC3\xA4", "x");
    EXPECT_EQ(Access(folder.Path() + "/\xE4"), ERROR_NO_UNICODE_TRANSLATION);
    EXPECT_EQ(TOVA_GetSystemLastError(), ERROR_NO_UNICODE_TRANSLATION);
    // A surrogate by itself, and an overlong form of "/".
    EXPECT_EQ(Access(folder.Path() + "/\xED\xA0\x80"), ERROR_NO_UNICODE_TRANSLATION);
    EXPECT_EQ(Access(folder.Path() + "\xC0\xAF\xC3\xA4"), ERROR_NO_UNICODE_TRANSLATION);
}

TEST(FileWin32, MayHaveALongPath) {
    TempFolder folder;
    const LongFolder deep(folder);
    EXPECT_NE(Access(deep.Path("file")), 0);
    Open(Verbatim(deep.Path("file")), GENERIC_WRITE, 0, CREATE_NEW);
    EXPECT_EQ(Access(deep.Path("file")), 0);
    EXPECT_EQ(Access(WithSlashes(deep.Path("file"))), 0);
}

TEST(FileWin32, WhoseNameEndsInAFullStopOrABlankIsThatFile) {
    TempFolder folder;
    folder.Write("plain", "x");
    EXPECT_NE(Access(folder.Path("plain.")), 0);
    EXPECT_NE(Access(folder.Path("plain ")), 0);
    for (const char* name : {"dot.", "blank "}) {
        Open(Verbatim(folder.Path() + "\\" + name), GENERIC_WRITE, 0, CREATE_NEW);
        EXPECT_EQ(Access(folder.Path() + "/" + name), 0) << name;
    }
    EXPECT_NE(Access(folder.Path("dot")), 0);
    EXPECT_NE(Access(folder.Path("blank")), 0);
}

TEST(FileWin32, InTheCurrentFolderKeepsTheEndOfItsNameToo) {
    TempFolder folder;
    const CurrentFolder current(folder.Path());
    folder.Write("plain", "x");
    EXPECT_EQ(Access("plain"), 0);
    EXPECT_NE(Access("plain."), 0);
    EXPECT_NE(Access("plain "), 0);
    Open(Verbatim(folder.Path() + "\\dot."), GENERIC_WRITE, 0, CREATE_NEW);
    EXPECT_EQ(Access("dot."), 0);
    EXPECT_EQ(Access("./dot."), 0);
}

TEST(FileWin32, MayBeNamedFromTheDriveOrItsCurrentFolder) {
    TempFolder folder;
    folder.Write("file", "x");
    const CurrentFolder current(folder.Path());
    const std::string drive = folder.Path().substr(0, 2);
    ASSERT_EQ(drive[1], ':');
    EXPECT_EQ(Access(drive + "file"), 0);
    EXPECT_EQ(Access(folder.Path("file").substr(2)), 0);
    EXPECT_EQ(Access("../" + fs::u8path(folder.Path()).filename().u8string() + "/file"), 0);
}

TEST(FileWin32, IsNoDevice) {
    TempFolder folder;
    const CurrentFolder current(folder.Path());
    for (const char* name : {"nul", "NUL", "con", "aux", "com1", "\\\\.\\nul", "//./nul"}) {
        EXPECT_NE(Access(name), 0) << name;
        EXPECT_NE(TOVA_GetSystemLastError(), 0) << name;
    }
    EXPECT_NE(Access(folder.Path("nul")), 0);
}

TEST(FileWin32, ThatOneProgramHasForItselfExists) {
    TempFolder folder;
    const std::string path = folder.Write("file", "x");
    const Open alone(Wide(path), GENERIC_READ | GENERIC_WRITE, 0);
    EXPECT_EQ(Access(path), 0);
}

TEST(FileWin32, BehindALinkExistsAndADanglingLinkDoesNot) {
    if (!vessa_test::CanMakeLinks()) GTEST_SKIP() << "no symbolic links here";
    vessa_test::TempDir folder;
    folder.Write("file", "x");
    folder.MakeLink("file", "to file");
    folder.MakeLink("missing", "dangling");
    EXPECT_EQ(Access(folder.Path("to file")), 0);
    EXPECT_NE(Access(folder.Path("dangling")), 0);
    EXPECT_NE(TOVA_GetSystemLastError(), 0);
}

TEST(FileWin32, NamesTheErrorOfWhatIsMissing) {
    TempFolder folder;
    EXPECT_EQ(Access(folder.Path("missing")), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(TOVA_GetSystemLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Access(folder.Path("missing/file")), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(TOVA_GetSystemLastError(), ERROR_PATH_NOT_FOUND);
}
