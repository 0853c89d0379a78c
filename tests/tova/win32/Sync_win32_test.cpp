// Mutexes and semaphores where the system differs from others.
#include <gtest/gtest.h>

#include <climits>
#include <thread>

#include "../Support.h"
#include "Imports.h"
#include "System.h"

using tova_test::Mutex;
using tova_test::Sem;
using tova_test::StandIn;

namespace {

// What the stand-ins below have seen, and what they are to do.
struct Seen {
    tova_sem_t sem = nullptr;
    tova_mutex_t mutex = nullptr;
    HANDLE closed = nullptr;
    CRITICAL_SECTION* deleted = nullptr;
    bool gone_too_early = false;
    DWORD wait_ms = 0;
    DWORD slept_ms = 0;
    int calls = 0;
};
Seen g_seen;

DWORD WINAPI StoreTheTime(HANDLE, DWORD milliseconds) {
    g_seen.wait_ms = milliseconds;
    return WAIT_TIMEOUT;
}

DWORD WINAPI FailToWait(HANDLE, DWORD) {
    ++g_seen.calls;
    SetLastError(ERROR_INVALID_HANDLE);
    return WAIT_FAILED;
}

DWORD WINAPI FailToWaitWithoutAReason(HANDLE, DWORD) {
    SetLastError(0);
    return WAIT_FAILED;
}

void WINAPI StoreTheSleep(DWORD milliseconds) {
    g_seen.slept_ms += milliseconds;
}

BOOL WINAPI NoteTheClosing(HANDLE handle) {
    g_seen.closed = handle;
    return CloseHandle(handle);
}

void WINAPI NoteTheDeletion(CRITICAL_SECTION* section) {
    g_seen.deleted = section;
    DeleteCriticalSection(section);
}

// Whoever takes the count is done with the semaphore before the system's call is back.
BOOL WINAPI ReleaseToATakerWhoDestroys(HANDLE handle, LONG count, LONG* before) {
    const BOOL result = ReleaseSemaphore(handle, count, before);
    EXPECT_EQ(TOVA_SemTimedWait(&g_seen.sem, 60000), 0);
    EXPECT_EQ(TOVA_SemDestroy(&g_seen.sem), 0);
    g_seen.gone_too_early = g_seen.closed != nullptr;
    return result;
}

void WINAPI LeaveToANextOwnerWhoDestroys(CRITICAL_SECTION* section) {
    LeaveCriticalSection(section);
    if (g_seen.mutex == nullptr) return;
    tova_mutex_t next = g_seen.mutex;
    g_seen.mutex = nullptr;
    std::thread owner([&next] {
        EXPECT_EQ(TOVA_MutexLock(&next), 0);
        EXPECT_EQ(TOVA_MutexUnlock(&next), 0);
        EXPECT_EQ(TOVA_MutexDestroy(&next), 0);
    });
    owner.join();
    g_seen.gone_too_early = g_seen.deleted != nullptr;
}

BOOL WINAPI MakeNoSection(CRITICAL_SECTION*, DWORD) {
    SetLastError(ERROR_NO_SYSTEM_RESOURCES);
    return FALSE;
}

HANDLE WINAPI MakeNoSemaphore(SECURITY_ATTRIBUTES*, LONG, LONG, LPCWSTR) {
    SetLastError(ERROR_NO_SYSTEM_RESOURCES);
    return nullptr;
}

class SyncWin32 : public testing::Test {
  protected:
    SyncWin32() { g_seen = Seen(); }
};
using MutexWin32 = SyncWin32;
using SemaphoreWin32 = SyncWin32;

}  // namespace

TEST_F(MutexWin32, CannotBeUnlockedByAThreadThatDoesNotHoldIt) {
    Mutex mutex;
    EXPECT_EQ(TOVA_MutexUnlock(&mutex.value), ERROR_NOT_OWNER);
    EXPECT_EQ(TOVA_GetSystemLastError(), ERROR_NOT_OWNER);
    ASSERT_EQ(TOVA_MutexLock(&mutex.value), 0);
    std::thread other([&mutex] {
        EXPECT_EQ(TOVA_MutexUnlock(&mutex.value), ERROR_NOT_OWNER);
        EXPECT_EQ(TOVA_GetSystemLastError(), ERROR_NOT_OWNER);
    });
    other.join();
    EXPECT_EQ(TOVA_MutexUnlock(&mutex.value), 0);
    EXPECT_EQ(TOVA_MutexUnlock(&mutex.value), ERROR_NOT_OWNER) << "once too often";
}

