#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "../Records.h"
#include "../Support.h"
#include "Imports.h"
#include "LongFolder.h"
#include "System.h"

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;
using testing::SizeIs;
using tova_test::CurrentFolder;
using tova_test::LongFolder;
using tova_test::Open;
using tova_test::Records;
using tova_test::StandIn;
using tova_test::TempFolder;
using tova_test::Verbatim;
using tova_test::Wide;

namespace {

using Function = int (*)();

Function FunctionOf(void* dso, const char* name) {
    return reinterpret_cast<Function>(TOVA_GetDsoSym(dso, name));
}

std::string FileName(const char* path) {
    return fs::u8path(path).filename().u8string();
}

// The file that the system has loaded for a handle.
std::wstring FileOf(void* dso) {
    std::wstring file(4096, L'\0');
    file.resize(GetModuleFileNameW(static_cast<HMODULE>(dso), file.data(), 4096));
    return file;
}

void ExpectThatModule(void* dso) {
    ASSERT_NE(dso, nullptr);
    ASSERT_NE(FunctionOf(dso, "module_answer"), nullptr);
    EXPECT_EQ(FunctionOf(dso, "module_answer")(), 42);
    EXPECT_EQ(TOVA_UnloadDSo(dso), 0);
}

// Fails with the loader's error and gives the text of the one record.
std::string FailureOf(const std::string& path, int error) {
    Records records;
    EXPECT_EQ(TOVA_LoadDSo(path.c_str()), nullptr);
    EXPECT_EQ(TOVA_GetSystemLastError(), error);
    const auto taken = records.Take();
    EXPECT_THAT(taken, SizeIs(1));
    return taken.empty() ? "" : taken[0].text;
}

// A variable of the environment has another value for a while.
class Variable {
  public:
    Variable(const wchar_t* name, const std::wstring& value) : name_(name) {
        before_.resize(GetEnvironmentVariableW(name, nullptr, 0));
        GetEnvironmentVariableW(name, before_.data(), static_cast<DWORD>(before_.size()));
        SetEnvironmentVariableW(name, value.c_str());
    }
    ~Variable() { SetEnvironmentVariableW(name_, before_.empty() ? nullptr : before_.c_str()); }
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;

  private:
    const wchar_t* name_;
    std::wstring before_;
};

DWORD g_mode_in_load = 0;

HMODULE WINAPI NoteTheErrorMode(LPCWSTR, HANDLE, DWORD) {
    g_mode_in_load = GetThreadErrorMode();
    SetLastError(ERROR_MOD_NOT_FOUND);
    return nullptr;
}

HMODULE WINAPI FailWithoutAReason(LPCWSTR, HANDLE, DWORD) {
    SetLastError(0);
    return nullptr;
}

}  // namespace

TEST(ModuleWin32, IsNamedWithEitherSeparator) {
    TempFolder folder;
    std::string path = folder.CopyOf(PLAIN_MODULE, "module.dll");
    for (const char separator : {'/', '\\'}) {
        for (char& c : path) {
            if (c == '/' || c == '\\') c = separator;
        }
        ExpectThatModule(TOVA_LoadDSo(path.c_str()));
    }
}

TEST(ModuleWin32, IsTheSameUnderEachOfItsPaths) {
    TempFolder folder;
    folder.Folder("below");
    void* const first = TOVA_LoadDSo(folder.CopyOf(PLAIN_MODULE, "module.dll").c_str());
    ASSERT_NE(first, nullptr);
    for (const char* other : {"MODULE.dll", "below/../module.dll", ".\\\\module.dll"}) {
        void* const second = TOVA_LoadDSo((folder.Path() + "/" + other).c_str());
        EXPECT_EQ(second, first) << other;
        if (second != nullptr) {
            EXPECT_EQ(TOVA_UnloadDSo(second), 0);
        }
    }
    EXPECT_EQ(TOVA_UnloadDSo(first), 0);
}

