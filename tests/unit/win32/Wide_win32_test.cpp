#include <gtest/gtest.h>
#include <windows.h>

#include <filesystem>
#include <string>
#include <utility>

#include "support/Child.h"
#include "support/TempDir.h"
#include "win32/Wide.h"

namespace vessa_test {
namespace {

// The verbatim path, or which error it was refused with.
std::wstring Verbatim(const std::string& path) {
    std::wstring verbatim;
    SetLastError(0);
    if (win32::VerbatimPath(path.c_str(), verbatim)) return verbatim;
    return L"error " + std::to_wstring(GetLastError());
}

std::wstring Error(DWORD error) {
    return L"error " + std::to_wstring(error);
}

using Row = std::pair<const char*, const wchar_t*>;

TEST(VerbatimPath, OfADriveHasBackslashesAndNoSteps) {
    for (const auto& [path, verbatim] : {
             Row{"C:/a/b.c", LR"(\\?\C:\a\b.c)"},
             Row{"c:\\a\\b", LR"(\\?\c:\a\b)"},
             Row{"C:\\a//b\\\\.\\.///c\\", LR"(\\?\C:\a\b\c)"},
             Row{"C:/a/../b/c/..", LR"(\\?\C:\b)"},
             Row{"C:/../../a", LR"(\\?\C:\a)"},
             Row{"C:/..a/...", LR"(\\?\C:\..a\...)"},
         })
        EXPECT_EQ(Verbatim(path), verbatim) << path;
}

TEST(VerbatimPath, OfARootKeepsItsLastBackslash) {
    for (const char* const path : {"C:/", "C:\\", "C:/.", "C:/..", "C:/a/.."})
        EXPECT_EQ(Verbatim(path), LR"(\\?\C:\)") << path;
}

TEST(VerbatimPath, OfAShareKeepsItsServerAndItsName) {
    for (const auto& [path, verbatim] : {
             Row{"\\\\server\\share\\a", LR"(\\?\UNC\server\share\a)"},
             // The library's own form of such a path.
             Row{"\\\\server\\share/a", LR"(\\?\UNC\server\share\a)"},
             Row{"//server/share/a/./../b", LR"(\\?\UNC\server\share\b)"},
             Row{"//server/share/../../a", LR"(\\?\UNC\server\share\a)"},
             Row{"//server/share", LR"(\\?\UNC\server\share\)"},
             Row{"//server/share/a/..", LR"(\\?\UNC\server\share\)"},
         })
        EXPECT_EQ(Verbatim(path), verbatim) << path;
}

TEST(VerbatimPath, OfAVerbatimPathIsThatPathWithoutSteps) {
    for (const auto& [path, verbatim] : {
             Row{"\\\\?\\C:\\a\\b", LR"(\\?\C:\a\b)"},
             Row{"\\\\?\\C:/a/./b/../c", LR"(\\?\C:\a\c)"},
             Row{"//?/C:/a", LR"(\\?\C:\a)"},
             Row{"\\\\?\\C:\\", LR"(\\?\C:\)"},
             Row{"\\\\?\\UNC\\server\\share\\a\\..\\b", LR"(\\?\UNC\server\share\b)"},
             Row{"\\\\?\\Volume{00000000-0000-0000-0000-000000000001}\\a",
                 LR"(\\?\Volume{00000000-0000-0000-0000-000000000001}\a)"},
         })
        EXPECT_EQ(Verbatim(path), verbatim) << path;
}

TEST(VerbatimPath, OfARelativePathBeginsWithTheCurrentFolder) {
    const TempDir world;
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(std::filesystem::u8path(world.Path()));
    const std::wstring folder = LR"(\\?\)" + std::filesystem::current_path().wstring();
    const std::wstring parent = folder.substr(0, folder.rfind(L'\\'));
    const std::wstring drive = folder.substr(0, 6);
    const std::string drive_only(drive.begin() + 4, drive.end());

    EXPECT_EQ(Verbatim("a/b"), folder + LR"(\a\b)");
    EXPECT_EQ(Verbatim("./a//b/"), folder + LR"(\a\b)");
    EXPECT_EQ(Verbatim("."), folder);
    EXPECT_EQ(Verbatim(".."), parent);
    EXPECT_EQ(Verbatim("../a"), parent + LR"(\a)");
    EXPECT_EQ(Verbatim("x/../../a"), parent + LR"(\a)");
    EXPECT_EQ(Verbatim(drive_only + "a"), folder + LR"(\a)");
    EXPECT_EQ(Verbatim(drive_only), folder);
    EXPECT_EQ(Verbatim("/a"), drive + LR"(\a)");
    EXPECT_EQ(Verbatim("\\a\\..\\b"), drive + LR"(\b)");
    EXPECT_EQ(Verbatim("/"), drive + LR"(\)");
    std::filesystem::current_path(before);
}

TEST(VerbatimPath, KeepsAFullStopAndABlankAtTheEndOfAName) {
    const std::wstring folder = LR"(\\?\)" + std::filesystem::current_path().wstring();
    const std::wstring base = folder.back() == L'\\' ? folder : folder + L'\\';
    EXPECT_EQ(Verbatim("C:/a./b "), LR"(\\?\C:\a.\b )");
    EXPECT_EQ(Verbatim("C:/a .. /b..."), LR"(\\?\C:\a .. \b...)");
    EXPECT_EQ(Verbatim("//server/share/a. "), LR"(\\?\UNC\server\share\a. )");
    EXPECT_EQ(Verbatim("a./b "), base + LR"(a.\b )");
    EXPECT_EQ(Verbatim("b."), base + L"b.");
}

TEST(VerbatimPath, HoldsEveryLetter) {
    EXPECT_EQ(Verbatim("C:/\xC3\xA4/\xE6\xBC\xA2/\xF0\x9F\x98\x80"),
              L"\\\\?\\C:\\\u00E4\\\u6F22\\\xD83D\xDE00");
}

TEST(VerbatimPath, HasNoLimitOf260) {
    std::string path = "C:";
    std::wstring verbatim = LR"(\\?\C:)";
    for (int i = 0; i < 100; ++i) {
        path += "/" + std::string(100, 'x');
        verbatim += L"\\" + std::wstring(100, L'x');
    }
    EXPECT_EQ(Verbatim(path), verbatim);
    const std::string relative = path.substr(3);
    const std::wstring made = Verbatim(relative);
    EXPECT_EQ(made.substr(made.size() - relative.size()), verbatim.substr(7));
}

TEST(VerbatimPath, RefusesAnEmptyPath) {
    EXPECT_EQ(Verbatim(""), Error(ERROR_PATH_NOT_FOUND));
}

TEST(VerbatimPath, RefusesWhatIsNotUtf8) {
    for (const char* const path : {
             "C:/\xFF", "C:/\xC3", "C:/\xE6\xBC", "C:/\x80",
             "C:/\xC0\xAF",          // a longer form of "/"
             "C:/\xED\xA0\x80",      // half of a pair
             "C:/\xF4\x90\x80\x80",  // beyond the last letter
         })
        EXPECT_EQ(Verbatim(path), Error(ERROR_NO_UNICODE_TRANSLATION)) << path;
}

TEST(VerbatimPath, RefusesDevices) {
    for (const char* const path :
         {"nul", "NUL", "con", "aux", "prn", "com1", "lpt1", "\\\\.\\nul", "//./nul",
          "//./PhysicalDrive0", "\\\\.\\pipe\\x", "\\\\.\\C:\\a"})
        EXPECT_EQ(Verbatim(path), Error(ERROR_BAD_PATHNAME)) << path;
}

// A prefix before it makes it a name as any other.
TEST(VerbatimPath, TakesTheNameOfADeviceInAFolderForAFile) {
    EXPECT_EQ(Verbatim("C:/a/nul"), LR"(\\?\C:\a\nul)");
    EXPECT_EQ(Verbatim("C:/con"), LR"(\\?\C:\con)");
}

TEST(WithoutPrefix, GivesTheOrdinaryPath) {
    EXPECT_EQ(win32::WithoutPrefix(LR"(\\?\C:\a\b.dll)"), LR"(C:\a\b.dll)");
    EXPECT_EQ(win32::WithoutPrefix(LR"(\\?\UNC\server\share\a)"), LR"(\\server\share\a)");
}

TEST(WithoutPrefix, LeavesALongPathAsItIs) {
    const std::wstring folder = LR"(C:\)";
    const std::wstring longest = folder + std::wstring(247 - folder.size(), L'x');
    EXPECT_EQ(win32::WithoutPrefix(LR"(\\?\)" + longest), longest);
    EXPECT_EQ(win32::WithoutPrefix(LR"(\\?\)" + longest + L"x"), LR"(\\?\)" + longest + L"x");
}

TEST(WithoutPrefix, LeavesAPathThatTheSystemWouldReadAsAnother) {
    for (const wchar_t* const path :
         {LR"(\\?\C:\a\b.)", LR"(\\?\C:\a\b )", LR"(\\?\C:\a.\b)", LR"(\\?\C:\a\nul)"})
        EXPECT_EQ(win32::WithoutPrefix(path), path);
}

TEST(Widen, GivesEveryLetterBackThroughNarrow) {
    for (const char* const text :
         {"", "a", "\xC3\xA4\xE6\xBC\xA2\xF0\x9F\x98\x80", "\xEF\xBF\xBD", "\xEF\xBB\xBF"}) {
        std::wstring wide = L"what was there";
        ASSERT_TRUE(win32::Widen(text, wide)) << text;
        std::string narrow = "what was there";
        ASSERT_TRUE(win32::Narrow(wide.c_str(), narrow)) << text;
        EXPECT_EQ(narrow, text);
    }
    std::wstring wide;
    ASSERT_TRUE(win32::Widen("\xF0\x9F\x98\x80", wide));
    EXPECT_EQ(wide, L"\xD83D\xDE00");
}

TEST(Narrow, RefusesHalfOfAPair) {
    for (const wchar_t* const text : {L"\xD83D", L"\xDE00", L"a\xD83Dz", L"\xDE00\xD83D"}) {
        std::string narrow;
        SetLastError(0);
        EXPECT_FALSE(win32::Narrow(text, narrow));
        EXPECT_EQ(GetLastError(), DWORD{ERROR_NO_UNICODE_TRANSLATION});
    }
}

TEST(ModuleFileOf, NothingIsTheProgram) {
    std::wstring file = win32::ModuleFileOf(nullptr);
    for (wchar_t& c : file) {
        if (c == L'\\') c = L'/';
    }
    EXPECT_EQ(std::filesystem::path(file).u8string(), OwnProgram());
}

TEST(ModuleFileOf, ALibraryIsItsFile) {
    const std::wstring file = win32::ModuleFileOf(GetModuleHandleW(L"kernel32.dll"));
    EXPECT_TRUE(std::filesystem::exists(file));
    EXPECT_TRUE(std::filesystem::path(file).is_absolute());
}

TEST(ModuleFileOf, WhatIsNoModuleIsEmpty) {
    EXPECT_EQ(win32::ModuleFileOf(reinterpret_cast<void*>(0x10)), L"");
}

TEST(ErrorText, IsTheSystemsWithoutALineBreakAtItsEnd) {
    const std::string text = win32::ErrorText(ERROR_FILE_NOT_FOUND);
    ASSERT_FALSE(text.empty());
    EXPECT_NE(text.back(), '\n');
    EXPECT_NE(text.back(), '\r');
    EXPECT_EQ(win32::ErrorText(0x20001234), "");
}

}  // namespace
}  // namespace vessa_test
