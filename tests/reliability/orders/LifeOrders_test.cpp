// Orders of starts, stops, rounds of changes and the calls that meet them, through the exports.
#include <atomic>

#include "reliability/orders/Order.h"
#include "reliability/orders/OrderModules.h"
#include "support/Runtime.h"
#include "unit/LifeCycleWorld.h"

namespace vessa_test {
namespace {

// "a" is loaded with the start. T is the scanning thread, which looks for changes at a tick.
class LifeOrders : public LifeCycleTest {
  protected:
    void SetUp() override {
        LifeCycleTest::SetUp();
        world.Add("a");
    }
    void TearDown() override {
        EXPECT_FALSE(LifeCycle::Get()->coordinator().IsRunning());
        EXPECT_EQ(Inits("a"), Uninits("a"));
        EXPECT_EQ(modules.Count("Load a"), modules.Count("Unload a"));
        EXPECT_TRUE(runtime.Waiters().empty());
        LifeCycleTest::TearDown();
    }

    static void Start() { EXPECT_EQ(VESSA_Init(), VESSA_OK); }
    static OrderThread Starts(const char* name) { return {name, Start}; }
    static OrderThread Stops(const char* name) { return {name, VESSA_Uninit}; }
    static OrderThread Scanner() { return {"T", nullptr}; }
    OrderThread Ticks() {
        return {"tick", [this] { runtime.StartTick(); }};
    }
    static OrderThread Creates(const char* name, void*& instance, const char* fkey = "a") {
        return {name, [&instance, fkey] { instance = Create(fkey); }};
    }
    static OrderThread Destroys(const char* name, void* instance) {
        return {name, [instance] { Destroy(instance); }};
    }

    static bool IsRunning() { return LifeCycle::Get()->coordinator().IsRunning(); }
    int Inits(const std::string& name) { return modules.Count("Init " + name); }
    int Uninits(const std::string& name) { return modules.Count("Uninit " + name); }

