// What the runtime makes of calls of the system that fail, or end before they are done.
#include <elf.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "../Records.h"
#include "../Support.h"
#include "StandIns.h"

using stand_in::Real;
using stand_in::Restore;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;
using tova_test::List;
using tova_test::Names;
using tova_test::ReadBytes;
using tova_test::Records;
using tova_test::Sem;
using tova_test::TempFolder;

namespace {

int g_calls = 0;
int g_error = 0;

int RefuseTheMutex(pthread_mutex_t*, const pthread_mutexattr_t*) {
    return EAGAIN;
}
int RefuseTheCondition(pthread_cond_t*, const pthread_condattr_t*) {
    return EAGAIN;
}
int RefuseTheAttributes(pthread_attr_t*) {
    return ENOMEM;
}
int RefuseToJoin(pthread_t, void**) {
    return EINVAL;
}
int RefuseToLock(pthread_mutex_t*) {
    return EAGAIN;
}
int RefuseToExamine(int, struct stat*) {
    errno = EIO;
    return -1;
}
int InterruptTheSleep(clockid_t clock, int flags, const timespec* time, timespec* left) {
    return ++g_calls <= 2 ? EINTR : Real().nanosleep(clock, flags, time, left);
}
int FailToWaitForATime(pthread_cond_t*, pthread_mutex_t*, const timespec*) {
    return ENOTRECOVERABLE;
}

// What is not in the beginning of the file comes with g_error, but first a signal and then half.
ssize_t ReadWithInterruptions(int file, void* to, size_t size, off_t at) {
    if (at == 0) return Real().pread(file, to, size, at);
    ++g_calls;
    if (g_calls == 1 || g_error != 0) {
        errno = g_calls == 1 ? EINTR : g_error;
        return -1;
    }
    return Real().pread(file, to, g_calls == 2 ? size / 2 : size, at);
}
ssize_t ReadNothing(int, void*, size_t, off_t) {
    errno = EIO;
    return -1;
}

void* FailToLoad(const char*, int) {
    errno = g_error;
    return nullptr;
}
int FailToUnload(void*) {
    errno = g_error;
    return -1;
}
char* GiveNoReason() {
    return nullptr;
}
int KnowNoModule(void*, int, void*) {
    return -1;
}
int KnowNoAddress(const void*, Dl_info*, void**, int) {
    return 0;
}

// A clock that stands still, an eighth of a tick after a full second, and files that were changed
// around it.
timespec g_now{};
long g_tick_ns = 0;

int ReadTheStandingClock(clockid_t clock, timespec* time) {
    if (clock != CLOCK_REALTIME_COARSE) return Real().gettime(clock, time);
    *time = g_now;
    return 0;
}
int CountTheSleep(clockid_t, int, const timespec*, timespec*) {
    ++g_calls;
    return 0;
}
// The files are examined in the order of the folder, whatever that is; so it is the order, not the
// name, that says which of the times they have.
int g_examined = 0;
int ExamineInOrder(int folder, const char* name, struct stat* status, int flags) {
    const int result = Real().fstatat(folder, name, status, flags);
    const timespec changed[] = {{g_now.tv_sec - 1, 1'000'000'000 - g_tick_ns / 8},
                                {g_now.tv_sec, g_tick_ns / 16},
                                {g_now.tv_sec, 0},
                                {g_now.tv_sec - 1, 1'000'000'000 - g_tick_ns / 8},
                                {g_now.tv_sec + 1000, 0},
                                {g_now.tv_sec - 1000, 0}};
    if (S_ISREG(status->st_mode)) status->st_ctim = changed[g_examined++ % 6];
    return result;
}
// All of them long ago or far ahead.
int ExamineOutOfTime(int folder, const char* name, struct stat* status, int flags) {
    const int result = Real().fstatat(folder, name, status, flags);
    status->st_ctim = {g_now.tv_sec + (++g_examined % 2 == 0 ? 1000 : -1000), 0};
    return result;
}

// A module whose table of segments begins far behind the beginning of the file.
std::string WithSegmentsAtItsEnd() {
    std::string bytes = ReadBytes(PLAIN_MODULE);
    auto header = *reinterpret_cast<const Elf64_Ehdr*>(bytes.data());
    const std::string table =
        bytes.substr(header.e_phoff, size_t{header.e_phnum} * sizeof(Elf64_Phdr));
    bytes.resize(std::max(bytes.size(), size_t{4096}));
    header.e_phoff = bytes.size();
    bytes.replace(0, sizeof header, reinterpret_cast<const char*>(&header), sizeof header);
    return bytes + table;
}

int EndAtOnce(void*) {
    return 0;
}

}  // namespace

TEST(MutexFailure, AMutexThatTheSystemRefusesIsNull) {
    const Restore restore;
    stand_in::put.mutex_init = &RefuseTheMutex;
    tova_mutex_t mutex = nullptr;
    EXPECT_EQ(TOVA_MutexCreate(&mutex, 0), EAGAIN);
    EXPECT_EQ(TOVA_GetSystemLastError(), EAGAIN);
    EXPECT_EQ(mutex, nullptr);
}

TEST(MutexFailure, ALockThatTheSystemRefusesFails) {
    tova_mutex_t mutex = nullptr;
    ASSERT_EQ(TOVA_MutexCreate(&mutex, 0), 0);
    stand_in::PutNextLock(&RefuseToLock);
    EXPECT_EQ(TOVA_MutexLock(&mutex), EAGAIN);
    EXPECT_EQ(TOVA_GetSystemLastError(), EAGAIN);
    EXPECT_EQ(TOVA_MutexLock(&mutex), 0);
    EXPECT_EQ(TOVA_MutexUnlock(&mutex), 0);
    EXPECT_EQ(TOVA_MutexDestroy(&mutex), 0);
}

TEST(SemaphoreFailure, ASemaphoreThatTheSystemRefusesIsNull) {
    tova_sem_t sem = nullptr;
    {
        const Restore restore;
        stand_in::put.mutex_init = &RefuseTheMutex;
        EXPECT_EQ(TOVA_SemCreate(&sem, 0), EAGAIN);
        EXPECT_EQ(sem, nullptr);
    }
    const Restore restore;
    stand_in::put.cond_init = &RefuseTheCondition;
    EXPECT_EQ(TOVA_SemCreate(&sem, 0), EAGAIN);
    EXPECT_EQ(TOVA_GetSystemLastError(), EAGAIN);
    EXPECT_EQ(sem, nullptr);
}

TEST(SemaphoreFailure, ASignalDoesNotShortenTheTimeThatAFailingWaitUsesUp) {
    Sem sem;
    const Restore restore;
    g_calls = 0;
    stand_in::put.cond_timedwait = &FailToWaitForATime;
    stand_in::put.nanosleep = &InterruptTheSleep;
    EXPECT_EQ(TOVA_SemTimedWait(&sem.value, 10), ENOTRECOVERABLE);
    EXPECT_EQ(g_calls, 3);
}

TEST(ThreadFailure, AThreadWithoutAttributesIsNull) {
    const Restore restore;
    stand_in::put.attr_init = &RefuseTheAttributes;
    EXPECT_EQ(TOVA_Thread_Create(&EndAtOnce, nullptr, 0, 0, 0, 0), nullptr);
    EXPECT_EQ(TOVA_GetSystemLastError(), ENOMEM);
}

TEST(ThreadFailure, AThreadThatCannotBeJoinedKeepsItsHandle) {
    const tova_thread_t thread = TOVA_Thread_Create(&EndAtOnce, nullptr, 0, 0, 0, 0);
    ASSERT_NE(thread, nullptr);
    {
        const Restore restore;
        stand_in::put.join = &RefuseToJoin;
        EXPECT_EQ(TOVA_Thread_Wait(thread), EINVAL);
        EXPECT_EQ(TOVA_GetSystemLastError(), EINVAL);
    }
    EXPECT_EQ(TOVA_Thread_Wait(thread), 0);
}

TEST(DirectoryFailure, AFolderThatCannotBeExaminedItselfIsNotListed) {
    TempFolder folder;
    folder.Write("a", "");
    {
        const Restore restore;
        stand_in::put.fstat = &RefuseToExamine;
        EXPECT_EQ(TOVA_OpenDir(folder.Path().c_str()), nullptr);
        EXPECT_EQ(TOVA_GetSystemLastError(), EIO);
    }
    EXPECT_THAT(Names(List(folder.Path())), ElementsAre(".", "..", "a"));
}

TEST(DirectoryFailure, AListingFarBeyondTheUsualIsNotKeptForItsMemory) {
    TempFolder large;
    for (int i = 0; i < 1000; ++i) large.Write(std::string(250, 'n') + std::to_string(i), "");
    TempFolder small;
    const std::string path = small.Path();
    EXPECT_EQ(TOVA_CloseDir(TOVA_OpenDir(path.c_str())), 0);
    void* const usual = TOVA_OpenDir(path.c_str());
    EXPECT_EQ(TOVA_CloseDir(TOVA_OpenDir(large.Path().c_str())), 0);
    // Only the usual one's memory was kept, and it is in use.
    stand_in::FailAllocation(1);
    EXPECT_EQ(TOVA_OpenDir(path.c_str()), nullptr);
    EXPECT_EQ(TOVA_GetSystemLastError(), ENOMEM);
    stand_in::FailAllocation(0);
    EXPECT_EQ(TOVA_CloseDir(usual), 0);
}

TEST(DirectoryFailure, AClockThatStandsStillIsNotWaitedForWithoutEnd) {
    TempFolder folder;
    for (const char* const name : {"a", "b", "c", "d", "e", "f"}) folder.Write(name, "");
    timespec tick{};
    clock_getres(CLOCK_REALTIME_COARSE, &tick);
    g_tick_ns = tick.tv_nsec;
    clock_gettime(CLOCK_REALTIME_COARSE, &g_now);
    g_now.tv_nsec = g_tick_ns / 8;
    const Restore restore;
    stand_in::put.gettime = &ReadTheStandingClock;
    stand_in::put.nanosleep = &CountTheSleep;
    stand_in::put.fstatat = &ExamineInOrder;
    g_examined = 0;
    g_calls = 0;
    EXPECT_THAT(Names(List(folder.Path())), ElementsAre(".", "..", "a", "b", "c", "d", "e", "f"));
    EXPECT_EQ(g_calls, 4);
}

TEST(DirectoryFailure, AFileOfAnotherTimeThanTheClocksIsNotWaitedFor) {
    TempFolder folder;
    for (const char* const name : {"a", "b", "c"}) folder.Write(name, "");
    clock_gettime(CLOCK_REALTIME_COARSE, &g_now);
    const Restore restore;
    stand_in::put.gettime = &ReadTheStandingClock;
    stand_in::put.nanosleep = &CountTheSleep;
    stand_in::put.fstatat = &ExamineOutOfTime;
    g_examined = 0;
    g_calls = 0;
    EXPECT_THAT(Names(List(folder.Path())), ElementsAre(".", "..", "a", "b", "c"));
    EXPECT_EQ(g_calls, 0);
}

TEST(ModuleFailure, AFileThatCannotBeExaminedIsRefused) {
    const Restore restore;
    stand_in::put.fstat = &RefuseToExamine;
    Records records;
    EXPECT_EQ(TOVA_LoadDSo(PLAIN_MODULE), nullptr);
    EXPECT_EQ(TOVA_GetSystemLastError(), EIO);
    const auto taken = records.Take();
    ASSERT_THAT(taken, SizeIs(1));
    EXPECT_THAT(taken[0].text, HasSubstr("cannot be read: "));
}

TEST(ModuleFailure, AFileWhoseBeginningCannotBeReadIsRefused) {
    const Restore restore;
    stand_in::put.pread = &ReadNothing;
    EXPECT_EQ(TOVA_LoadDSo(PLAIN_MODULE), nullptr);
    EXPECT_EQ(TOVA_GetSystemLastError(), EIO);
}

TEST(ModuleFailure, ATableOfSegmentsFarInTheFileIsReadInPiecesAndAfterSignals) {
    TempFolder folder;
    const std::string path = folder.Write("far.module", WithSegmentsAtItsEnd());
    const Restore restore;
    stand_in::put.pread = &ReadWithInterruptions;
    stand_in::put.open = &FailToLoad;
    g_calls = 0;
    g_error = 0;
    Records records;
    EXPECT_EQ(TOVA_LoadDSo(path.c_str()), nullptr);
    EXPECT_GT(g_calls, 3);
    // The examination has passed it on to the loader.
    const auto taken = records.Take();
    ASSERT_THAT(taken, SizeIs(1));
    EXPECT_THAT(taken[0].text, HasSubstr("module not loaded"));
}

TEST(ModuleFailure, ATableOfSegmentsThatCannotBeReadRefusesTheModule) {
    TempFolder folder;
    const std::string path = folder.Write("far.module", WithSegmentsAtItsEnd());
    const Restore restore;
    stand_in::put.pread = &ReadWithInterruptions;
    g_calls = 0;
    g_error = EIO;
    EXPECT_EQ(TOVA_LoadDSo(path.c_str()), nullptr);
    EXPECT_EQ(TOVA_GetSystemLastError(), EIO);
}

TEST(ModuleFailure, AFailingLoadKeepsTheSystemsErrorOrHasOneOfItsOwn) {
    const Restore restore;
    stand_in::put.open = &FailToLoad;
    stand_in::put.error = &GiveNoReason;
    for (const int error : {ENOMEM, 0}) {
        g_error = error;
        Records records;
        EXPECT_EQ(TOVA_LoadDSo(PLAIN_MODULE), nullptr);
        EXPECT_EQ(TOVA_GetSystemLastError(), error != 0 ? error : ENOEXEC);
        const auto taken = records.Take();
        ASSERT_THAT(taken, SizeIs(1));
        EXPECT_THAT(taken[0].text, HasSubstr("reason: the loader gives no reason"));
    }
}

TEST(ModuleFailure, AFailingUnloadKeepsTheSystemsErrorOrHasOneOfItsOwn) {
    void* const module = TOVA_LoadDSo(PLAIN_MODULE);
    ASSERT_NE(module, nullptr);
    for (const int error : {ENOMEM, 0}) {
        const Restore restore;
        stand_in::put.close = &FailToUnload;
        g_error = error;
        EXPECT_EQ(TOVA_UnloadDSo(module), error != 0 ? error : EINVAL);
    }
    EXPECT_EQ(TOVA_UnloadDSo(module), 0);
}

TEST(ModuleFailure, ASymbolThatTheLoaderCannotPlaceIsNotTheModulesOwn) {
    void* const module = TOVA_LoadDSo(PLAIN_MODULE);
    ASSERT_NE(module, nullptr);
    const char* const name = "module_answer";
    EXPECT_NE(TOVA_GetDsoSym(module, name), nullptr);
    {
        const Restore restore;
        stand_in::put.info = &KnowNoModule;
        EXPECT_EQ(TOVA_GetDsoSym(module, name), nullptr);
        EXPECT_EQ(TOVA_GetSystemLastError(), ENOENT);
    }
    {
        const Restore restore;
        stand_in::put.address = &KnowNoAddress;
        EXPECT_EQ(TOVA_GetDsoSym(module, name), nullptr);
        EXPECT_EQ(TOVA_GetSystemLastError(), ENOENT);
    }
    EXPECT_EQ(TOVA_UnloadDSo(module), 0);
}
