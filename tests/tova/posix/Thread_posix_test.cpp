#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <set>
#include <string>

#include "../Support.h"

namespace {

// The signals that a program can block, without the two that the C library keeps for itself.
std::set<int> BlockableSignals() {
    std::set<int> signals;
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
        const bool reserved = signal >= 32 && signal < SIGRTMIN;
        if (signal != SIGKILL && signal != SIGSTOP && !reserved) signals.insert(signal);
    }
    return signals;
}

std::set<int> BlockedSignals() {
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    std::set<int> blocked;
    for (const int signal : BlockableSignals()) {
        if (sigismember(&mask, signal) == 1) blocked.insert(signal);
    }
    return blocked;
}

int StoreBlockedSignals(void* argument) {
    *static_cast<std::set<int>*>(argument) = BlockedSignals();
    return 0;
}

int StoreStackSize(void* argument) {
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0) return 1;
    pthread_attr_getstacksize(&attributes, static_cast<size_t*>(argument));
    pthread_attr_destroy(&attributes);
    return 0;
}

struct SelfJoin {
    tova_test::Sem handle_is_set;
    tova_thread_t handle = nullptr;
    int result = 0;
    int error = 0;
};

int JoinSelf(void* argument) {
    SelfJoin& world = *static_cast<SelfJoin*>(argument);
    TOVA_SemWait(&world.handle_is_set.value);
    world.result = TOVA_Thread_Wait(world.handle);
    world.error = TOVA_GetSystemLastError();
    return 0;
}

struct Cancelled {
    std::string folder;
    std::string module;
    bool listed = false;
    bool refused = false;
    bool went_on = false;
};

void* CallWhileCancelled(void* argument) {
    Cancelled& world = *static_cast<Cancelled*>(argument);
    pthread_cancel(pthread_self());
    void* const dir = TOVA_OpenDir(world.folder.c_str());
    world.listed = dir != nullptr && TOVA_CloseDir(dir) == 0;
    world.refused = TOVA_LoadDSo(world.module.c_str()) == nullptr;
    pthread_testcancel();
    world.went_on = true;
    return nullptr;
}

void RunToTheEnd(tova_entry_t entry, void* argument) {
    tova_thread_t thread = TOVA_Thread_Create(entry, argument, 0, 0, 0, 0);
    ASSERT_NE(thread, nullptr);
    ASSERT_EQ(TOVA_Thread_Wait(thread), 0);
}

}  // namespace

TEST(ThreadPosix, BlocksEverySignalButTheSynchronousOnes) {
    std::set<int> expected = BlockableSignals();
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) {
        EXPECT_EQ(expected.erase(signal), 1u);
    }
    std::set<int> blocked;
    RunToTheEnd(&StoreBlockedSignals, &blocked);
    EXPECT_EQ(blocked, expected);
}

TEST(ThreadPosix, LeavesItsCreatorsSignalsAlone) {
    sigset_t mine;
    sigemptyset(&mine);
    sigaddset(&mine, SIGUSR2);
    sigaddset(&mine, SIGSEGV);
    sigset_t before;
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &mine, &before), 0);
    std::set<int> blocked;
    RunToTheEnd(&StoreBlockedSignals, &blocked);
    const std::set<int> after = BlockedSignals();
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &before, nullptr), 0);
    EXPECT_EQ(after, (std::set<int>{SIGUSR2, SIGSEGV}));
    EXPECT_EQ(blocked.count(SIGSEGV), 0u);
    EXPECT_EQ(blocked.count(SIGUSR1), 1u);
}

TEST(ThreadPosix, HasItsStackWhateverTheProcessesDefaultIs) {
    pthread_attr_t before;
    ASSERT_EQ(pthread_getattr_default_np(&before), 0);
    pthread_attr_t small;
    ASSERT_EQ(pthread_attr_init(&small), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&small, size_t{256} << 10), 0);
    ASSERT_EQ(pthread_setattr_default_np(&small), 0);
    size_t size = 0;
    RunToTheEnd(&StoreStackSize, &size);
    ASSERT_EQ(pthread_setattr_default_np(&before), 0);
    EXPECT_GE(size, size_t{8} << 20);
    pthread_attr_destroy(&small);
    pthread_attr_destroy(&before);
}

TEST(ThreadPosix, NamesTheErrorOfASelfJoin) {
    SelfJoin world;
    world.handle = TOVA_Thread_Create(&JoinSelf, &world, 0, 0, 0, 0);
    ASSERT_NE(world.handle, nullptr);
    TOVA_SemPost(&world.handle_is_set.value);
    EXPECT_EQ(TOVA_Thread_Wait(world.handle), 0);
    EXPECT_EQ(world.result, EDEADLK);
    EXPECT_EQ(world.error, EDEADLK);
}

// Cut off in the middle, the calls would leave descriptors, memory or the loader's lock behind.
TEST(ThreadPosix, ACancellationWaitsForTheEndOfAListingAndOfALoad) {
    tova_test::TempFolder folder;
    Cancelled world;
    world.folder = folder.Path();
    world.module = folder.Write("text.so", "no module");
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, &CallWhileCancelled, &world), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_TRUE(world.listed);
    EXPECT_TRUE(world.refused);
    EXPECT_FALSE(world.went_on);
}
