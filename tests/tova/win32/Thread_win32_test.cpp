#include <gtest/gtest.h>
#include <process.h>

#include "../Support.h"
#include "Imports.h"
#include "System.h"

using tova_test::OpenHandles;
using tova_test::StandIn;

namespace {

int EndAtOnce(void*) {
    return 0;
}

// The stack as it was set apart for the thread, whatever of it is in use.
int StoreStackSize(void* argument) {
    size_t& size = *static_cast<size_t*>(argument);
    MEMORY_BASIC_INFORMATION part{};
    VirtualQuery(&part, &part, sizeof part);
    const void* const stack = part.AllocationBase;
    const char* address = static_cast<const char*>(stack);
    while (VirtualQuery(address, &part, sizeof part) != 0 && part.AllocationBase == stack) {
        size += part.RegionSize;
        address += part.RegionSize;
    }
    return 0;
}

int StoreTheErrorItBeginsWith(void* argument) {
    *static_cast<int*>(argument) = TOVA_GetSystemLastError();
    SetLastError(ERROR_CRC);
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

std::uintptr_t __cdecl StartNone(void*, unsigned, unsigned(__stdcall*)(void*), void*, unsigned,
                                 unsigned*) {
    SetLastError(ERROR_NOT_ENOUGH_QUOTA);
    return 0;
}

std::uintptr_t __cdecl StartNoneWithoutAReason(void*, unsigned, unsigned(__stdcall*)(void*), void*,
                                               unsigned, unsigned*) {
    return 0;
}

DWORD WINAPI FailToWait(HANDLE, DWORD) {
    SetLastError(ERROR_ACCESS_DENIED);
    return WAIT_FAILED;
}

void RunToTheEnd(tova_entry_t entry, void* argument) {
    tova_thread_t thread = TOVA_Thread_Create(entry, argument, 0, 0, 0, 0);
    ASSERT_NE(thread, nullptr);
    ASSERT_EQ(TOVA_Thread_Wait(thread), 0);
}

}  // namespace

TEST(ThreadWin32, HasItsStackWhateverTheProgramsDefaultIs) {
    size_t size = 0;
    RunToTheEnd(&StoreStackSize, &size);
    EXPECT_GE(size, size_t{8} << 20);
    EXPECT_LT(size, size_t{9} << 20);
}

TEST(ThreadWin32, BeginsWithoutAnErrorAndLeavesItsCreatorsAlone) {
    int error = -1;
    SetLastError(ERROR_SEEK);
    tova_thread_t thread = TOVA_Thread_Create(&StoreTheErrorItBeginsWith, &error, 0, 0, 0, 0);
    ASSERT_NE(thread, nullptr);
    SetLastError(ERROR_SEEK);
    ASSERT_EQ(TOVA_Thread_Wait(thread), 0);
    EXPECT_EQ(error, 0);
    EXPECT_NE(TOVA_GetSystemLastError(), ERROR_CRC);
}

TEST(ThreadWin32, NamesTheErrorOfASelfJoin) {
    SelfJoin world;
    world.handle = TOVA_Thread_Create(&JoinSelf, &world, 0, 0, 0, 0);
    ASSERT_NE(world.handle, nullptr);
    TOVA_SemPost(&world.handle_is_set.value);
    EXPECT_EQ(TOVA_Thread_Wait(world.handle), 0);
    EXPECT_EQ(world.result, ERROR_POSSIBLE_DEADLOCK);
    EXPECT_EQ(world.error, ERROR_POSSIBLE_DEADLOCK);
}

TEST(ThreadWin32, ThatTheSystemRefusesIsNull) {
    {
        const StandIn<decltype(_beginthreadex)> start("tova.dll", "_beginthreadex", &StartNone);
        EXPECT_EQ(TOVA_Thread_Create(&EndAtOnce, nullptr, 0, 0, 0, 0), nullptr);
        EXPECT_EQ(TOVA_GetSystemLastError(), ERROR_NOT_ENOUGH_QUOTA);
    }
    const StandIn<decltype(_beginthreadex)> start("tova.dll", "_beginthreadex",
                                                  &StartNoneWithoutAReason);
    EXPECT_EQ(TOVA_Thread_Create(&EndAtOnce, nullptr, 0, 0, 0, 0), nullptr);
    EXPECT_NE(TOVA_GetSystemLastError(), 0);
}

TEST(ThreadWin32, AFailingWaitFreesNothing) {
    tova_thread_t thread = TOVA_Thread_Create(&EndAtOnce, nullptr, 0, 0, 0, 0);
    ASSERT_NE(thread, nullptr);
    {
        const StandIn<decltype(WaitForSingleObject)> wait("tova.dll", "WaitForSingleObject",
                                                          &FailToWait);
        EXPECT_EQ(TOVA_Thread_Wait(thread), ERROR_ACCESS_DENIED);
        EXPECT_EQ(TOVA_GetSystemLastError(), ERROR_ACCESS_DENIED);
    }
    EXPECT_EQ(TOVA_Thread_Wait(thread), 0);
}

TEST(ThreadWin32, LeavesNoHandleBehind) {
    RunToTheEnd(&EndAtOnce, nullptr);
    const size_t before = OpenHandles();
    for (int i = 0; i < 10; ++i) RunToTheEnd(&EndAtOnce, nullptr);
    EXPECT_EQ(OpenHandles(), before);
}
