#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "TestPlatform.h"
#include "support/Child.h"
#include "support/Runtime.h"
#include "support/Sync.h"
#include "support/TempDir.h"
#include "tova.h"

namespace vessa_test {
namespace {

class Semaphore {
  public:
    explicit Semaphore(unsigned initial = 0) { TOVA_SemCreate(&native, initial); }
    ~Semaphore() { TOVA_SemDestroy(&native); }
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    tova_sem_t native = nullptr;
};

// A thread that does something each period until it is posted.
class Ticker {
  public:
    explicit Ticker(std::function<void()> round = [] {}) : round_(std::move(round)) {
        thread_ = TOVA_Thread_Create(&Ticker::Run, this, 0, 0, 0, 0);
    }
    ~Ticker() { Stop(); }
    Ticker(const Ticker&) = delete;
    Ticker& operator=(const Ticker&) = delete;

    void Stop() {
        if (thread_ == nullptr) return;
        TOVA_SemPost(&wake_.native);
        EXPECT_EQ(TOVA_Thread_Wait(thread_), 0);
        thread_ = nullptr;
    }
    void Post() { TOVA_SemPost(&wake_.native); }
    // Written by the ticking thread, without a lock: the tick itself has to order it.
    int rounds = 0;
    std::vector<int> errors;

  private:
    static int Run(void* argument) {
        Ticker& self = *static_cast<Ticker*>(argument);
        while (TOVA_SemTimedWait(&self.wake_.native, 30000) != 0) {
            self.errors.push_back(TOVA_GetSystemLastError());
            ++self.rounds;
            self.round_();
        }
        return 0;
    }

