// Orders of the registry's instances: queries and destroys against the end of their record, and
// instances that a module hands out twice.
#include "reliability/orders/RegistryWorld.h"

namespace vessa_test {
namespace {

// ---- Queries, and records that go.

TEST_F(RegistryOrders, AQueryThatDoesNotGuardTheRecordYetDoesNotTouchIt) {
    void* const instance = Create();
    EXPECT_EQ(Unregister(), VESSA_OK);
    Call query;
    Call destroy;
    EXPECT_TRUE(CarriedOut({Queries("A", query, instance), Destroys("B", destroy, instance)},
                           {"A:query.record.found", "B:ends", "A:ends"}));
    EXPECT_EQ(query.result, VESSA_ERR_ARGUMENT);
    // While it guarded the record itself, and when it did not any more.
    EXPECT_EQ(Passes("B", "graveyard.sweep.looks"), 2);
    ExpectGone(1);
}

TEST_F(RegistryOrders, ARecordThatAQueryGuardsIsDeletedByTheQuery) {
    void* const instance = Create();
    EXPECT_EQ(Unregister(), VESSA_OK);
    Call query;
    Call destroy;
    EXPECT_TRUE(CarriedOut({Queries("A", query, instance), Destroys("B", destroy, instance)},
                           {"A:record.guard.shown", "B:ends", "A:ends"}));
    EXPECT_EQ(query.result, VESSA_ERR_ARGUMENT);
    EXPECT_EQ(Passes("A", "graveyard.sweep.looks"), 1);
    ExpectGone(1);
}

TEST_F(RegistryOrders, AQueryThatKeptTheRecordFindsItWithoutAModule) {
    void* const instance = Create();
    EXPECT_EQ(Unregister(), VESSA_OK);
    Call query;
    Call destroy;
    EXPECT_TRUE(CarriedOut({Queries("A", query, instance), Destroys("B", destroy, instance)},
                           {"A:query.record.kept", "B:ends", "A:ends"}));
    EXPECT_EQ(query.result, VESSA_FAILED);
    EXPECT_EQ(Passes("A", "graveyard.sweep.looks"), 1);
    ExpectGone(1);
}

TEST_F(RegistryOrders, ARecordThatAQueryInsideAQueryPinsIsDeletedByTheInnerOne) {
    Declare("y", Module("good_v2", "y" MODULE_SUFFIX));
    void* const outer = Create("y");
    void* const instance = Create();
    EXPECT_EQ(Unregister(), VESSA_OK);
    Call inner;
    modules.On("y", "QueryInterface", [&](void*) { MakeQuery(inner, instance); });
    Call query;
    Call destroy;
    EXPECT_TRUE(CarriedOut({Queries("A", query, outer), Destroys("B", destroy, instance)},
                           {"A:in.QueryInterface", "A:query.record.kept", "B:ends", "A:ends"}));
    EXPECT_EQ(query.result, VESSA_OK);
    EXPECT_EQ(inner.result, VESSA_FAILED);
    EXPECT_EQ(Passes("A", "record.pin.raised"), 1);
    EXPECT_EQ(Passes("A", "graveyard.sweep.looks"), 1);
    ExpectGone(1);
    EXPECT_EQ(Destroy(outer), VESSA_OK);
    EXPECT_EQ(Unregister("y"), VESSA_OK);
}

TEST_F(RegistryOrders, OfTwoSweepsOneHasTheRecord) {
    void* const instance = Create();
    EXPECT_EQ(Unregister(), VESSA_OK);
    Call query;
    Call destroy;
    EXPECT_TRUE(CarriedOut({Queries("A", query, instance), Destroys("B", destroy, instance)},
                           {"A:record.guard.shown", "B:graveyard.record.in",
                            "A:graveyard.sweep.looks", "B:ends", "A:ends"}));
    EXPECT_EQ(Passes("B", "graveyard.sweep.looks"), 0);
    ExpectGone(1);
}

TEST_F(RegistryOrders, ASweepThatLooksAfterTheGuardWentDeletesTheRecord) {
    void* const instance = Create();
    EXPECT_EQ(Unregister(), VESSA_OK);
    Call query;
    Call destroy;
    EXPECT_TRUE(
        CarriedOut({Queries("A", query, instance), Destroys("B", destroy, instance)},
                   {"A:record.guard.shown", "B:graveyard.sweep.looks", "A:ends", "B:ends"}));
    EXPECT_EQ(Passes("A", "graveyard.sweep.looks"), 0);
    ExpectGone(1);
}

TEST_F(RegistryOrders, ARecordWhoseGuardWentBeforeItWasBuriedIsDeletedAtOnce) {
    void* const instance = Create();
    EXPECT_EQ(Unregister(), VESSA_OK);
    Call query;
    Call destroy;
    EXPECT_TRUE(
        CarriedOut({Queries("A", query, instance), Destroys("B", destroy, instance)},
                   {"A:record.guard.shown", "B:graveyard.record.comes", "A:ends", "B:ends"}));
    EXPECT_EQ(Passes("A", "graveyard.sweep.looks"), 0);
    ExpectGone(1);
}

TEST_F(RegistryOrders, AQueryOfAnotherInstanceKeepsTheModuleLoaded) {
    void* const queried = Create();
    void* const destroyed = Create();
    Call query;
    Call destroy;
    Call unregister;
    EXPECT_TRUE(CarriedOut({Queries("A", query, queried), Destroys("B", destroy, destroyed),
                            Unregisters("C", unregister)},
                           {"A:in.QueryInterface", "B:ends", "C:ends", "A:ends"}));
    EXPECT_EQ(query.result, VESSA_OK);
    EXPECT_EQ(Destroy(queried), VESSA_OK);
    ExpectGone(1);
}

TEST_F(RegistryOrders, OfTwoThatDestroyTheSameInstanceOneIsRefused) {
    void* const instance = Create();
    Call one;
    Call other;
    EXPECT_TRUE(CarriedOut(
        {Destroys("A", one, instance), Destroys("B", other, instance)},
        {"A:instances.entry.goes", "B:instances.change.waits", "B:goes", "A:ends", "B:ends"}));
    EXPECT_EQ(one.result, VESSA_OK);
    EXPECT_EQ(other.result, VESSA_ERR_ARGUMENT);
    EXPECT_EQ(Unregister(), VESSA_OK);
    ExpectGone(1);
}

// ---- A module that hands out an instance that is live.

class ConflictOrders : public RegistryOrders {
  protected:
    void SetUp() override {
        Declare("x", Module("same_instance", "x" MODULE_SUFFIX));
        instance = Create();
    }
    void TearDown() override {
        EXPECT_EQ(Destroy(instance), VESSA_OK);
        EXPECT_EQ(Unregister(), VESSA_OK);
        ExpectGone(1);
        RegistryOrders::TearDown();
    }
    void* instance = nullptr;
};

TEST_F(ConflictOrders, ADestroyOfTheLiveOneWaitsForTheModulesDestroyOfTheSecond) {
    Call create;
    Call destroy;
    EXPECT_TRUE(CarriedOut({Creates("A", create), Destroys("B", destroy, instance)},
                           {"A:conflict.entry.held", "B:destroy.entry.is_held", "B:blocks",
                            "A:conflict.instance.destroyed", "B:blocks", "A:ends", "B:ends"}));
    EXPECT_EQ(create.result, VESSA_ERR_INSTANCE_CONFLICT);
    EXPECT_EQ(destroy.result, VESSA_OK);
    instance = Create();
}

TEST_F(ConflictOrders, ASecondOneIsEnteredIfTheLiveOneWentBeforeItWasHeld) {
    Call create;
    Call destroy;
    EXPECT_TRUE(CarriedOut({Creates("A", create), Destroys("B", destroy, instance)},
                           {"A:conflict.mutex.asks", "B:ends", "A:ends"}));
    EXPECT_EQ(create.result, VESSA_OK);
    EXPECT_EQ(destroy.result, VESSA_OK);
    EXPECT_EQ(create.out, instance);
}

TEST_F(ConflictOrders, OfTwoCreatesWithOneInstanceTheFirstThatEntersItHasIt) {
    EXPECT_EQ(Destroy(instance), VESSA_OK);
    Call one;
    Call other;
    EXPECT_TRUE(CarriedOut({Creates("A", one), Creates("B", other)},
                           {"A:create.instance.made", "B:ends", "A:ends"}));
    EXPECT_EQ(one.result, VESSA_ERR_INSTANCE_CONFLICT);
    EXPECT_EQ(other.result, VESSA_OK);
}

TEST_F(ConflictOrders, AnInstanceThatIsEnteredCanBeDestroyedBeforeItsCreateReturns) {
    EXPECT_EQ(Destroy(instance), VESSA_OK);
    Call create;
    Call destroy;
    EXPECT_TRUE(CarriedOut({Creates("A", create), Destroys("B", destroy, instance)},
                           {"A:create.instance.entered", "B:ends", "A:ends"}));
    EXPECT_EQ(create.result, VESSA_OK);
    EXPECT_EQ(destroy.result, VESSA_OK);
    instance = Create();
}

TEST_F(ConflictOrders, TwoConflictsComeOneAfterTheOther) {
    Call one;
    Call other;
    EXPECT_TRUE(CarriedOut({Creates("A", one), Creates("B", other)},
                           {"A:conflict.entry.held", "B:conflict.mutex.asks", "B:blocks", "A:ends",
                            "B:conflict.entry.held", "B:ends"}));
    EXPECT_EQ(one.result, VESSA_ERR_INSTANCE_CONFLICT);
    EXPECT_EQ(other.result, VESSA_ERR_INSTANCE_CONFLICT);
}

TEST_F(ConflictOrders, AQueryOfTheLiveOneWaitsForNothing) {
    Call create;
    Call query;
    EXPECT_TRUE(CarriedOut({Creates("A", create), Queries("B", query, instance)},
                           {"A:conflict.entry.held", "B:ends", "A:ends"}));
    EXPECT_EQ(create.result, VESSA_ERR_INSTANCE_CONFLICT);
    EXPECT_EQ(query.result, VESSA_OK);
}

TEST_F(ConflictOrders, AnUnregistrationWaitsForTheConflictToBeSettled) {
    Call create;
    Call unregister;
    EXPECT_TRUE(CarriedOut({Creates("A", create), Unregisters("B", unregister)},
                           {"A:conflict.entry.held", "B:gate.writer.sleeps", "B:blocks", "A:ends",
                            "B:registry.unregister.puts_off", "B:ends"}));
    EXPECT_EQ(create.result, VESSA_ERR_INSTANCE_CONFLICT);
    EXPECT_EQ(Register(), VESSA_OK);
}

}  // namespace
}  // namespace vessa_test
