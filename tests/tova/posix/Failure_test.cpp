#include <dirent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <thread>
#include <utility>

#include "../Records.h"
#include "../Support.h"
#include "StandIns.h"

namespace fs = std::filesystem;
using stand_in::FailAllocation;
using stand_in::Real;
using stand_in::Restore;
using testing::ElementsAre;
using tova_test::List;
using tova_test::Names;
using tova_test::Sem;
using tova_test::TempFolder;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

size_t OpenDescriptors() {
    size_t count = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        (void)entry;
        ++count;
    }
    return count;
}

int g_calls = 0;
timespec g_deadline{};
timespec g_written{};
tova_sem_t g_sem = nullptr;
std::string g_victim;

ssize_t FailTheSecondRead(int folder, void* records, size_t size) {
    if (++g_calls < 2) return Real().getdents(folder, records, size);
    errno = EIO;
    return -1;
}

// The folder is removed behind the first records, and has no more.
ssize_t MissTheFolderFromTheSecondReadOn(int folder, void* records, size_t size) {
    if (++g_calls < 2) return Real().getdents(folder, records, size);
    errno = ENOENT;
    return -1;
}

// As little at a time as one record needs.
ssize_t ReadInSmallSteps(int folder, void* records, size_t size) {
    ++g_calls;
    return Real().getdents(folder, records, std::min(size, size_t{64}));
}

// One record at the end of what is really there.
ssize_t AddARecord(int folder, void* records, size_t size, ino64_t number, size_t name_length) {
    const ssize_t read = Real().getdents(folder, records, size);
    if (++g_calls != 1 || read <= 0) return read;
    char* const at = static_cast<char*>(records) + read;
    const size_t whole = (offsetof(dirent64, d_name) + name_length + 1 + 7) / 8 * 8;
    std::memset(at, 0, whole);
    std::memcpy(at + offsetof(dirent64, d_ino), &number, sizeof number);
    const auto record_length = static_cast<unsigned short>(whole);
    std::memcpy(at + offsetof(dirent64, d_reclen), &record_length, sizeof record_length);
    std::memset(at + offsetof(dirent64, d_name), 'n', name_length);
    return read + static_cast<ssize_t>(whole);
}

// As a file system with longer names shows one.
ssize_t ReadALongName(int folder, void* records, size_t size) {
    return AddARecord(folder, records, size, 1, 256);
}

ssize_t ReadADeletedName(int folder, void* records, size_t size) {
    return AddARecord(folder, records, size, 0, 5);
}

int FailToExamineTheVictim(int folder, const char* name, struct stat* status, int flags) {
    if (name == g_victim) {
        errno = EIO;
        return -1;
    }
    return Real().fstatat(folder, name, status, flags);
}

int RemoveTheVictimFirst(int folder, const char* name, struct stat* status, int flags) {
    if (name == g_victim) unlinkat(folder, name, 0);
    return Real().fstatat(folder, name, status, flags);
}

// Whatever it is asked for, it gives what the folder itself has.
int ExamineTheFolderInstead(int folder, const char*, struct stat* status, int flags) {
    return Real().fstatat(folder, ".", status, flags);
}

// The victim was written in this very tick of the clock.
int WriteTheVictimNow(int folder, const char* name, struct stat* status, int flags) {
    const int result = Real().fstatat(folder, name, status, flags);
    if (name == g_victim) {
        clock_gettime(CLOCK_REALTIME_COARSE, &g_written);
        status->st_ctim = g_written;
    }
    return result;
}

// The victim is away when its target is asked for and back when the link itself is.
int MissTheVictimOnce(int folder, const char* name, struct stat* status, int flags) {
    if (name == g_victim && flags == 0) {
        errno = ENOENT;
        return -1;
    }
    return Real().fstatat(folder, name, status, flags);
}

int FailToWait(pthread_cond_t*, pthread_mutex_t*) {
    ++g_calls;
    return ENOTRECOVERABLE;
}

int FailToWaitForATime(pthread_cond_t*, pthread_mutex_t*, const timespec*) {
    ++g_calls;
    return ENOTRECOVERABLE;
}

int WakeForNothing(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* deadline) {
    return ++g_calls <= 10 ? 0 : Real().cond_timedwait(condition, mutex, deadline);
}

int StoreTheDeadline(pthread_cond_t*, pthread_mutex_t*, const timespec* deadline) {
    g_deadline = *deadline;
    return ETIMEDOUT;
}