    Semaphore wake_;
    std::function<void()> round_;
    tova_thread_t thread_ = nullptr;
};

TEST(RuntimeTest, TicksDriveALongPeriod) {
    Runtime runtime;
    Ticker ticker;
    const std::vector<RuntimeWaiter> waiting = runtime.AwaitWaiters();
    ASSERT_EQ(waiting.size(), 1U);
    EXPECT_EQ(waiting[0].milliseconds, 30000U);
    EXPECT_EQ(waiting[0].waits, 1);
    EXPECT_EQ(ticker.rounds, 0);
    for (int tick = 1; tick <= 100; ++tick) {
        EXPECT_TRUE(runtime.Tick());
        EXPECT_EQ(ticker.rounds, tick);
    }
    EXPECT_EQ(runtime.Waiters()[0].id, waiting[0].id);
    EXPECT_EQ(runtime.Waiters()[0].waits, 101);
    EXPECT_EQ(runtime.Calls(Tova::SemTimedWait), 101);
    ticker.Stop();
    EXPECT_EQ(ticker.rounds, 100);
    EXPECT_TRUE(runtime.Waiters().empty());
}

TEST(RuntimeTest, APostEndsALongWait) {
    Runtime runtime;
    Semaphore sem;
    JoiningThread thread([&] { EXPECT_EQ(TOVA_SemTimedWait(&sem.native, 1000), 0); });
    runtime.AwaitWaiters();
    TOVA_SemPost(&sem.native);
    thread.Join();
    TOVA_SemPost(&sem.native);
    EXPECT_EQ(TOVA_SemTimedWait(&sem.native, 1000), 0);
    EXPECT_NE(TOVA_SemTimedWait(&sem.native, 0), 0);
}

TEST(RuntimeTest, ATickEndsWithAThreadThatEnds) {
    Runtime runtime;
    Semaphore sem;
    std::atomic<bool> timed_out{false};
    JoiningThread thread([&] { timed_out = TOVA_SemTimedWait(&sem.native, 5000) != 0; });
    EXPECT_FALSE(runtime.Tick());
    EXPECT_TRUE(timed_out);
}

TEST(RuntimeTest, ATickEndsWithAThreadOfTheRuntimeThatEnds) {
    Runtime runtime;
    Semaphore sem;
    const auto wait = [](void* argument) {
        return TOVA_SemTimedWait(&static_cast<Semaphore*>(argument)->native, 5000);
    };
    const tova_thread_t thread = TOVA_Thread_Create(wait, &sem, 0, 0, 0, 0);
    EXPECT_FALSE(runtime.Tick());
    EXPECT_EQ(TOVA_Thread_Wait(thread), 0);
}

TEST(RuntimeTest, TellsSeveralWaitersApart) {
    Runtime runtime;
    Ticker first;
    const int first_id = runtime.AwaitWaiters(1)[0].id;
    Ticker second;
    const int second_id = runtime.AwaitWaiters(2)[1].id;
    EXPECT_NE(first_id, second_id);
    EXPECT_TRUE(runtime.Tick());
    EXPECT_EQ(first.rounds, 0);
    EXPECT_EQ(second.rounds, 1);
    EXPECT_TRUE(runtime.Tick(first_id));
    EXPECT_TRUE(runtime.Tick(first_id));
    EXPECT_EQ(first.rounds, 2);
    EXPECT_EQ(second.rounds, 1);
    second.Stop();
    EXPECT_THROW(runtime.Tick(second_id), std::logic_error);
    EXPECT_THROW(runtime.Tick(second_id + 1000), std::logic_error);
    EXPECT_TRUE(runtime.Tick());
    EXPECT_EQ(first.rounds, 3);
}

TEST(RuntimeTest, ATestActsBetweenTheHalvesOfATick) {
    Runtime runtime;
    Gate in_round;
    Gate go_on;
    Ticker ticker([&] {
        in_round.Open();
        go_on.Wait();
    });
    const int waiter = runtime.StartTick();
    in_round.Wait();
    EXPECT_TRUE(runtime.Waiters().empty());
    ticker.Post();
    go_on.Open();
    runtime.AwaitRound(waiter);
    ticker.Stop();
    EXPECT_EQ(ticker.rounds, 1);
}

TEST(RuntimeTest, WaitsGoOnByTheClockWhenItGoesAway) {
    Semaphore sem;
    std::unique_ptr<JoiningThread> thread;
    {
        Runtime runtime;
        thread = std::make_unique<JoiningThread>(
            [&] { EXPECT_EQ(TOVA_SemTimedWait(&sem.native, 25000), 0); });
        runtime.AwaitWaiters();
    }
    EXPECT_FALSE(thread->HasEnded());
    TOVA_SemPost(&sem.native);
    thread->Join();
}

TEST(RuntimeTest, ShortWaitsAreReal) {
    Runtime runtime;
    Semaphore sem;
    EXPECT_NE(TOVA_SemTimedWait(&sem.native, 1), 0);
    EXPECT_TRUE(runtime.Waiters().empty());
}

TEST(RuntimeTest, FailsTheNthCallOnly) {
    TempDir world;
    const std::string file = world.Write("file", "");
    Runtime runtime;
    EXPECT_EQ(TOVA_AccessFile(file.c_str(), 0), 0);
    runtime.FailCall(Tova::AccessFile, 2, kErrorAccess);
    EXPECT_EQ(TOVA_AccessFile(file.c_str(), 0), 0);
    EXPECT_NE(TOVA_AccessFile(file.c_str(), 0), 0);
    EXPECT_EQ(TOVA_GetSystemLastError(), kErrorAccess);
    EXPECT_EQ(TOVA_AccessFile(file.c_str(), 0), 0);
    EXPECT_EQ(runtime.Calls(Tova::AccessFile), 4);
    EXPECT_EQ(runtime.Failed(Tova::AccessFile), 1);
}

TEST(RuntimeTest, FailsAllCallsFromTheNthOn) {
    TempDir world;
    {
        Runtime runtime;
        runtime.FailFrom(Tova::OpenDir, 2);
        void* const folder = TOVA_OpenDir(world.Path().c_str());
        EXPECT_NE(folder, nullptr);
        EXPECT_EQ(TOVA_CloseDir(folder), 0);
        EXPECT_EQ(TOVA_OpenDir(world.Path().c_str()), nullptr);
        EXPECT_EQ(TOVA_OpenDir(world.Path().c_str()), nullptr);
        EXPECT_EQ(runtime.Failed(Tova::OpenDir), 2);
        runtime.StopFailing(Tova::OpenDir);
        void* const again = TOVA_OpenDir(world.Path().c_str());
        EXPECT_NE(again, nullptr);
        EXPECT_EQ(TOVA_CloseDir(again), 0);
        runtime.FailFrom(Tova::OpenDir);
    }
    void* const after = TOVA_OpenDir(world.Path().c_str());
    EXPECT_NE(after, nullptr);
    EXPECT_EQ(TOVA_CloseDir(after), 0);
}

TEST(RuntimeTest, FailedCreationsLeaveNull) {
    Runtime runtime;
    runtime.FailFrom(Tova::MutexCreate);
    runtime.FailFrom(Tova::SemCreate);
    runtime.FailFrom(Tova::Thread_Create);
    tova_shared_t other;
    tova_mutex_t mutex = &other;
    EXPECT_NE(TOVA_MutexCreate(&mutex, 0), 0);
    EXPECT_EQ(mutex, nullptr);
    tova_sem_t sem = &other;
    EXPECT_NE(TOVA_SemCreate(&sem, 0), 0);
    EXPECT_EQ(sem, nullptr);
    EXPECT_EQ(TOVA_Thread_Create([](void*) { return 0; }, nullptr, 0, 0, 0, 0), nullptr);
    EXPECT_THROW(runtime.FailCall(Tova::AtomicAdd), std::logic_error);
}

TEST(RuntimeTest, AFailingLongWaitLastsUntilTheTick) {
    Runtime runtime;
    runtime.FailFrom(Tova::SemTimedWait, 1, kErrorInvalid);
    Ticker ticker;
    runtime.AwaitWaiters();
    EXPECT_EQ(ticker.rounds, 0);
    runtime.Tick();
    runtime.Tick();
    EXPECT_EQ(ticker.rounds, 2);
    EXPECT_EQ(ticker.errors, (std::vector<int>{kErrorInvalid, kErrorInvalid}));
    ticker.Stop();
    EXPECT_EQ(runtime.Failed(Tova::SemTimedWait), 3);
}

TEST(RuntimeTest, HooksSeeTheCallAndMayAnswerIt) {
    Runtime runtime;
    std::vector<std::string> seen;
    int value = 0;
    runtime.Before(Tova::GetDsoSym, [&](RuntimeCall& call) {
        seen.push_back(std::to_string(call.index) + " " + call.text);
        if (std::string(call.text) == "answered") call.ReturnPointer(&value);
        if (std::string(call.text) == "failed") call.Fail(kErrorNotFound);
    });
    int after = 0;
    runtime.After(Tova::GetDsoSym, [&](RuntimeCall&) { ++after; });
    EXPECT_EQ(TOVA_GetDsoSym(nullptr, "answered"), &value);
    EXPECT_EQ(TOVA_GetDsoSym(nullptr, "failed"), nullptr);
    EXPECT_EQ(TOVA_GetSystemLastError(), kErrorNotFound);
    EXPECT_EQ(TOVA_GetDsoSym(nullptr, "real"), nullptr);
    EXPECT_EQ(seen, (std::vector<std::string>{"1 answered", "2 failed", "3 real"}));
    EXPECT_EQ(after, 3);
    EXPECT_EQ(runtime.Failed(Tova::GetDsoSym), 1);
    runtime.Before(Tova::GetDsoSym, nullptr);
    EXPECT_EQ(TOVA_GetDsoSym(nullptr, "answered"), nullptr);
    EXPECT_EQ(seen.size(), 3U);
}

TEST(RuntimeTest, AHookHoldsAThreadBeforeTheCall) {
    Semaphore sem;
    Gate reached;
    Gate go_on;
    Runtime runtime;
    runtime.Before(Tova::SemPost, [&](RuntimeCall& call) {
        EXPECT_EQ(call.object, sem.native);
        reached.Open();
        go_on.Wait();
    });
    JoiningThread thread([&] { TOVA_SemPost(&sem.native); });
    reached.Wait();
    EXPECT_NE(TOVA_SemTimedWait(&sem.native, 0), 0);
    go_on.Open();
    thread.Join();
    EXPECT_EQ(TOVA_SemTimedWait(&sem.native, 0), 0);
}

TEST(RuntimeTest, WhatAHookCallsIsNotHeldOrCounted) {
    Runtime runtime;
    int calls = 0;
    runtime.Before(Tova::Init, [&](RuntimeCall&) {
        ++calls;
        TOVA_Init();
        TOVA_Fini();
    });
    EXPECT_EQ(TOVA_Init(), 0);
    EXPECT_EQ(TOVA_Fini(), 0);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(runtime.Calls(Tova::Init), 1);
    EXPECT_EQ(runtime.Calls(Tova::Fini), 1);
}

TEST(RuntimeTest, TakesACensusOfWhatIsLeft) {
    const RuntimeCensus before = Runtime::Census();
    {
        Semaphore sem;
        RuntimeCensus with_one = before;
        ++with_one.semaphores;
        EXPECT_EQ(Runtime::Census(), with_one);
    }
    EXPECT_EQ(Runtime::Census(), before);
    Runtime runtime;
    runtime.FailCall(Tova::SemCreate);
    tova_sem_t sem = nullptr;
    TOVA_SemCreate(&sem, 0);
    TOVA_SemDestroy(&sem);
    EXPECT_EQ(Runtime::Census(), before);
    const tova_thread_t thread = TOVA_Thread_Create([](void*) { return 0; }, nullptr, 0, 0, 0, 0);
    EXPECT_EQ(Runtime::Census().threads, before.threads + 1);
    TOVA_Thread_Wait(thread);
    EXPECT_EQ(Runtime::Census(), before);
}

TEST(RuntimeTest, AllowsOneAtATime) {
    Runtime runtime;
    EXPECT_THROW(Runtime(), std::logic_error);
}

// A hook's exception would be lost in the library: it has to fail the test by itself.
TEST(RuntimeTest, AThrowingHookFailsTheTest) {
    if (IsChild()) {
        Runtime runtime;
        runtime.Before(Tova::Init, [](RuntimeCall&) { throw std::runtime_error("no good"); });
        EXPECT_EQ(TOVA_Init(), 0);
        TOVA_Fini();
        return;
    }
    const ChildResult result = RunChild(ThisTestAsChild());
    EXPECT_TRUE(result.Exited(1)) << result;
    EXPECT_NE(result.out.find("a hook of TOVA_Init threw no good"), std::string::npos) << result;
}

}  // namespace
}  // namespace vessa_test