TEST(ModuleWin32, OfTheSameNameInAnotherFolderIsAnother) {
    TempFolder folder;
    TempFolder elsewhere;
    void* const first = TOVA_LoadDSo(folder.CopyOf(PLAIN_MODULE, "module.dll").c_str());
    void* const second = TOVA_LoadDSo(elsewhere.CopyOf(PLAIN_MODULE, "module.dll").c_str());
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(first, second);
    EXPECT_EQ(FunctionOf(first, "module_count")(), 1);
    EXPECT_EQ(FunctionOf(second, "module_count")(), 1);
    EXPECT_EQ(TOVA_UnloadDSo(second), 0);
    EXPECT_EQ(TOVA_UnloadDSo(first), 0);
}

TEST(ModuleWin32, MayHaveLettersOutsideTheAnsiCodePage) {
    TempFolder folder;
    folder.Folder("\xE6\x97\xA5\xE6\x9C\xAC \xD0\x96");
    const std::string path =
        folder.CopyOf(PLAIN_MODULE, "\xE6\x97\xA5\xE6\x9C\xAC \xD0\x96/\xF0\x9F\x98\x80.dll");
    ExpectThatModule(TOVA_LoadDSo(path.c_str()));
}

TEST(ModuleWin32, MayHaveALongPath) {
    TempFolder folder;
    const LongFolder deep(folder);
    ExpectThatModule(TOVA_LoadDSo(deep.CopyOf(PLAIN_MODULE, "module.dll").c_str()));
}

TEST(ModuleWin32, WithALongPathFindsADependencyBesideItself) {
    TempFolder folder;
    const LongFolder deep(folder);
    deep.CopyOf(PROVIDER_MODULE, FileName(PROVIDER_MODULE));
    void* const dso = TOVA_LoadDSo(deep.CopyOf(DEPENDENT_MODULE, "module.dll").c_str());
    ASSERT_NE(dso, nullptr);
    EXPECT_EQ(FunctionOf(dso, "module_lend")(), 8);
    EXPECT_EQ(TOVA_UnloadDSo(dso), 0);
}

TEST(ModuleWin32, WithoutASuffixIsNotTheOneThatHasIt) {
    TempFolder folder;
    const std::string path = folder.CopyOf(PLAIN_MODULE, "module");
    folder.CopyOf(PROVIDER_MODULE, "module.dll");
    void* const dso = TOVA_LoadDSo(path.c_str());
    ASSERT_NE(dso, nullptr);
    EXPECT_EQ(FileOf(dso).substr(FileOf(dso).rfind(L'\\')), L"\\module");
    ExpectThatModule(dso);
    fs::remove(fs::u8path(path));
    EXPECT_THAT(FailureOf(path, ERROR_FILE_NOT_FOUND), HasSubstr("cannot be opened"));
}

TEST(ModuleWin32, WithoutASuffixMayHaveALongPath) {
    TempFolder folder;
    const LongFolder deep(folder);
    const std::string path = deep.CopyOf(PLAIN_MODULE, "module");
    // The full stop says that there is nothing to add.
    const HMODULE direct = LoadLibraryW((Verbatim(path) + L".").c_str());
    if (direct == nullptr) GTEST_SKIP() << "the system loads no such module";
    FreeLibrary(direct);
    ExpectThatModule(TOVA_LoadDSo(path.c_str()));
}

// Not every system's loader can be given such a name.
TEST(ModuleWin32, WhoseNameEndsInAFullStopOrABlankIsNeverAnotherModule) {
    TempFolder folder;
    folder.CopyOf(PROVIDER_MODULE, "module.dll");
    const std::string content = tova_test::ReadBytes(PLAIN_MODULE);
    for (const char* name : {"/module.dll.", "/module.dll ", "/module.dll. ."}) {
        const std::string path = folder.Path() + name;
        Records records;
        EXPECT_EQ(TOVA_LoadDSo(path.c_str()), nullptr) << name;
        EXPECT_THAT(records.Take(), SizeIs(1)) << name;
        Open(Verbatim(path), GENERIC_WRITE, 0, CREATE_NEW).Write(content);
        if (void* const dso = TOVA_LoadDSo(path.c_str())) {
            EXPECT_NE(FunctionOf(dso, "module_answer"), nullptr) << name;
            EXPECT_EQ(TOVA_UnloadDSo(dso), 0);
        } else {
            EXPECT_NE(TOVA_GetSystemLastError(), 0) << name;
            EXPECT_THAT(records.Take(), SizeIs(1)) << name;
        }
    }
}