TEST_F(MutexWin32, NullIsAnInvalidArgument) {
    tova_mutex_t null = nullptr;
    EXPECT_EQ(TOVA_MutexLock(&null), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(TOVA_GetSystemLastError(), ERROR_INVALID_PARAMETER);
}

TEST_F(MutexWin32, OutlivesItsUnlockThoughTheNextOwnerDestroysItAtOnce) {
    tova_mutex_t mutex = nullptr;
    ASSERT_EQ(TOVA_MutexCreate(&mutex, 0), 0);
    ASSERT_EQ(TOVA_MutexLock(&mutex), 0);
    g_seen.mutex = mutex;
    const StandIn<decltype(LeaveCriticalSection)> leave("tova.dll", "LeaveCriticalSection",
                                                        &LeaveToANextOwnerWhoDestroys);
    const StandIn<decltype(DeleteCriticalSection)> forget("tova.dll", "DeleteCriticalSection",
                                                          &NoteTheDeletion);
    EXPECT_EQ(TOVA_MutexUnlock(&mutex), 0);
    EXPECT_FALSE(g_seen.gone_too_early);
    EXPECT_NE(g_seen.deleted, nullptr);
}

TEST_F(MutexWin32, ThatTheSystemRefusesIsNull) {
    Mutex other;
    tova_mutex_t mutex = other.value;
    const StandIn<decltype(InitializeCriticalSectionAndSpinCount)> make(
        "tova.dll", "InitializeCriticalSectionAndSpinCount", &MakeNoSection);
    EXPECT_EQ(TOVA_MutexCreate(&mutex, 0), ERROR_NO_SYSTEM_RESOURCES);
    EXPECT_EQ(TOVA_GetSystemLastError(), ERROR_NO_SYSTEM_RESOURCES);
    EXPECT_EQ(mutex, nullptr);
}

TEST_F(SemaphoreWin32, NamesItsErrors) {
    Sem sem;
    EXPECT_EQ(TOVA_SemTimedWait(&sem.value, 0), WAIT_TIMEOUT);
    EXPECT_EQ(TOVA_GetSystemLastError(), WAIT_TIMEOUT);
    tova_sem_t null = nullptr;
    EXPECT_EQ(TOVA_SemTimedWait(&null, 1000), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(TOVA_GetSystemLastError(), ERROR_INVALID_PARAMETER);
    Sem full(0x7FFFFFFF);
    EXPECT_EQ(TOVA_SemPost(&full.value), ERROR_TOO_MANY_POSTS);
    EXPECT_EQ(TOVA_GetSystemLastError(), ERROR_TOO_MANY_POSTS);
}

// All ones mean for ever to the system.
TEST_F(SemaphoreWin32, TheLongestTimeIsNotForEver) {
    Sem sem;
    const StandIn<decltype(WaitForSingleObject)> wait("tova.dll", "WaitForSingleObject",
                                                      &StoreTheTime);
    for (const unsigned time_ms : {UINT_MAX, UINT_MAX - 1}) {
        EXPECT_EQ(TOVA_SemTimedWait(&sem.value, time_ms), WAIT_TIMEOUT);
        EXPECT_EQ(g_seen.wait_ms, UINT_MAX - 1);
    }
    EXPECT_EQ(TOVA_SemTimedWait(&sem.value, 30000), WAIT_TIMEOUT);
    EXPECT_EQ(g_seen.wait_ms, 30000u);
}

TEST_F(SemaphoreWin32, AFailingTimedWaitUsesUpTheTime) {
    Sem sem;
    const StandIn<decltype(WaitForSingleObject)> wait("tova.dll", "WaitForSingleObject",
                                                      &FailToWait);
    const StandIn<decltype(Sleep)> sleep("tova.dll", "Sleep", &StoreTheSleep);
    EXPECT_EQ(TOVA_SemTimedWait(&sem.value, 30000), ERROR_INVALID_HANDLE);
    EXPECT_EQ(TOVA_GetSystemLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(g_seen.slept_ms, 30000u);
    EXPECT_EQ(g_seen.calls, 1);
}

TEST_F(SemaphoreWin32, AFailingWaitReportsIt) {
    Sem sem;
    {
        const StandIn<decltype(WaitForSingleObject)> wait("tova.dll", "WaitForSingleObject",
                                                          &FailToWait);
        EXPECT_EQ(TOVA_SemWait(&sem.value), ERROR_INVALID_HANDLE);
        EXPECT_EQ(TOVA_GetSystemLastError(), ERROR_INVALID_HANDLE);
    }
    const StandIn<decltype(WaitForSingleObject)> wait("tova.dll", "WaitForSingleObject",
                                                      &FailToWaitWithoutAReason);
    EXPECT_NE(TOVA_SemWait(&sem.value), 0);
    EXPECT_NE(TOVA_SemTimedWait(&sem.value, 0), 0);
    EXPECT_NE(TOVA_GetSystemLastError(), 0);
}

TEST_F(SemaphoreWin32, OutlivesAPostWhoseTakerDestroysItAtOnce) {
    tova_sem_t sem = nullptr;
    ASSERT_EQ(TOVA_SemCreate(&sem, 0), 0);
    g_seen.sem = sem;
    const StandIn<decltype(ReleaseSemaphore)> release("tova.dll", "ReleaseSemaphore",
                                                      &ReleaseToATakerWhoDestroys);
    const StandIn<decltype(CloseHandle)> close("tova.dll", "CloseHandle", &NoteTheClosing);
    EXPECT_EQ(TOVA_SemPost(&sem), 0);
    EXPECT_FALSE(g_seen.gone_too_early);
    EXPECT_NE(g_seen.closed, nullptr);
}

TEST_F(SemaphoreWin32, ThatTheSystemRefusesIsNull) {
    Sem other;
    tova_sem_t sem = other.value;
    const StandIn<decltype(CreateSemaphoreW)> make("tova.dll", "CreateSemaphoreW",
                                                   &MakeNoSemaphore);
    EXPECT_EQ(TOVA_SemCreate(&sem, 0), ERROR_NO_SYSTEM_RESOURCES);
    EXPECT_EQ(TOVA_GetSystemLastError(), ERROR_NO_SYSTEM_RESOURCES);
    EXPECT_EQ(sem, nullptr);
}
