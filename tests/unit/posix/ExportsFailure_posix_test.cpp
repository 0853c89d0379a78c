// The exports where the system gives the library nothing to work with, and where their thread ends
// in the middle of them.
#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "TestPlatform.h"
#include "skrib.h"
#include "support/Child.h"
#include "support/LogCapture.h"
#include "support/Sync.h"
#include "unit/posix/EndsItsThread.h"
#include "vessa/vessa.h"
#include "vessa2/LifeCycle.h"

namespace {

constexpr char kNoMutexAtFirst[] = "TEST_NO_MUTEX_AT_FIRST";

bool mutexes_are_had = false;
thread_local bool slots_fail = false;

}  // namespace

// The library's global objects are made before the program's main begins.
STAND_IN(int, pthread_mutex_init)(pthread_mutex_t* mutex,
                                  const pthread_mutexattr_t* attributes) noexcept {
    static const auto real =
        vessa_test::FunctionBehind<int(pthread_mutex_t*, const pthread_mutexattr_t*)>(
            "pthread_mutex_init");
    if (attributes != nullptr && !mutexes_are_had && std::getenv(kNoMutexAtFirst) != nullptr)
        return ENOMEM;
    return real(mutex, attributes);
}

STAND_IN_C(int, pthread_setspecific)(pthread_key_t key, const void* value) noexcept {
    static const auto real =
        vessa_test::FunctionBehind<int(pthread_key_t, const void*)>("pthread_setspecific");
    return slots_fail ? ENOMEM : real(key, value);
}

namespace vessa_test {
namespace {

// A live object that no module made.
int nobodys = 0;

void RunWithoutGlobalObjects() {
    ChildOptions options = ThisTestAsChild();
    options.environment[kNoMutexAtFirst] = "1";
    const ChildResult result = RunChild(options);
    EXPECT_TRUE(result.Exited(0)) << result;
}

TEST(ExportsWithoutGlobalObjects, RefuseAndDoNoHarm) {
    if (!IsChild()) return RunWithoutGlobalObjects();
    ASSERT_EQ(LifeCycle::Get(), nullptr);
    // The log makes what it needs before.
    mutexes_are_had = true;
    LogCapture log(5);
    VESSA_Uninit();
    mutexes_are_had = false;
    EXPECT_EQ(VESSA_Init(), VESSA_FAILED);
    EXPECT_TRUE(log.Is({"5 run plugin coordinator failed"}));
    void* out = &nobodys;
    EXPECT_EQ(VESSA_CreateInstance("key", &out, nullptr), VESSA_ERR_NOT_REGISTERED);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(VESSA_QueryInterface(&nobodys, "key", &out, nullptr), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(VESSA_DestroyInstance(&nobodys, nullptr), VESSA_ERR_ARGUMENT);
    unsigned int count = 1;
    EXPECT_EQ(VESSA_QueryConfigAttribute("key", "file", nullptr, &count), VESSA_FAILED);
    char** fkeys = nullptr;
    EXPECT_EQ(VESSA_QueryAllFkeys(&fkeys, &count), VESSA_OK);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(VESSA_ReleaseAllFkeys(fkeys, count), VESSA_OK);
    VESSA_Uninit();
    EXPECT_EQ(LifeCycle::Get(), nullptr);
}

TEST(ExportsWithoutGlobalObjects, HaveThemWithTheNextStartThatHasMemory) {
    if (!IsChild()) return RunWithoutGlobalObjects();
    ASSERT_EQ(LifeCycle::Get(), nullptr);
    mutexes_are_had = true;
    LogCapture log(6);
    EXPECT_EQ(VESSA_Init(), VESSA_OK);
    EXPECT_NE(LifeCycle::Get(), nullptr);
    VESSA_Uninit();
}

TEST(ExportsWithoutASlotForTheThread, RefuseForWantOfMemory) {
    LogCapture log(5);
    JoiningThread other([] {
        slots_fail = true;
        const int started = VESSA_Init();
        VESSA_Uninit();
        void* out = &nobodys;
        const int created = VESSA_CreateInstance("key", &out, nullptr);
        void* found = &nobodys;
        const int queried = VESSA_QueryInterface(&nobodys, "key", &found, nullptr);
        const int destroyed = VESSA_DestroyInstance(&nobodys, nullptr);
        slots_fail = false;
        EXPECT_EQ(started, VESSA_FAILED);
        EXPECT_EQ(created, VESSA_ERR_OUT_OF_MEMORY);
        EXPECT_EQ(out, nullptr);
        EXPECT_EQ(queried, VESSA_ERR_OUT_OF_MEMORY);
        EXPECT_EQ(found, nullptr);
        EXPECT_EQ(destroyed, VESSA_ERR_OUT_OF_MEMORY);
    });
    other.Join();
    EXPECT_TRUE(log.Is({"5 run plugin coordinator failed"}));
}

// Ends the thread that logs.
void EndTheThread(void*, const char*, int, const char*, const char*, const char*, int) {
    pthread_exit(nullptr);
}

TEST(ExportsWhoseThreadEndsInTheLogsReceiver, LetItGo) {
    SKRIB_SetThreshold("vessa", SKRIB_LEVEL_TRACE);
    ASSERT_EQ(SKRIB_SetSink(&EndTheThread, nullptr), 0);
    EXPECT_TRUE(EndsItsThread([] { VESSA_Init(); }));
    EXPECT_TRUE(EndsItsThread([] { VESSA_Uninit(); }));
    EXPECT_TRUE(EndsItsThread([] { VESSA_CreateInstance(nullptr, nullptr, nullptr); }));
    EXPECT_TRUE(EndsItsThread([] { VESSA_DestroyInstance(nullptr, nullptr); }));
    EXPECT_TRUE(
        EndsItsThread([] { VESSA_QueryInterface(nullptr, nullptr, nullptr, nullptr); }));
    EXPECT_TRUE(
        EndsItsThread([] { VESSA_QueryConfigAttribute(nullptr, nullptr, nullptr, nullptr); }));
    EXPECT_TRUE(EndsItsThread([] { VESSA_QueryAllFkeys(nullptr, nullptr); }));
    EXPECT_TRUE(EndsItsThread([] { VESSA_ReleaseAllFkeys(nullptr, 0); }));
    EXPECT_EQ(SKRIB_SetSink(nullptr, nullptr), 0);
    SKRIB_SetThreshold("vessa", SKRIB_LEVEL_WARNING);
    EXPECT_TRUE(LifeCycle::Get()->IsQuiet());
}

}  // namespace
}  // namespace vessa_test