TEST(ModuleWin32, InAFolderWhoseNameEndsInAFullStopIsThatModule) {
    TempFolder folder;
    folder.Folder("x");
    folder.CopyOf(PROVIDER_MODULE, "x/module.dll");
    ASSERT_TRUE(CreateDirectoryW((Verbatim(folder.Path()) + L"\\x.").c_str(), nullptr));
    const std::string path = folder.Path() + "/x./module.dll";
    Open(Verbatim(path), GENERIC_WRITE, 0, CREATE_NEW).Write(tova_test::ReadBytes(PLAIN_MODULE));
    ExpectThatModule(TOVA_LoadDSo(path.c_str()));
}

TEST(ModuleWin32, WithTheNameOfADeviceIsThatModule) {
    TempFolder folder;
    const std::string path = folder.Path() + "\\nul.dll";
    Open(Verbatim(path), GENERIC_WRITE, 0, CREATE_NEW).Write(tova_test::ReadBytes(PLAIN_MODULE));
    ExpectThatModule(TOVA_LoadDSo(path.c_str()));
}

TEST(ModuleWin32, AnExportThatIsAnotherLibrarysIsNotItsOwn) {
    void* const provider = TOVA_LoadDSo(PROVIDER_MODULE);
    ASSERT_NE(provider, nullptr);
    void* const dso = TOVA_LoadDSo(FORWARDING_MODULE);
    ASSERT_NE(dso, nullptr);
    ASSERT_NE(FunctionOf(dso, "module_own"), nullptr);
    EXPECT_EQ(FunctionOf(dso, "module_own")(), 3);
    for (const char* name : {"module_of_the_system", "module_passed_on"}) {
        // The system itself follows them.
        EXPECT_NE(GetProcAddress(static_cast<HMODULE>(dso), name), nullptr) << name;
        EXPECT_EQ(TOVA_GetDsoSym(dso, name), nullptr) << name;
        EXPECT_EQ(TOVA_GetSystemLastError(), ERROR_PROC_NOT_FOUND) << name;
    }
    EXPECT_EQ(TOVA_UnloadDSo(dso), 0);
    EXPECT_EQ(TOVA_UnloadDSo(provider), 0);
}

TEST(ModuleWin32, ANameThatItDoesNotExportNamesTheSystemsError) {
    void* const dso = TOVA_LoadDSo(PLAIN_MODULE);
    ASSERT_NE(dso, nullptr);
    EXPECT_EQ(TOVA_GetDsoSym(dso, "module_missing"), nullptr);
    EXPECT_EQ(TOVA_GetSystemLastError(), ERROR_PROC_NOT_FOUND);
    EXPECT_EQ(TOVA_GetDsoSym(dso, "Module_Answer"), nullptr) << "their case counts";
    EXPECT_EQ(TOVA_UnloadDSo(dso), 0);
}

TEST(ModuleWin32, ADependencyIsNotLookedForInTheCurrentFolderNorAlongThePath) {
    TempFolder folder;
    TempFolder elsewhere;
    elsewhere.CopyOf(PROVIDER_MODULE, FileName(PROVIDER_MODULE));
    const std::string path = folder.CopyOf(DEPENDENT_MODULE, "module.dll");
    const CurrentFolder current(elsewhere.Path());
    const Variable search(L"PATH", Wide(elsewhere.Path()));
    EXPECT_THAT(FailureOf(path, ERROR_MOD_NOT_FOUND),
                HasSubstr("module not loaded, path " + path + ", reason: "));
    // That of its own folder is found from there all the same.
    folder.CopyOf(PROVIDER_MODULE, FileName(PROVIDER_MODULE));
    const std::string second = folder.CopyOf(DEPENDENT_MODULE, "second.dll");
    void* const dso = TOVA_LoadDSo(second.c_str());
    ASSERT_NE(dso, nullptr);
    EXPECT_EQ(FunctionOf(dso, "module_lend")(), 8);
    EXPECT_EQ(TOVA_UnloadDSo(dso), 0);
}

