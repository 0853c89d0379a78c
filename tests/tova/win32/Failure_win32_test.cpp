// Calls of the system that fail, and memory that ends, inside the runtime.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "../Support.h"
#include "Imports.h"
#include "System.h"

using testing::ElementsAre;
using tova_test::CurrentFolder;
using tova_test::EntryOf;
using tova_test::List;
using tova_test::Names;
using tova_test::Sem;
using tova_test::StandIn;
using tova_test::TempFolder;
using tova_test::Wide;

namespace {

int g_calls = 0;
int g_failing_call = 0;
std::wstring g_victim;
uint64_t g_changed = 0;

bool IsVictim(LPCWSTR path) {
    const std::wstring text = path;
    return text.size() >= g_victim.size() &&
           text.compare(text.size() - g_victim.size(), g_victim.size(), g_victim) == 0;
}

uint64_t Now() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return uint64_t{now.dwHighDateTime} << 32 | now.dwLowDateTime;
}

BOOL WINAPI FailHalfWay(HANDLE file, FILE_INFO_BY_HANDLE_CLASS kind, LPVOID to, DWORD size) {
    if (kind == FileIdBothDirectoryInfo && ++g_calls == g_failing_call) {
        SetLastError(ERROR_IO_DEVICE);
        return FALSE;
    }
    return GetFileInformationByHandleEx(file, kind, to, size);
}

BOOL WINAPI FailToTellTheTimes(HANDLE file, FILE_INFO_BY_HANDLE_CLASS kind, LPVOID to, DWORD size) {
    if (kind == FileBasicInfo) {
        SetLastError(ERROR_IO_DEVICE);
        return FALSE;
    }
    return GetFileInformationByHandleEx(file, kind, to, size);
}

// Every file was written in this very tick of the clock.
BOOL WINAPI ChangeEverythingNow(HANDLE file, FILE_INFO_BY_HANDLE_CLASS kind, LPVOID to,
                                DWORD size) {
    const BOOL result = GetFileInformationByHandleEx(file, kind, to, size);
    if (result && kind == FileBasicInfo) {
        g_changed = Now();
        static_cast<FILE_BASIC_INFO*>(to)->ChangeTime.QuadPart = static_cast<LONGLONG>(g_changed);
    }
    return result;
}

HANDLE WINAPI RemoveTheVictimFirst(LPCWSTR path, DWORD access, DWORD share,
                                   SECURITY_ATTRIBUTES* security, DWORD disposition, DWORD flags,
                                   HANDLE sample) {
    if (IsVictim(path)) DeleteFileW(path);
    return CreateFileW(path, access, share, security, disposition, flags, sample);
}

HANDLE WINAPI DoNotShowTheVictim(LPCWSTR path, DWORD access, DWORD share,
                                 SECURITY_ATTRIBUTES* security, DWORD disposition, DWORD flags,
                                 HANDLE sample) {
    if (IsVictim(path)) {
        SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    }
    return CreateFileW(path, access, share, security, disposition, flags, sample);
}

BOOL WINAPI FailToRead(HANDLE, LPVOID, DWORD, DWORD*, OVERLAPPED*) {
    SetLastError(ERROR_CRC);
    return FALSE;
}

// What is allocated on this thread fails once, at the n-th allocation from now on.
thread_local int g_until_failure = 0;

void* __cdecl Allocate(size_t size) {
    if (g_until_failure > 0 && --g_until_failure == 0) return nullptr;
    return std::malloc(size);
}

class DirectoryFailureWin32 : public testing::Test {
  protected:
    DirectoryFailureWin32() {
        for (const char* name : {"a", "b", "c"}) folder.Write(name, "");
        g_calls = 0;
        g_failing_call = 0;
        g_victim = L"\\b";
    }

    TempFolder folder;
};

// The runtime's allocations come from here.
class OutOfMemoryWin32 : public testing::Test {
  protected:
    const StandIn<void*(size_t)> allocate_{"tova.dll", "malloc", &Allocate};
};

}  // namespace

