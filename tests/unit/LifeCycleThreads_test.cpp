// Starts and stops that meet one on another thread, from outside and from inside plug-in calls:
// the cells of the life cycle's state table that need two threads.
#include <memory>
#include <string>
#include <vector>

#include "support/ModuleHook.h"
#include "support/Runtime.h"
#include "support/Sync.h"
#include "unit/LifeCycleWorld.h"

namespace vessa_test {
namespace {

// Holds the first thread that enters the operation until Release.
class Hold {
  public:
    Hold(ModuleHook& hook, const std::string& module, const std::string& operation)
        : hook_(hook), module_(module), operation_(operation) {
        hook.On(module, operation, [this](ModuleCall&) {
            inside_.Open();
            released_.Wait();
        });
    }
    ~Hold() { Release(); }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

    void Await() { inside_.Wait(); }
    void Release() {
        released_.Open();
        hook_.Off(module_, operation_);
    }

  private:
    ModuleHook& hook_;
    const std::string module_;
    const std::string operation_;
    Gate inside_;
    Gate released_;
};

class LifeCycleThreads : public LifeCycleTest {
  protected:
    World world;
};

TEST_F(LifeCycleThreads, AStartOutsideWaitsForTheStartOnAnotherThread) {
    world.Add("a");
    ModuleHook hook;
    Hold init(hook, "a", "Init");
    LogCapture log(3);
    JoiningThread first([] { EXPECT_EQ(VESSA_Init(), VESSA_OK); });
    init.Await();
    JoiningThread second([] { EXPECT_EQ(VESSA_Init(), VESSA_OK); });
    log.WaitFor("3 invoke vessa init", 2);
    EXPECT_FALSE(second.HasEnded());
    init.Release();
    first.Join();
    second.Join();
    EXPECT_TRUE(LinesAre(LifeLines(log),
                         {"3 invoke vessa init", "3 invoke vessa init", "3 init vessa succeeded",
                          "3 vessa already init, init counter value 2"}));
    VESSA_Uninit();
    VESSA_Uninit();
}

TEST_F(LifeCycleThreads, AStopOutsideWaitsForTheStartOnAnotherThread) {
    world.Add("a");
    ModuleHook hook;
    Hold init(hook, "a", "Init");
    LogCapture log(3);
    JoiningThread first([] { EXPECT_EQ(VESSA_Init(), VESSA_OK); });
    init.Await();
    JoiningThread second([] { VESSA_Uninit(); });
    log.WaitFor("3 invoke vessa uninit");
    EXPECT_FALSE(second.HasEnded());
    init.Release();
    first.Join();
    second.Join();
    EXPECT_TRUE(LinesAre(LifeLines(log), {"3 invoke vessa init", "3 invoke vessa uninit",
                                          "3 init vessa succeeded", "3 uninit vessa succeeded"}));
    EXPECT_EQ(hook.Count("a", "Uninit"), 1);
}

TEST_F(LifeCycleThreads, AStartOutsideWaitsForTheStopOnAnotherThreadAndStartsAnew) {
    world.Add("a");
    ModuleHook hook;
    ASSERT_EQ(VESSA_Init(), VESSA_OK);
    Hold uninit(hook, "a", "Uninit");
    LogCapture log(3);
    JoiningThread first([] { VESSA_Uninit(); });
    uninit.Await();
    JoiningThread second([] { EXPECT_EQ(VESSA_Init(), VESSA_OK); });
    log.WaitFor("3 invoke vessa init");
    EXPECT_FALSE(second.HasEnded());
    uninit.Release();
    first.Join();
    second.Join();
    EXPECT_TRUE(LinesAre(LifeLines(log), {"3 invoke vessa uninit", "3 invoke vessa init",
                                          "3 uninit vessa succeeded", "3 init vessa succeeded"}));
    Destroy(Create("a"));
    VESSA_Uninit();
}

TEST_F(LifeCycleThreads, AStopOutsideWaitsForTheStopOnAnotherThreadAndFindsNothingStarted) {
    world.Add("a");
    ModuleHook hook;
    ASSERT_EQ(VESSA_Init(), VESSA_OK);
    Hold uninit(hook, "a", "Uninit");
    LogCapture log(3);
    JoiningThread first([] { VESSA_Uninit(); });
    uninit.Await();
    JoiningThread second([] { VESSA_Uninit(); });
    log.WaitFor("3 invoke vessa uninit", 2);
    EXPECT_FALSE(second.HasEnded());
    uninit.Release();
    first.Join();
    second.Join();
    EXPECT_TRUE(LinesAre(LifeLines(log), {"3 invoke vessa uninit", "3 invoke vessa uninit",
                                          "3 uninit vessa succeeded", "4 vessa not init yet"}));
}

// "a" is registered before "b", whose Init holds the start; a plug-in call into "a" counts.
class DuringAStart : public LifeCycleThreads {
  protected:
    void SetUp() override {
        LifeCycleThreads::SetUp();
        world.AddDelayed("a");
        world.Add("b");
    }
};

TEST_F(DuringAStart, APluginCallOnAnotherThreadCountsWithoutWaiting) {
    ModuleHook hook;
    Hold init(hook, "b", "Init");
    LogCapture log(3);
    JoiningThread starter([] { EXPECT_EQ(VESSA_Init(), VESSA_OK); });
    init.Await();
    hook.On("a", "CreateInstance_V2", [](ModuleCall&) {
        EXPECT_EQ(VESSA_Init(), VESSA_OK);
        EXPECT_EQ(VESSA_Init(), VESSA_OK);
        VESSA_Uninit();
    });
    void* const instance = Create("a");
    init.Release();
    starter.Join();
    EXPECT_TRUE(
        LinesAre(LifeLines(log),
                 {"3 invoke vessa init", "3 invoke vessa init",
                  "3 vessa already init, init counter value 1", "3 invoke vessa init",
                  "3 vessa already init, init counter value 2", "3 invoke vessa uninit",
                  "3 need not uninit vessa yet, init counter value 1", "3 init vessa succeeded"}));
    Destroy(instance);
    // Two users: the plug-in call's and the start's own.
    log.Clear();
    VESSA_Uninit();
    EXPECT_TRUE(LinesAre(LifeLines(log), {"3 invoke vessa uninit",
                                          "3 need not uninit vessa yet, init counter value 1"}));
    VESSA_Uninit();
}

TEST_F(DuringAStart, APluginCallThatTakesItsOwnUserBackDoesNotStopTheLibrary) {
    ModuleHook hook;
    Hold init(hook, "b", "Init");
    LogCapture log(3);
    JoiningThread starter([] { EXPECT_EQ(VESSA_Init(), VESSA_OK); });
    init.Await();
    hook.On("a", "CreateInstance_V2", [](ModuleCall&) {
        EXPECT_EQ(VESSA_Init(), VESSA_OK);
        VESSA_Uninit();
        VESSA_Uninit();
    });
    void* const instance = Create("a");
    init.Release();
    starter.Join();
    EXPECT_TRUE(LinesAre(LifeLines(log), {"3 invoke vessa init", "3 invoke vessa init",
                                          "3 vessa already init, init counter value 1",
                                          "3 invoke vessa uninit", "3 invoke vessa uninit",
                                          "4 vessa not init yet", "3 init vessa succeeded"}));
    Destroy(instance);
    VESSA_Uninit();
    EXPECT_EQ(hook.Count("b", "Uninit"), 1);
}

TEST_F(DuringAStart, TheUsersCountedMeanwhileAreLostWithAFailingStart) {
    Runtime runtime;
    ModuleHook hook;
    Hold init(hook, "b", "Init");
    runtime.FailCall(Tova::Thread_Create);
    JoiningThread starter([] { EXPECT_EQ(VESSA_Init(), VESSA_FAILED); });
    init.Await();
    hook.On("a", "CreateInstance_V2", [](ModuleCall&) { EXPECT_EQ(VESSA_Init(), VESSA_OK); });
    void* const instance = Create("a");
    init.Release();
    starter.Join();
    LogCapture log(3);
    VESSA_Uninit();
    EXPECT_TRUE(LinesAre(LifeLines(log), {"3 invoke vessa uninit", "4 vessa not init yet"}));
    Destroy(instance);
    ASSERT_EQ(VESSA_Init(), VESSA_OK);
    VESSA_Uninit();
}

// "b"'s Uninit holds the stop; an instance of "keep" outlives it and lets plug-in calls in.
class DuringAStop : public LifeCycleThreads {
  protected:
    void SetUp() override {
        LifeCycleThreads::SetUp();
        world.Add("b");
        world.AddDelayed("keep");
        ASSERT_EQ(VESSA_Init(), VESSA_OK);
        keep = Create("keep");
    }
    void QueryKeep() {
        void* found = nullptr;
        EXPECT_EQ(VESSA_QueryInterface(keep, "iface", &found, nullptr), VESSA_OK);
    }
    void* keep = nullptr;
};

TEST_F(DuringAStop, APluginCallOnAnotherThreadIsRefusedWithoutWaiting) {
    ModuleHook hook;
    Hold uninit(hook, "b", "Uninit");
    LogCapture log(3);
    JoiningThread stopper([] { VESSA_Uninit(); });
    uninit.Await();
    hook.On("keep", "QueryInterface", [](ModuleCall&) {
        EXPECT_EQ(VESSA_Init(), VESSA_FAILED);
        VESSA_Uninit();
    });
    QueryKeep();
    EXPECT_FALSE(stopper.HasEnded());
    uninit.Release();
    stopper.Join();
    EXPECT_TRUE(
        LinesAre(LifeLines(log),
                 {"3 invoke vessa uninit", "3 invoke vessa init", "5 run plugin coordinator failed",
                  "3 invoke vessa uninit", "4 vessa not init yet", "3 uninit vessa succeeded"}));
    Destroy(keep);
}

TEST_F(DuringAStop, APluginCallStartsAgainOnceTheStopIsOver) {
    ModuleHook hook;
    LogCapture log(3);
    VESSA_Uninit();
    hook.On("keep", "QueryInterface", [](ModuleCall&) { EXPECT_EQ(VESSA_Init(), VESSA_OK); });
    QueryKeep();
    EXPECT_TRUE(LinesAre(LifeLines(log), {"3 invoke vessa uninit", "3 uninit vessa succeeded",
                                          "3 invoke vessa init", "3 init vessa succeeded"}));
    Destroy(Create("b"));
    Destroy(keep);
    VESSA_Uninit();
}

TEST_F(DuringAStop, APluginCallThatReadsTheRegistryCannotStartTheStoppedLibrary) {
    ModuleHook hook;
    VESSA_Uninit();
    LogCapture log(3);
    hook.On("keep", "Uninit", [](ModuleCall&) {
        EXPECT_EQ(VESSA_Init(), VESSA_FAILED);
        VESSA_Uninit();
    });
    Destroy(keep);
    EXPECT_EQ(hook.Count("keep", "Uninit"), 1);
    EXPECT_TRUE(LinesAre(LifeLines(log), {"3 invoke vessa init", "5 run plugin coordinator failed",
                                          "3 invoke vessa uninit", "4 vessa not init yet"}));
    ASSERT_EQ(VESSA_Init(), VESSA_OK);
    VESSA_Uninit();
}

TEST_F(DuringAStop, AStopPutOffByAPluginCallIsDroppedWhenAnotherThreadStartsAgain) {
    ModuleHook hook;
    Gate counted_down;
    Gate started_again;
    LogCapture log(3);
    hook.On("keep", "QueryInterface", [&](ModuleCall&) {
        VESSA_Uninit();
        counted_down.Open();
        started_again.Wait();
    });
    JoiningThread caller([this] { QueryKeep(); });
    counted_down.Wait();
    EXPECT_EQ(VESSA_Init(), VESSA_OK);
    started_again.Open();
    caller.Join();
    // It ran all the time.
    EXPECT_TRUE(LinesAre(LifeLines(log, true),
                         {"3 invoke vessa uninit", "3 invoke vessa init", "3 invode Run func",
                          "4 already run", "3 init vessa succeeded"}));
    hook.Off("keep", "QueryInterface");
    Destroy(keep);
    VESSA_Uninit();
}

TEST_F(DuringAStop, AnotherThreadFindsNoUserWhileAPutOffStopIsDue) {
    ModuleHook hook;
    Gate counted_down;
    Gate looked;
    LogCapture log(3);
    hook.On("keep", "QueryInterface", [&](ModuleCall&) {
        VESSA_Uninit();
        counted_down.Open();
        looked.Wait();
    });
    JoiningThread caller([this] { QueryKeep(); });
    counted_down.Wait();
    VESSA_Uninit();
    looked.Open();
    caller.Join();
    EXPECT_TRUE(LinesAre(LifeLines(log), {"3 invoke vessa uninit", "3 invoke vessa uninit",
                                          "4 vessa not init yet", "3 uninit vessa succeeded"}));
    hook.Off("keep", "QueryInterface");
    Destroy(keep);
}

TEST_F(DuringAStop, TheLastOfTwoPutOffStopsCarriesItOutOnce) {
    ModuleHook hook;
    Barrier both_inside(2);
    Barrier both_counted(2);
    ASSERT_EQ(VESSA_Init(), VESSA_OK);
    hook.On("keep", "QueryInterface", [&](ModuleCall&) {
        both_inside.ArriveAndWait();
        VESSA_Uninit();
        both_counted.ArriveAndWait();
    });
    LogCapture log(3);
    JoiningThread one([this] { QueryKeep(); });
    JoiningThread two([this] { QueryKeep(); });
    one.Join();
    two.Join();
    EXPECT_EQ(log.Count("3 uninit vessa succeeded"), 1);
    EXPECT_EQ(log.Count("3 need not uninit vessa yet, init counter value 1"), 1);
    EXPECT_EQ(hook.Count("b", "Uninit"), 1);
    hook.Off("keep", "QueryInterface");
    Destroy(keep);
}

TEST_F(LifeCycleThreads, TheScanIsJoinedAndItsRegistrationsAreGivenUpByAStopMeanwhile) {
    Runtime runtime;
    world.Add("a");
    ModuleHook hook;
    ASSERT_EQ(VESSA_Init(), VESSA_OK);
    world.Add("late");
    // The scanning thread is held when it has found the new list file; the stop gets as far as
    // its wait for that thread.
    Gate scanning;
    Gate stopping;
    LogCapture log(1);
    log.OnLine("1 config file changed begin", [&] {
        scanning.Open();
        stopping.Wait();
    });
    runtime.Before(Tova::Thread_Wait, [&](RuntimeCall&) { stopping.Open(); });
    runtime.StartTick();
    scanning.Wait();
    VESSA_Uninit();
    EXPECT_TRUE(log.Contains("3 plugin coordinator already shutdown, config change igored"));
    EXPECT_TRUE(log.Contains("3 uninit vessa succeeded"));
    EXPECT_EQ(hook.Count("late", "Init"), 0);
    EXPECT_EQ(hook.Count("a", "Uninit"), 1);
}

TEST_F(LifeCycleThreads, ManyThreadsStartAndStopAtOnce) {
    world.Add("a");
    constexpr int kThreads = 4;
    constexpr int kRounds = 50;
    Barrier together(kThreads);
    {
        std::vector<std::unique_ptr<JoiningThread>> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.push_back(std::make_unique<JoiningThread>([&] {
                together.ArriveAndWait();
                for (int round = 0; round < kRounds; ++round) {
                    EXPECT_EQ(VESSA_Init(), VESSA_OK);
                    Destroy(Create("a"));
                    VESSA_Uninit();
                }
            }));
        }
    }
    LogCapture log(3);
    VESSA_Uninit();
    EXPECT_TRUE(log.Contains("4 vessa not init yet"));
}

}  // namespace
}  // namespace vessa_test