TEST(ModuleWin32, ABareNameIsNotLookedUpInTheSystemsFolders) {
    TempFolder folder;
    const CurrentFolder current(folder.Path());
    for (const char* name : {"kernel32.dll", "version.dll", "tova.dll"})
        EXPECT_THAT(FailureOf(name, ERROR_FILE_NOT_FOUND), HasSubstr("cannot be opened")) << name;
}

TEST(ModuleWin32, MissingWhatItNeedsAsksNobody) {
    DWORD before = 0;
    ASSERT_TRUE(SetThreadErrorMode(0, &before));
    {
        const StandIn<decltype(LoadLibraryExW)> load("tova.dll", "LoadLibraryExW",
                                                     &NoteTheErrorMode);
        EXPECT_THAT(FailureOf(PLAIN_MODULE, ERROR_MOD_NOT_FOUND), HasSubstr("module not loaded"));
    }
    EXPECT_EQ(g_mode_in_load & SEM_FAILCRITICALERRORS, DWORD{SEM_FAILCRITICALERRORS});
    EXPECT_EQ(GetThreadErrorMode(), 0u);
    SetThreadErrorMode(before, nullptr);
}

TEST(ModuleWin32, AFailureWithoutAReasonHasAnErrorAllTheSame) {
    const StandIn<decltype(LoadLibraryExW)> load("tova.dll", "LoadLibraryExW", &FailWithoutAReason);
    EXPECT_THAT(FailureOf(PLAIN_MODULE, ERROR_BAD_EXE_FORMAT), HasSubstr("module not loaded"));
}

TEST(ModuleWin32, ThatNeedsASymbolWhichItsDependencyLacksIsRefused) {
    Records records;
    void* const dso = TOVA_LoadDSo(UNRESOLVED_MODULE);
    const int error = TOVA_GetSystemLastError();
    if (dso != nullptr) {
        TOVA_UnloadDSo(dso);
        GTEST_SKIP() << "the system loads a module although a symbol is missing";
    }
    EXPECT_EQ(error, ERROR_PROC_NOT_FOUND);
    EXPECT_THAT(records.Take(), SizeIs(1));
}

TEST(ModuleWin32, AnUnloadTooManyFailsAndWritesTheSystemsWords) {
    void* const dso = TOVA_LoadDSo(PLAIN_MODULE);
    ASSERT_NE(dso, nullptr);
    EXPECT_EQ(TOVA_UnloadDSo(dso), 0);
    Records records;
    const int error = TOVA_UnloadDSo(dso);
    EXPECT_NE(error, 0);
    EXPECT_EQ(TOVA_GetSystemLastError(), error);
    const auto taken = records.Take();
    ASSERT_THAT(taken, SizeIs(1));
    EXPECT_EQ(taken[0].logger, "tova");
    EXPECT_EQ(taken[0].level, SKRIB_LEVEL_ERROR);
    EXPECT_THAT(taken[0].text, HasSubstr("module not unloaded, reason: "));
}

TEST(ModuleWin32, MayBeRenamedWhileItIsLoaded) {
    TempFolder folder;
    const std::string path = folder.CopyOf(PLAIN_MODULE, "module.dll");
    void* const dso = TOVA_LoadDSo(path.c_str());
    ASSERT_NE(dso, nullptr);
    std::error_code error;
    fs::rename(fs::u8path(path), fs::u8path(folder.Path("renamed.dll")), error);
    EXPECT_FALSE(error) << error.message();
    ExpectThatModule(dso);
}

TEST(ModuleWin32, IsLetGoByItsUnload) {
    TempFolder folder;
    const std::string path = folder.CopyOf(PLAIN_MODULE, "module.dll");
    ExpectThatModule(TOVA_LoadDSo(path.c_str()));
    EXPECT_TRUE(DeleteFileW(Wide(path).c_str()));
}