TEST_F(DirectoryFailureWin32, AnErrorHalfWayIsAFailedOpenAndNoShortListing) {
    const StandIn<decltype(GetFileInformationByHandleEx)> read(
        "tova.dll", "GetFileInformationByHandleEx", &FailHalfWay);
    for (const int call : {1, 2}) {
        g_calls = 0;
        g_failing_call = call;
        EXPECT_EQ(TOVA_OpenDir(folder.Path().c_str()), nullptr);
        EXPECT_EQ(TOVA_GetSystemLastError(), ERROR_IO_DEVICE);
        EXPECT_EQ(g_calls, call);
    }
    g_failing_call = 0;
    EXPECT_THAT(Names(List(folder.Path())), ElementsAre(".", "..", "a", "b", "c"));
}

TEST_F(DirectoryFailureWin32, AFolderThatCannotBeExaminedIsAFailedOpen) {
    const StandIn<decltype(GetFileInformationByHandleEx)> read(
        "tova.dll", "GetFileInformationByHandleEx", &FailToTellTheTimes);
    EXPECT_EQ(TOVA_OpenDir(folder.Path().c_str()), nullptr);
    EXPECT_EQ(TOVA_GetSystemLastError(), ERROR_IO_DEVICE);
}

TEST_F(DirectoryFailureWin32, AnEntryThatVanishesMeanwhileIsLeftOut) {
    const StandIn<decltype(CreateFileW)> open("tova.dll", "CreateFileW", &RemoveTheVictimFirst);
    EXPECT_THAT(Names(List(folder.Path())), ElementsAre(".", "..", "a", "c"));
}

TEST_F(DirectoryFailureWin32, AFileThatIsNotShownToThisUserIsDescribedByItsFolder) {
    const tova_dirent_t shown = EntryOf(folder, "b");
    const StandIn<decltype(CreateFileW)> open("tova.dll", "CreateFileW", &DoNotShowTheVictim);
    const tova_dirent_t hidden = EntryOf(folder, "b");
    EXPECT_EQ(hidden.type, uint32_t{TOVA_DIRENT_FILE});
    EXPECT_EQ(hidden.volume, shown.volume);
    EXPECT_EQ(hidden.file_id, shown.file_id);
}

// Otherwise a rewrite later in the same tick could not be told from what the listing shows.
TEST_F(DirectoryFailureWin32, AListingWithAFileOfTheRunningTickComesAfterThatTick) {
    DWORD adjustment = 0;
    DWORD tick = 0;
    BOOL disabled = FALSE;
    ASSERT_TRUE(GetSystemTimeAdjustment(&adjustment, &tick, &disabled));
    const StandIn<decltype(GetFileInformationByHandleEx)> examine(
        "tova.dll", "GetFileInformationByHandleEx", &ChangeEverythingNow);
    for (int i = 0; i < 5; ++i) {
        void* const dir = TOVA_OpenDir(folder.Path().c_str());
        const uint64_t now = Now();
        ASSERT_NE(dir, nullptr);
        EXPECT_GT(now - g_changed, uint64_t{tick});
        EXPECT_EQ(TOVA_CloseDir(dir), 0);
    }
}

TEST(ModuleFailureWin32, AFileThatCannotBeReadIsRefusedWithTheSystemsReason) {
    const StandIn<decltype(ReadFile)> read("tova.dll", "ReadFile", &FailToRead);
    EXPECT_EQ(TOVA_LoadDSo(PLAIN_MODULE), nullptr);
    EXPECT_EQ(TOVA_GetSystemLastError(), ERROR_CRC);
}

