// The end of a process: the system has ended every other thread, whatever they held, when the
// libraries hear of it.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "../Support.h"
#include "Imports.h"
#include "System.h"
#include "support/Child.h"

using tova_test::Mutex;
using tova_test::Sem;
using tova_test::StandIn;
using vessa_test::ChildResult;
using vessa_test::IsChild;
using vessa_test::RunChild;
using vessa_test::ThisTestAsChild;

namespace {

using AtEnd = void (*)(void (*)(int process_ends));

// What the thread does not let go.
struct Held {
    Mutex mutex;
    Sem is_held;
    Sem never;
};

Held& TheHeld() {
    static Held* const held = new Held;  // Nothing destroys it before the end.
    return *held;
}

int HoldForEver(void*) {
    TOVA_MutexLock(&TheHeld().mutex.value);
    TOVA_SemPost(&TheHeld().is_held.value);
    return TOVA_SemWait(&TheHeld().never.value);
}

int Pass(void*) {
    TOVA_MutexLock(&TheHeld().mutex.value);
    TOVA_MutexUnlock(&TheHeld().mutex.value);
    return 0;
}

tova_thread_t g_thread = nullptr;

void Say(const std::string& text) {
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), text.data(), static_cast<DWORD>(text.size()),
              &written, nullptr);
}

// Some systems let it through at the end of a process, some end the process there and then.
void WINAPI TellOfEntering(CRITICAL_SECTION*) {
    Say("[waits for the mutex]");
}

void LockAndUnlock(int process_ends) {
    const StandIn<decltype(EnterCriticalSection)> enter("tova.dll", "EnterCriticalSection",
                                                        &TellOfEntering);
    tova_mutex_t& mutex = TheHeld().mutex.value;
    const int locked = TOVA_MutexLock(&mutex);
    const int again = TOVA_MutexLock(&mutex);
    const int unlocked = TOVA_MutexUnlock(&mutex);
    const int once_more = TOVA_MutexUnlock(&mutex);
    Say("[" + std::to_string(process_ends) + std::to_string(locked) + std::to_string(again) +
        std::to_string(unlocked) + std::to_string(once_more) + "]");
}

void WaitForTheThread(int) {
    Say("[" + std::to_string(TOVA_Thread_Wait(g_thread)) + "]");
}

void PollAndList(int) {
    Sem sem(1);
    const int taken = TOVA_SemTimedWait(&sem.value, 0);
    const int posted = TOVA_SemPost(&sem.value);
    Say("[" + std::to_string(taken) + std::to_string(posted) + tova_test::List("/").front().name +
        "]");
}

// In a child: the function is called by a module's end, while a thread holds the mutex.
void EndWhileItIsHeld(void (*at_end)(int), void (*end)()) {
    void* const dso = TOVA_LoadDSo(AT_END_MODULE);
    ASSERT_NE(dso, nullptr);
    reinterpret_cast<AtEnd>(TOVA_GetDsoSym(dso, "module_at_end"))(at_end);
    g_thread = TOVA_Thread_Create(&HoldForEver, nullptr, 0, 0, 0, 0);
    ASSERT_NE(g_thread, nullptr);
    ASSERT_EQ(TOVA_SemWait(&TheHeld().is_held.value), 0);
    end();
}

void ExitProcessWith7() {
    ExitProcess(7);
}

void ReturnWith7() {
    std::exit(7);
}

void ExpectAtEnd(const char* said) {
    const ChildResult result = RunChild(ThisTestAsChild());
    EXPECT_TRUE(result.Exited(7)) << result;
    EXPECT_NE(result.out.find(said), std::string::npos) << result;
    EXPECT_EQ(result.out.find("[waits"), std::string::npos) << result;
}

}  // namespace

TEST(ProcessEndWin32, AMutexOfAThreadThatIsGoneLetsThrough) {
    if (IsChild()) return EndWhileItIsHeld(&LockAndUnlock, &ExitProcessWith7);
    ExpectAtEnd("[10000]");
}

TEST(ProcessEndWin32, AMutexOfAThreadThatIsGoneLetsThroughAfterExit) {
    if (IsChild()) return EndWhileItIsHeld(&LockAndUnlock, &ReturnWith7);
    ExpectAtEnd("[10000]");
}

TEST(ProcessEndWin32, AThreadThatIsGoneCanBeWaitedFor) {
    if (IsChild()) return EndWhileItIsHeld(&WaitForTheThread, &ExitProcessWith7);
    ExpectAtEnd("[0]");
}

TEST(ProcessEndWin32, SemaphoresAndListingsWorkToTheEnd) {
    if (IsChild()) return EndWhileItIsHeld(&PollAndList, &ExitProcessWith7);
    ExpectAtEnd("[00.]");
}

// While the process lives nobody gets through, also not in a module's end.
TEST(ProcessEndWin32, AMutexKeepsOthersOutUntilThen) {
    ASSERT_EQ(TOVA_MutexLock(&TheHeld().mutex.value), 0);
    tova_thread_t thread = TOVA_Thread_Create(&Pass, nullptr, 0, 0, 0, 0);
    ASSERT_NE(thread, nullptr);
    void* const dso = TOVA_LoadDSo(AT_END_MODULE);
    ASSERT_NE(dso, nullptr);
    static int unlocked = -1;
    reinterpret_cast<AtEnd>(TOVA_GetDsoSym(dso, "module_at_end"))([](int process_ends) {
        EXPECT_EQ(process_ends, 0);
        tova_mutex_t not_mine = TheHeld().mutex.value;
        unlocked = TOVA_MutexUnlock(&not_mine);
    });
    EXPECT_EQ(TOVA_UnloadDSo(dso), 0);
    EXPECT_EQ(unlocked, 0);
    EXPECT_EQ(TOVA_Thread_Wait(thread), 0);
}