// The post comes at the last moment: it signals a thread whose time is already up.
int PostAndTimeOut(pthread_cond_t*, pthread_mutex_t* mutex, const timespec*) {
    pthread_mutex_unlock(mutex);
    TOVA_SemPost(&g_sem);
    pthread_mutex_lock(mutex);
    return ETIMEDOUT;
}

// The order of the threads in the test below.
enum Stage { kBegun, kWaiting, kPosterHasCounted, kDestroyed };
std::atomic<int> g_stage{kBegun};

void AwaitStage(int stage) {
    while (g_stage != stage) std::this_thread::yield();
}

int WaitForThePost(pthread_cond_t*, pthread_mutex_t* mutex, const timespec*) {
    pthread_mutex_unlock(mutex);
    g_stage = kWaiting;
    AwaitStage(kPosterHasCounted);
    pthread_mutex_lock(mutex);
    return ETIMEDOUT;
}

int LockAfterTheDestruction(pthread_mutex_t* mutex) {
    g_stage = kPosterHasCounted;
    AwaitStage(kDestroyed);
    return stand_in::RealLock(mutex);
}

int RefuseTheStack(pthread_attr_t*, size_t) {
    return EINVAL;
}

// No address space has room for this one.
int AskForAHugeStack(pthread_attr_t* attributes, size_t) {
    return Real().attr_setstacksize(attributes, size_t{1} << 47);
}

int EndAtOnce(void*) {
    return 0;
}

std::string MaskBytes() {
    sigset_t mask;
    std::string bytes;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    for (int signal = 1; signal <= SIGRTMAX; ++signal)
        bytes += sigismember(&mask, signal) == 1 ? '1' : '0';
    return bytes;
}

}  // namespace

// clang puts its thread sanitizer's own functions into the program, where the stand-ins of this
// one hide them: it then sees waits on conditions that never give their mutex up, and mutexes given
// up that nobody took.
#if defined(__clang__)
#  if __has_feature(thread_sanitizer)
#    define SKIP_IF_LOCKS_ARE_THE_SANITIZERS() \
      GTEST_SKIP() << "the stand-ins hide clang's thread sanitizer's own functions"
#  endif
#endif
#ifndef SKIP_IF_LOCKS_ARE_THE_SANITIZERS
#  define SKIP_IF_LOCKS_ARE_THE_SANITIZERS() static_cast<void>(0)
#endif

TEST(DirectoryFailure, AnErrorHalfWayIsAFailedOpenAndNoShortListing) {
    TempFolder folder;
    for (const char* name : {"a", "b", "c", "d"}) folder.Write(name, "");
    const size_t descriptors = OpenDescriptors();
    {
        const Restore restore;
        g_calls = 0;
        stand_in::put.getdents = &FailTheSecondRead;
        EXPECT_EQ(TOVA_OpenDir(folder.Path().c_str()), nullptr);
        EXPECT_EQ(TOVA_GetSystemLastError(), EIO);
        EXPECT_EQ(g_calls, 2);
    }
    EXPECT_EQ(OpenDescriptors(), descriptors);
    EXPECT_THAT(Names(List(folder.Path())), ElementsAre(".", "..", "a", "b", "c", "d"));
}