    World world;
    Runtime runtime;
    OrderModules modules;
};

// ---- Starts and stops outside of plug-in calls.

TEST_F(LifeOrders, ASecondStartWaitsForTheFirstAndIsCounted) {
    EXPECT_TRUE(CarriedOut({Starts("A"), Starts("B")},
                           {"A:coordinator.run.says_so", "B:life.global.asks", "B:blocks",
                            "A:in.Init", "B:blocks", "A:ends", "B:ends"}));
    EXPECT_EQ(Inits("a"), 1);
    VESSA_Uninit();
    EXPECT_TRUE(IsRunning());
    VESSA_Uninit();
}

TEST_F(LifeOrders, AStartAfterOneThatFailedStartsFromTheBeginning) {
    runtime.FailCall(Tova::Thread_Create);
    int failed = VESSA_OK;
    EXPECT_TRUE(
        CarriedOut({{"A", [&] { failed = VESSA_Init(); }}, Starts("B")},
                   {"A:life.start.failed", "B:life.global.asks", "B:blocks", "A:ends", "B:ends"}));
    EXPECT_EQ(failed, VESSA_FAILED);
    EXPECT_TRUE(IsRunning());
    VESSA_Uninit();
}

TEST_F(LifeOrders, AStartWaitsForTheStopAndStartsAgain) {
    Start();
    EXPECT_TRUE(
        CarriedOut({Stops("A"), Starts("B")},
                   {"A:life.stop.is_claimed", "B:life.global.asks", "B:blocks", "A:in.Uninit",
                    "B:blocks", "A:life.stop.is_over", "B:blocks", "A:ends", "B:ends"}));
    EXPECT_TRUE(IsRunning());
    EXPECT_EQ(Inits("a"), 2);
    VESSA_Uninit();
}

TEST_F(LifeOrders, AStopWaitsForTheStartAndStops) {
    EXPECT_TRUE(CarriedOut({Starts("A"), Stops("B")}, {"A:life.start.runs", "B:life.global.asks",
                                                       "B:blocks", "A:ends", "B:ends"}));
    EXPECT_EQ(Inits("a"), 1);
}

TEST_F(LifeOrders, OfTwoLastStopsOneStops) {
    Start();
    EXPECT_TRUE(CarriedOut(
        {Stops("A"), Stops("B")},
        {"A:life.stop.is_claimed", "B:life.global.asks", "B:blocks", "A:ends", "B:ends"}));
    EXPECT_EQ(Passes("B", "life.stop.is_claimed"), 0);
}

// ---- A stop and the calls of other threads.

TEST_F(LifeOrders, AnInstanceThatIsMadeDuringTheStopOutlivesIt) {
    Start();
    void* instance = nullptr;
    EXPECT_TRUE(CarriedOut({Stops("A"), Creates("B", instance)},
                           {"A:coordinator.shutdown.says_so", "B:create.record.found",
                            "A:gate.writer.sleeps", "A:blocks", "B:ends", "A:ends"}));
    EXPECT_EQ(Uninits("a"), 0);
    Destroy(instance);
    EXPECT_EQ(Uninits("a"), 1);
}

TEST_F(LifeOrders, ACreateDuringTheUninitOfTheStopIsRefused) {
    Start();
    void* instance = nullptr;
    int result = VESSA_OK;
    EXPECT_TRUE(CarriedOut(
        {Stops("A"), {"B", [&] { result = VESSA_CreateInstance("a", &instance, nullptr); }}},
        {"A:in.Uninit", "B:ends", "A:ends"}));
    EXPECT_EQ(result, VESSA_ERR_NOT_REGISTERED);
}

TEST_F(LifeOrders, ADestroyDuringTheStopLeavesNothing) {
    Start();
    void* const instance = Create("a");
    EXPECT_TRUE(CarriedOut({Stops("A"), Destroys("B", instance)},
                           {"B:record.instance.destroyed", "A:registry.unregister.puts_off",
                            "B:destroy.record.is_due", "A:ends", "B:ends"}));
    EXPECT_EQ(Uninits("a"), 1);
}

TEST_F(LifeOrders, AStartBeforeAnUnloadThatIsDueKeepsTheModule) {
    Start();
    void* const instance = Create("a");
    VESSA_Uninit();
    EXPECT_TRUE(CarriedOut({Destroys("A", instance), Starts("B")},
                           {"A:destroy.record.is_due", "B:ends", "A:ends"}));
    EXPECT_EQ(Uninits("a"), 0);
    Destroy(Create("a"));
    VESSA_Uninit();
    EXPECT_EQ(Inits("a"), 1);
}

TEST_F(LifeOrders, AttributesAreThereUntilTheLastModuleIsUnloaded) {
    Start();
    char value[16] = "";
    unsigned int size = sizeof value;
    const auto query = [&] {
        EXPECT_EQ(VESSA_QueryConfigAttribute("a", "fkey", value, &size), VESSA_OK);
    };
    EXPECT_TRUE(CarriedOut({Stops("A"), {"B", query}},
                           {"A:coordinator.shutdown.unregistered", "B:ends", "A:ends"}));
    EXPECT_STREQ(value, "a");
}

// ---- Rounds of changes.

TEST_F(LifeOrders, AStopBeforeARoundHasTheMutexDropsTheRound) {
    Start();
    world.Add("b");
    EXPECT_TRUE(CarriedOut(
        {Ticks(), Scanner(), Stops("A")},
        {"tick:ends", "T:coordinator.round.asks", "A:coordinator.shutdown.says_so",
         "A:timer.thread.joins", "A:blocks", "T:coordinator.round.has_mutex", "T:goes", "A:ends"}));
    EXPECT_EQ(Passes("T", "coordinator.round.done"), 0);
    EXPECT_EQ(Inits("b"), 0);
}

TEST_F(LifeOrders, AStopWaitsForARoundThatHasTheMutex) {
    Start();
    world.Add("b");
    EXPECT_TRUE(CarriedOut(
        {Ticks(), Scanner(), Stops("A")},
        {"tick:ends", "T:coordinator.round.has_mutex", "A:coordinator.shutdown.has_run_mutex",
         "A:blocks", "T:in.Init", "A:blocks", "T:coordinator.round.done", "T:goes", "A:ends"}));
    EXPECT_EQ(Inits("b"), 1);
    EXPECT_EQ(Uninits("b"), 1);
}

TEST_F(LifeOrders, AStopUnregistersWhatTheRoundRegisteredLast) {
    Start();
    world.Add("b");
    EXPECT_TRUE(CarriedOut(
        {Ticks(), Scanner(), Stops("A")},
        {"tick:ends", "T:coordinator.item.registered", "A:coordinator.shutdown.has_run_mutex",
         "A:blocks", "T:coordinator.round.done", "T:goes", "A:ends"}));
    EXPECT_EQ(Inits("b"), 1);
    EXPECT_EQ(Uninits("b"), 1);
}

TEST_F(LifeOrders, ACreateFindsWhatTheRoundHasNotMarkedAsRegisteredYet) {
    Start();
    world.Add("b");
    void* instance = nullptr;
    EXPECT_TRUE(CarriedOut({Ticks(), Scanner(), Creates("B", instance, "b")},
                           {"tick:ends", "T:coordinator.item.registered", "B:ends", "T:goes"}));
    Destroy(instance);
    VESSA_Uninit();
    EXPECT_EQ(Uninits("b"), 1);
}

TEST_F(LifeOrders, ARoundWaitsForAQueryThatLooksAttributesUp) {
    Start();
    world.Add("b");
    char value[16] = "";
    unsigned int size = sizeof value;
    const auto query = [&] {
        EXPECT_EQ(VESSA_QueryConfigAttribute("a", "fkey", value, &size), VESSA_OK);
    };
    EXPECT_TRUE(
        CarriedOut({Ticks(), Scanner(), {"B", query}},
                   {"B:coordinator.query.has_mutex", "tick:ends", "T:coordinator.round.begins",
                    "T:blocks", "B:ends", "T:coordinator.round.done", "T:goes"}));
    EXPECT_STREQ(value, "a");
    VESSA_Uninit();
    EXPECT_EQ(Inits("b"), 1);
}

TEST_F(LifeOrders, ACreateBetweenTheEndOfTheScansAndTheUnregistrationsWorks) {
    Start();
    void* instance = nullptr;
    EXPECT_TRUE(CarriedOut({Stops("A"), Creates("B", instance)},
                           {"A:coordinator.shutdown.stopped", "B:ends", "A:ends"}));
    EXPECT_EQ(Uninits("a"), 0);
    Destroy(instance);
}

TEST_F(LifeOrders, AStopEndsAScan) {
    Start();
    world.Add("b");
    EXPECT_TRUE(CarriedOut({Ticks(), Scanner(), Stops("A")},
                           {"tick:ends", "T:monitor.scan.begins", "A:timer.thread.joins",
                            "A:blocks", "T:timer.round.ended", "T:goes", "A:ends"}));
    EXPECT_EQ(Passes("T", "monitor.changes.are_told"), 0);
}

TEST_F(LifeOrders, AStopBeforeChangesAreTakenDropsThem) {
    Start();
    world.Add("b");
    EXPECT_TRUE(CarriedOut({Ticks(), Scanner(), Stops("A")},
                           {"tick:ends", "T:monitor.changes.are_told", "A:timer.thread.joins",
                            "A:blocks", "T:timer.round.ended", "T:goes", "A:ends"}));
    EXPECT_EQ(Passes("T", "coordinator.round.begins"), 0);
}

TEST_F(LifeOrders, ARoundThatUnregistersWaitsForACreateInTheModule) {
    world.AddDelayed("b");
    Start();
    world.Remove("b");
    void* instance = nullptr;
    EXPECT_TRUE(CarriedOut({Ticks(), Scanner(), Creates("B", instance, "b")},
                           {"B:in.CreateInstance", "tick:ends", "T:gate.writer.sleeps", "T:blocks",
                            "B:ends", "T:coordinator.round.done", "T:goes"}));
    EXPECT_EQ(Uninits("b"), 0);
    Destroy(instance);
    EXPECT_EQ(Uninits("b"), 1);
    VESSA_Uninit();
}

TEST_F(LifeOrders, ACreateDoesNotWaitForARound) {
    Start();
    world.Add("b");
    void* instance = nullptr;
    EXPECT_TRUE(CarriedOut({Ticks(), Scanner(), Creates("B", instance)},
                           {"tick:ends", "T:in.Init", "B:ends", "T:goes"}));
    Destroy(instance);
    VESSA_Uninit();
    EXPECT_EQ(Inits("b"), 1);
}

TEST_F(LifeOrders, AModulesQueryForItsAttributesDoesNotWaitForARound) {
    Start();
    world.Add("b");
    char value[16] = "";
    unsigned int size = sizeof value;
    modules.On("a", "CreateInstance", [&](void*) {
        EXPECT_EQ(VESSA_QueryConfigAttribute("b", "fkey", value, &size), VESSA_OK);
    });
    void* instance = nullptr;
    EXPECT_TRUE(CarriedOut({Ticks(), Scanner(), Creates("B", instance)},
                           {"tick:ends", "T:coordinator.round.has_mutex", "B:ends", "T:goes"}));
    EXPECT_STREQ(value, "b");
    Destroy(instance);
    VESSA_Uninit();
}

// ---- The end of the process, as its exit action sees it.

TEST_F(LifeOrders, TheEndOfTheProcessWaitsForTheRoundThatIsUnderWay) {
    Start();
    world.Add("b");
    const OrderThread leaves = {"A", [] { LifeCycle::Get()->LeaveProcess(); }};
    EXPECT_TRUE(CarriedOut({Ticks(), Scanner(), leaves},
                           {"tick:ends", "T:in.Init", "A:blocks", "T:coordinator.round.done",
                            "A:blocks", "T:goes", "A:ends"}));
    EXPECT_TRUE(runtime.Waiters().empty());
    VESSA_Uninit();
    EXPECT_EQ(Uninits("b"), 1);
}

TEST_F(LifeOrders, TheEndOfTheProcessDoesNotWaitForAStop) {
    Start();
    const OrderThread leaves = {"A", [] { LifeCycle::Get()->LeaveProcess(); }};
    EXPECT_TRUE(CarriedOut({Stops("B"), leaves}, {"B:in.Uninit", "A:ends", "B:ends"}));
}

TEST_F(LifeOrders, TheEndOfTheProcessDoesNotWaitForAStart) {
    const OrderThread leaves = {"A", [] { LifeCycle::Get()->LeaveProcess(); }};
    EXPECT_TRUE(CarriedOut({Starts("B"), leaves}, {"B:in.Init", "A:ends", "B:ends"}));
    VESSA_Uninit();
}

// ---- Starts and stops from inside plug-in calls.

class InnerLifeOrders : public LifeOrders {
  protected:
    // What a module does in each create of "a".
    void InCreate(std::function<void()> work) {
        modules.On("a", "CreateInstance", [work](void*) { work(); });
    }
    void StopInCreate() {
        InCreate([] {
            VESSA_Uninit();
            At("test.stop.put_off");
        });
    }
    void* instance = nullptr;
};

TEST_F(InnerLifeOrders, AStartBeforeThePutOffStopDropsIt) {
    Start();
    StopInCreate();
    EXPECT_TRUE(CarriedOut({Creates("A", instance), Starts("B")},
                           {"A:test.stop.put_off", "B:ends", "A:ends"}));
    EXPECT_TRUE(IsRunning());
    EXPECT_EQ(Inits("a"), 1);
    Destroy(instance);
    VESSA_Uninit();
}

TEST_F(InnerLifeOrders, AStartThatIsUnderWayDropsThePutOffStop) {
    Start();
    StopInCreate();
    EXPECT_TRUE(CarriedOut({Creates("A", instance), Starts("B")},
                           {"A:life.stop.is_due", "B:life.start.is_claimed", "A:ends", "B:ends"}));
    EXPECT_EQ(Passes("A", "life.stop.is_claimed"), 0);
    EXPECT_TRUE(IsRunning());
    Destroy(instance);
    VESSA_Uninit();
}

TEST_F(InnerLifeOrders, AStartWaitsForThePutOffStopAndStartsAgain) {
    Start();
    StopInCreate();
    EXPECT_TRUE(
        CarriedOut({Creates("A", instance), Starts("B")},
                   {"A:life.stop.is_claimed", "B:life.phase.waits", "B:goes", "A:ends", "B:ends"}));
    EXPECT_TRUE(IsRunning());
    EXPECT_EQ(Inits("a"), 1);
    Destroy(instance);
    VESSA_Uninit();
}

TEST_F(InnerLifeOrders, APutOffStopAfterAnothersStartAndStopDoesNothing) {
    Start();
    StopInCreate();
    EXPECT_TRUE(CarriedOut({Creates("A", instance),
                            {"B",
                             [] {
                                 Start();
                                 VESSA_Uninit();
                             }}},
                           {"A:life.stop.is_due", "B:ends", "A:ends"}));
    EXPECT_EQ(Passes("A", "life.stop.is_claimed"), 0);
    Destroy(instance);
}

TEST_F(InnerLifeOrders, AStartAfterThePutOffStopDoesNotNeedToBeTold) {
    Start();
    StopInCreate();
    EXPECT_TRUE(CarriedOut({Creates("A", instance), Starts("B")},
                           {"A:life.phase.is_idle", "B:ends", "A:ends"}));
    EXPECT_TRUE(IsRunning());
    EXPECT_EQ(Passes("A", "life.stop.is_claimed"), 1);
    Destroy(instance);
    VESSA_Uninit();
}

TEST_F(InnerLifeOrders, AStartFromAModuleDuringAStopIsRefused) {
    Start();
    std::atomic<int> inner{VESSA_OK};
    InCreate([&] { inner = VESSA_Init(); });
    EXPECT_TRUE(
        CarriedOut({Stops("A"), Creates("B", instance)},
                   {"B:in.CreateInstance", "A:coordinator.shutdown.says_so", "B:ends", "A:ends"}));
    EXPECT_EQ(inner.load(), VESSA_FAILED);
    Destroy(instance);
}

TEST_F(InnerLifeOrders, AStartFromAModuleThatSawAUserIsRefusedByTheStopThatCameBetween) {
    Start();
    std::atomic<int> inner{VESSA_OK};
    InCreate([&] { inner = VESSA_Init(); });
    EXPECT_TRUE(
        CarriedOut({Stops("A"), Creates("B", instance)},
                   {"B:life.init.looked_inside", "A:life.stop.is_claimed", "B:ends", "A:ends"}));
    EXPECT_EQ(inner.load(), VESSA_FAILED);
    Destroy(instance);
}

TEST_F(InnerLifeOrders, AStartFromAModuleCountsOnAStartThatIsUnderWay) {
    std::atomic<int> inner{VESSA_FAILED};
    InCreate([&] { inner = VESSA_Init(); });
    EXPECT_TRUE(CarriedOut({Starts("A"), Creates("B", instance)},
                           {"A:life.start.runs", "B:ends", "A:ends"}));
    EXPECT_EQ(inner.load(), VESSA_OK);
    Destroy(instance);
    VESSA_Uninit();
    EXPECT_TRUE(IsRunning());
    VESSA_Uninit();
}

TEST_F(InnerLifeOrders, AStopFromAModuleThatSawTwoUsersIsTheLastAfterAnothers) {
    Start();
    Start();
    InCreate(VESSA_Uninit);
    EXPECT_TRUE(CarriedOut({Creates("A", instance), Stops("B")},
                           {"A:life.uninit.looked_inside", "B:ends", "A:ends"}));
    EXPECT_EQ(Passes("A", "life.uninit.looked_inside"), 2);
    EXPECT_FALSE(IsRunning());
    Destroy(instance);
}

TEST_F(InnerLifeOrders, AStartWaitsForTheStopOnTheScanningThreadAndJoinsIt) {
    Start();
    world.Add("b");
    std::atomic<bool> stops{true};
    modules.On("b", "Init", [&](void*) {
        if (stops.exchange(false)) VESSA_Uninit();
    });
    EXPECT_TRUE(CarriedOut({Ticks(), Scanner(), Starts("B")},
                           {"tick:ends", "T:timer.stop.inside", "B:life.phase.waits", "B:goes",
                            "T:timer.round.ended", "T:goes", "B:ends"}));
    EXPECT_TRUE(IsRunning());
    EXPECT_EQ(runtime.AwaitWaiters().size(), 1u);
    VESSA_Uninit();
    EXPECT_EQ(Inits("b"), Uninits("b"));
}

}  // namespace
}  // namespace vessa_test