TEST_F(OutOfMemoryWin32, AMutexIsNull) {
    Sem other;
    tova_mutex_t mutex = other.value;
    g_until_failure = 1;
    EXPECT_EQ(TOVA_MutexCreate(&mutex, 0), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(TOVA_GetSystemLastError(), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(mutex, nullptr);
}

TEST_F(OutOfMemoryWin32, ASemaphoreIsNull) {
    Sem other;
    tova_sem_t sem = other.value;
    g_until_failure = 1;
    EXPECT_EQ(TOVA_SemCreate(&sem, 0), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(TOVA_GetSystemLastError(), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(sem, nullptr);
}

TEST_F(OutOfMemoryWin32, AThreadIsNull) {
    g_until_failure = 1;
    EXPECT_EQ(TOVA_Thread_Create([](void*) { return 0; }, nullptr, 0, 0, 0, 0), nullptr);
    EXPECT_EQ(TOVA_GetSystemLastError(), ERROR_NOT_ENOUGH_MEMORY);
}

TEST_F(OutOfMemoryWin32, AListingFailsAtEachAllocationUntilItSucceeds) {
    TempFolder folder;
    for (int i = 0; i < 40; ++i)
        folder.Write("a name that no string keeps inside itself " + std::to_string(i), "");
    const std::string path = folder.Path();
    void* dir = nullptr;
    int failures = 0;
    while (failures < 1000) {
        g_until_failure = failures + 1;
        dir = TOVA_OpenDir(path.c_str());
        const int error = TOVA_GetSystemLastError();
        g_until_failure = 0;
        if (dir != nullptr) break;
        EXPECT_EQ(error, ERROR_NOT_ENOUGH_MEMORY);
        ++failures;
    }
    ASSERT_NE(dir, nullptr);
    EXPECT_GE(failures, 40);
    int entries = 0;
    for (tova_dirent_t entry; TOVA_FindFileInDir(dir, &entry) == 0;) ++entries;
    EXPECT_EQ(entries, 42);
    EXPECT_EQ(TOVA_CloseDir(dir), 0);
}

TEST_F(OutOfMemoryWin32, AnAccessFailsAtEachAllocationUntilItSucceeds) {
    TempFolder folder;
    const std::string path = folder.Write("a name that no string keeps inside itself", "");
    int failures = 0;
    int result = -1;
    while (result != 0 && failures < 1000) {
        g_until_failure = failures + 1;
        result = TOVA_AccessFile(path.c_str(), 0);
        g_until_failure = 0;
        if (result == 0) break;
        EXPECT_EQ(result, ERROR_NOT_ENOUGH_MEMORY);
        ++failures;
    }
    EXPECT_EQ(result, 0);
    EXPECT_GE(failures, 1);
}

TEST_F(OutOfMemoryWin32, ALoadFailsAtEachAllocationUntilItSucceeds) {
    TempFolder folder;
    const char* const name = "a-name-that-no-string-keeps-inside-itself.module";
    folder.CopyOf(PLAIN_MODULE, name);
    const CurrentFolder current(folder.Path());
    void* dso = nullptr;
    int failures = 0;
    while (failures < 1000) {
        g_until_failure = failures + 1;
        dso = TOVA_LoadDSo(name);
        const int error = TOVA_GetSystemLastError();
        g_until_failure = 0;
        if (dso != nullptr) break;
        EXPECT_EQ(error, ERROR_NOT_ENOUGH_MEMORY);
        ++failures;
    }
    ASSERT_NE(dso, nullptr);
    EXPECT_GE(failures, 1);
    EXPECT_EQ(TOVA_UnloadDSo(dso), 0);
}

// Those of the record come last.
TEST_F(OutOfMemoryWin32, ARefusalKeepsItsErrorThoughItsRecordIsLost) {
    TempFolder folder;
    const std::string path = folder.Path("missing.module");
    int kept = 0;
    for (int n = 1; n < 1000; ++n) {
        g_until_failure = n;
        EXPECT_EQ(TOVA_LoadDSo(path.c_str()), nullptr);
        const int error = TOVA_GetSystemLastError();
        const bool failed = g_until_failure == 0;
        g_until_failure = 0;
        if (!failed) break;
        if (error == ERROR_FILE_NOT_FOUND) ++kept;
        EXPECT_EQ(error, kept > 0 ? ERROR_FILE_NOT_FOUND : ERROR_NOT_ENOUGH_MEMORY) << n;
    }
    EXPECT_GT(kept, 0);
}