TEST(DirectoryFailure, ANameThatDoesNotFitFailsTheWholeListing) {
    TempFolder folder;
    folder.Write("a", "");
    const size_t descriptors = OpenDescriptors();
    {
        const Restore restore;
        g_calls = 0;
        stand_in::put.getdents = &ReadALongName;
        stand_in::put.fstatat = &ExamineTheFolderInstead;
        EXPECT_EQ(TOVA_OpenDir(folder.Path().c_str()), nullptr);
        EXPECT_EQ(TOVA_GetSystemLastError(), ENAMETOOLONG);
    }
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST(DirectoryFailure, ADeletedEntryThatIsStillThereIsLeftOut) {
    TempFolder folder;
    folder.Write("a", "");
    const Restore restore;
    g_calls = 0;
    stand_in::put.getdents = &ReadADeletedName;
    // Otherwise there would be something of that name.
    stand_in::put.fstatat = &ExamineTheFolderInstead;
    EXPECT_THAT(Names(List(folder.Path())), ElementsAre(".", "..", "a"));
    EXPECT_GE(g_calls, 2);
}

TEST(DirectoryFailure, AFolderThatIsRemovedMeanwhileEndsThere) {
    TempFolder folder;
    folder.Write("a", "");
    const Restore restore;
    g_calls = 0;
    stand_in::put.getdents = &MissTheFolderFromTheSecondReadOn;
    EXPECT_THAT(Names(List(folder.Path())), ElementsAre(".", "..", "a"));
    EXPECT_EQ(g_calls, 2);
}

TEST(DirectoryFailure, AListingThatComesInManyPartsIsWhole) {
    TempFolder folder;
    for (const char* name : {"a", "b", "c", "d", "e"}) folder.Write(name, "");
    const Restore restore;
    g_calls = 0;
    stand_in::put.getdents = &ReadInSmallSteps;
    EXPECT_THAT(Names(List(folder.Path())), ElementsAre(".", "..", "a", "b", "c", "d", "e"));
    EXPECT_GE(g_calls, 4);
}

TEST(DirectoryFailure, AnEntryThatCannotBeExaminedFailsTheWholeListing) {
    TempFolder folder;
    for (const char* name : {"a", "b", "c"}) folder.Write(name, "");
    g_victim = "b";
    const size_t descriptors = OpenDescriptors();
    {
        const Restore restore;
        stand_in::put.fstatat = &FailToExamineTheVictim;
        EXPECT_EQ(TOVA_OpenDir(folder.Path().c_str()), nullptr);
        EXPECT_EQ(TOVA_GetSystemLastError(), EIO);
    }
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST(DirectoryFailure, AnEntryThatVanishesMeanwhileIsLeftOut) {
    TempFolder folder;
    for (const char* name : {"a", "b", "c"}) folder.Write(name, "");
    g_victim = "b";
    const Restore restore;
    stand_in::put.fstatat = &RemoveTheVictimFirst;
    EXPECT_THAT(Names(List(folder.Path())), ElementsAre(".", "..", "a", "c"));
}

TEST(DirectoryFailure, AFileThatComesBackMeanwhileIsListedAsAFile) {
    TempFolder folder;
    for (const char* name : {"a", "b", "c"}) folder.Write(name, "");
    g_victim = "b";
    const tova_dirent_t expected = tova_test::EntryOf(folder, "b");
    const Restore restore;
    stand_in::put.fstatat = &MissTheVictimOnce;
    const tova_dirent_t entry = tova_test::EntryOf(folder, "b");
    EXPECT_EQ(entry.type, uint32_t{TOVA_DIRENT_FILE});
    EXPECT_EQ(entry.stamp, expected.stamp);
}

// Otherwise a rewrite later in the same tick could not be told from what the listing shows.
TEST(DirectoryFailure, AListingWithAFileOfTheRunningTickComesAfterThatTick) {
    TempFolder folder;
    for (const char* name : {"a", "b", "c"}) folder.Write(name, "");
    g_victim = "b";
    const Restore restore;
    stand_in::put.fstatat = &WriteTheVictimNow;
    for (int i = 0; i < 20; ++i) {
        void* const dir = TOVA_OpenDir(folder.Path().c_str());
        timespec now{};
        clock_gettime(CLOCK_REALTIME_COARSE, &now);
        ASSERT_NE(dir, nullptr);
        EXPECT_NE(std::make_pair(now.tv_sec, now.tv_nsec),
                  std::make_pair(g_written.tv_sec, g_written.tv_nsec));
        EXPECT_EQ(TOVA_CloseDir(dir), 0);
    }
}

TEST(SemaphoreFailure, APostThatMeetsTheTimeOutIsTaken) {
    SKIP_IF_LOCKS_ARE_THE_SANITIZERS();
    Sem sem;
    g_sem = sem.value;
    const Restore restore;
    stand_in::put.cond_timedwait = &PostAndTimeOut;
    EXPECT_EQ(TOVA_SemTimedWait(&sem.value, 1000), 0);
    EXPECT_NE(TOVA_SemTimedWait(&sem.value, 0), 0);
}

// The count is given, the signal not yet sent, and whoever took the count is done.
TEST(SemaphoreFailure, APostKeepsTheBlockThatItsTakerHasDestroyed) {
    SKIP_IF_LOCKS_ARE_THE_SANITIZERS();
    tova_sem_t sem = nullptr;
    ASSERT_EQ(TOVA_SemCreate(&sem, 0), 0);
    stand_in::Watch(sem);
    const Restore restore;
    stand_in::put.cond_timedwait = &WaitForThePost;
    g_stage = kBegun;
    std::thread poster([copy = sem]() mutable {
        AwaitStage(kWaiting);
        stand_in::PutNextLock(&LockAfterTheDestruction);
        EXPECT_EQ(TOVA_SemPost(&copy), 0);
    });
    EXPECT_EQ(TOVA_SemTimedWait(&sem, 60000), 0);
    EXPECT_EQ(TOVA_SemDestroy(&sem), 0);
    EXPECT_FALSE(stand_in::IsFreed());
    g_stage = kDestroyed;
    poster.join();
    EXPECT_TRUE(stand_in::IsFreed());
}

TEST(SemaphoreFailure, AFailingTimedWaitUsesUpTheTime) {
    SKIP_IF_LOCKS_ARE_THE_SANITIZERS();
    Sem sem;
    const Restore restore;
    g_calls = 0;
    stand_in::put.cond_timedwait = &FailToWaitForATime;
    const auto start = Clock::now();
    EXPECT_EQ(TOVA_SemTimedWait(&sem.value, 60), ENOTRECOVERABLE);
    EXPECT_EQ(TOVA_GetSystemLastError(), ENOTRECOVERABLE);
    EXPECT_GE(Clock::now() - start, milliseconds(60));
    EXPECT_EQ(g_calls, 1);
}

TEST(SemaphoreFailure, AFailingWaitReportsIt) {
    SKIP_IF_LOCKS_ARE_THE_SANITIZERS();
    Sem sem;
    const Restore restore;
    g_calls = 0;
    stand_in::put.cond_wait = &FailToWait;
    EXPECT_EQ(TOVA_SemWait(&sem.value), ENOTRECOVERABLE);
    EXPECT_EQ(TOVA_GetSystemLastError(), ENOTRECOVERABLE);
    EXPECT_EQ(g_calls, 1);
}

TEST(SemaphoreFailure, AWakeUpForNothingIsWaitedOn) {
    SKIP_IF_LOCKS_ARE_THE_SANITIZERS();
    Sem sem;
    const Restore restore;
    g_calls = 0;
    stand_in::put.cond_timedwait = &WakeForNothing;
    const auto start = Clock::now();
    EXPECT_EQ(TOVA_SemTimedWait(&sem.value, 30), ETIMEDOUT);
    EXPECT_GE(Clock::now() - start, milliseconds(30));
    EXPECT_GT(g_calls, 10);
}

TEST(SemaphoreFailure, TheTimeIsTakenFromTheMonotonicClock) {
    SKIP_IF_LOCKS_ARE_THE_SANITIZERS();
    Sem sem;
    const Restore restore;
    timespec before{};
    timespec after{};
    stand_in::put.cond_timedwait = &StoreTheDeadline;
    clock_gettime(CLOCK_MONOTONIC, &before);
    EXPECT_EQ(TOVA_SemTimedWait(&sem.value, 3999999), ETIMEDOUT);
    clock_gettime(CLOCK_MONOTONIC, &after);
    const double wait_s = 3999.999;
    const auto seconds = [](const timespec& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
    };
    EXPECT_GE(seconds(g_deadline), seconds(before) + wait_s - 1e-6);
    EXPECT_LE(seconds(g_deadline), seconds(after) + wait_s + 1e-6);
    EXPECT_GE(g_deadline.tv_nsec, 0);
    EXPECT_LT(g_deadline.tv_nsec, 1000000000);
}

TEST(ThreadFailure, AFailedCreationGivesNullAndTheSignalsBack) {
    const std::string mask = MaskBytes();
    for (const auto refuse : {&RefuseTheStack, &AskForAHugeStack}) {
        const Restore restore;
        stand_in::put.attr_setstacksize = refuse;
        EXPECT_EQ(TOVA_Thread_Create(&EndAtOnce, nullptr, 0, 0, 0, 0), nullptr);
        const int error = TOVA_GetSystemLastError();
        EXPECT_TRUE(error == EINVAL || error == EAGAIN || error == ENOMEM) << error;
        EXPECT_EQ(MaskBytes(), mask);
    }
    tova_thread_t thread = TOVA_Thread_Create(&EndAtOnce, nullptr, 0, 0, 0, 0);
    ASSERT_NE(thread, nullptr);
    EXPECT_EQ(TOVA_Thread_Wait(thread), 0);
}

TEST(OutOfMemory, AMutexIsNull) {
    Sem other;
    tova_mutex_t mutex = other.value;
    FailAllocation(1);
    EXPECT_EQ(TOVA_MutexCreate(&mutex, 0), ENOMEM);
    EXPECT_EQ(TOVA_GetSystemLastError(), ENOMEM);
    EXPECT_EQ(mutex, nullptr);
}

TEST(OutOfMemory, ASemaphoreIsNull) {
    Sem other;
    tova_sem_t sem = other.value;
    FailAllocation(1);
    EXPECT_EQ(TOVA_SemCreate(&sem, 0), ENOMEM);
    EXPECT_EQ(TOVA_GetSystemLastError(), ENOMEM);
    EXPECT_EQ(sem, nullptr);
}

TEST(OutOfMemory, AThreadIsNull) {
    FailAllocation(1);
    EXPECT_EQ(TOVA_Thread_Create(&EndAtOnce, nullptr, 0, 0, 0, 0), nullptr);
    EXPECT_EQ(TOVA_GetSystemLastError(), ENOMEM);
}

TEST(OutOfMemory, AListingFailsAtEachAllocationUntilItSucceeds) {
    TempFolder folder;
    for (int i = 0; i < 40; ++i) folder.Write("file" + std::to_string(i), "");
    const std::string path = folder.Path();
    // Has the memory of whatever was closed before.
    void* const other = TOVA_OpenDir(path.c_str());
    ASSERT_NE(other, nullptr);
    const size_t descriptors = OpenDescriptors();
    void* dir = nullptr;
    int failures = 0;
    while (dir == nullptr && failures < 1000) {
        FailAllocation(failures + 1);
        dir = TOVA_OpenDir(path.c_str());
        const int error = TOVA_GetSystemLastError();
        FailAllocation(0);
        if (dir != nullptr) break;
        EXPECT_EQ(error, ENOMEM);
        EXPECT_EQ(OpenDescriptors(), descriptors);
        ++failures;
    }
    ASSERT_NE(dir, nullptr);
    EXPECT_GE(failures, 2);
    int entries = 0;
    for (tova_dirent_t entry; TOVA_FindFileInDir(dir, &entry) == 0;) ++entries;
    EXPECT_EQ(entries, 42);
    EXPECT_EQ(TOVA_CloseDir(dir), 0);
    EXPECT_EQ(TOVA_CloseDir(other), 0);
}

TEST(OutOfMemory, AListingAfterAnotherNeedsNone) {
    TempFolder folder;
    for (int i = 0; i < 40; ++i) folder.Write("file" + std::to_string(i), "");
    const std::string path = folder.Path();
    EXPECT_EQ(TOVA_CloseDir(TOVA_OpenDir(path.c_str())), 0);
    for (int i = 0; i < 3; ++i) {
        FailAllocation(1);
        void* const dir = TOVA_OpenDir(path.c_str());
        FailAllocation(0);
        ASSERT_NE(dir, nullptr);
        int entries = 0;
        for (tova_dirent_t entry; TOVA_FindFileInDir(dir, &entry) == 0;) ++entries;
        EXPECT_EQ(entries, 42);
        EXPECT_EQ(TOVA_CloseDir(dir), 0);
    }
}

TEST(OutOfMemory, ALoadFailsAtEachAllocationUntilItSucceeds) {
    TempFolder folder;
    const char* const name = "a-name-that-no-string-keeps-inside-itself.module";
    folder.CopyOf(PLAIN_MODULE, name);
    const fs::path before = fs::current_path();
    fs::current_path(folder.Path());
    void* dso = nullptr;
    int failures = 0;
    while (dso == nullptr && failures < 1000) {
        FailAllocation(failures + 1);
        dso = TOVA_LoadDSo(name);
        const int error = TOVA_GetSystemLastError();
        FailAllocation(0);
        if (dso != nullptr) break;
        EXPECT_EQ(error, ENOMEM);
        ++failures;
    }
    fs::current_path(before);
    ASSERT_NE(dso, nullptr);
    EXPECT_GE(failures, 1);
    EXPECT_EQ(TOVA_UnloadDSo(dso), 0);
}

TEST(OutOfMemory, ARefusalKeepsItsErrorThoughItsRecordIsLost) {
    SKIP_IF_LOCKS_ARE_THE_SANITIZERS();
    TempFolder folder;
    const std::string path = folder.Path("missing.module");
    tova_test::Records records;
    // Made before, so that it is the record's own text that lacks memory.
    void* const logger = SKRIB_GetLogger("tova");
    ASSERT_NE(logger, nullptr);
    int lost = 0;
    for (int n = 1; n <= 20; ++n) {
        FailAllocation(n);
        EXPECT_EQ(TOVA_LoadDSo(path.c_str()), nullptr);
        const int error = TOVA_GetSystemLastError();
        FailAllocation(0);
        EXPECT_EQ(error, ENOENT) << "allocation " << n;
        if (records.Take().empty()) ++lost;
    }
    EXPECT_GT(lost, 0);
    EXPECT_LT(lost, 20);
    SKRIB_ReleaseLogger(logger);
}
