// Orders of the registry: creates and destroys against registrations and unregistrations of the
// same plug-in, with real modules.
#include "reliability/orders/RegistryWorld.h"

namespace vessa_test {
namespace {

// ---- A create and an unregistration.

TEST_F(RegistryOrders, AnUnregistrationWaitsForACreateThatFoundTheRecord) {
    Call create;
    Call unregister;
    EXPECT_TRUE(CarriedOut(
        {Creates("A", create), Unregisters("B", unregister)},
        {"A:create.record.found", "B:gate.writer.sleeps", "B:blocks", "A:ends", "B:ends"}));
    EXPECT_EQ(create.result, VESSA_OK);
    EXPECT_EQ(unregister.result, VESSA_OK);
    EXPECT_TRUE(Record("x")->IsUnregistered());
    EXPECT_EQ(Destroy(create.out), VESSA_OK);
    ExpectGone(1);
}

TEST_F(RegistryOrders, AnUnregistrationWaitsForALoadByTheFirstCreate) {
    Call create;
    Call unregister;
    EXPECT_TRUE(CarriedOut({Creates("A", create), Unregisters("B", unregister)},
                           {"A:in.Init", "B:gate.writer.sleeps", "B:blocks", "A:in.CreateInstance",
                            "A:ends", "B:registry.unregister.puts_off", "B:ends"}));
    EXPECT_EQ(create.result, VESSA_OK);
    EXPECT_EQ(Destroy(create.out), VESSA_OK);
    ExpectGone(1);
}

TEST_F(RegistryOrders, AnInstanceThatIsNotCountedYetPutsTheUnloadOff) {
    Call create;
    Call unregister;
    EXPECT_TRUE(CarriedOut({Creates("A", create), Unregisters("B", unregister)},
                           {"A:record.instance.made", "B:gate.writer.sleeps", "A:ends",
                            "B:registry.unregister.puts_off", "B:ends"}));
    EXPECT_EQ(Destroy(create.out), VESSA_OK);
    ExpectGone(1);
}

TEST_F(RegistryOrders, ACreateThatMeetsAnUnregistrationFindsNothing) {
    Call create;
    Call unregister;
    EXPECT_TRUE(CarriedOut({Creates("A", create), Unregisters("B", unregister)},
                           {"B:registry.unregister.taken", "A:gate.reader.turned_away", "A:blocks",
                            "B:ends", "A:ends"}));
    EXPECT_EQ(create.result, VESSA_ERR_NOT_REGISTERED);
    EXPECT_EQ(unregister.result, VESSA_OK);
    ExpectGone(0);
}

TEST_F(RegistryOrders, ACreateDoesNotWaitForTheUninitOfWhatIsUnregistered) {
    EXPECT_EQ(Destroy(Create()), VESSA_OK);
    Call create;
    Call unregister;
    EXPECT_TRUE(CarriedOut({Creates("A", create), Unregisters("B", unregister)},
                           {"B:in.Uninit", "A:ends", "B:ends"}));
    EXPECT_EQ(create.result, VESSA_ERR_NOT_REGISTERED);
    EXPECT_EQ(Passes("A", "gate.reader.turned_away"), 0);
    ExpectGone(1);
}

// ---- Registering again.

TEST_F(RegistryOrders, ARegistrationBeforeTheUnloadKeepsTheModule) {
    EXPECT_EQ(Destroy(Create()), VESSA_OK);
    Call unregister;
    Call again;
    EXPECT_TRUE(CarriedOut(
        {Unregisters("B", unregister), Registers("C", again, true)},
        {"B:registry.unregister.unloads", "C:gate.writer.sleeps", "C:blocks", "B:ends", "C:ends"}));
    EXPECT_EQ(again.result, VESSA_OK);
    EXPECT_EQ(Destroy(Create()), VESSA_OK);
    EXPECT_EQ(Unregister(), VESSA_OK);
    ExpectGone(2);
}

TEST_F(RegistryOrders, ACreateWaitsForARegistrationThatTakesTheMarkAway) {
    void* const first = Create();
    EXPECT_EQ(Unregister(), VESSA_OK);
    Call create;
    Call again;
    EXPECT_TRUE(CarriedOut({Creates("A", create), Registers("C", again)},
                           {"C:registry.register.entered", "A:gate.reader.turned_away", "A:blocks",
                            "C:ends", "A:ends"}));
    EXPECT_EQ(create.result, VESSA_OK);
    EXPECT_EQ(again.result, VESSA_OK);
    EXPECT_EQ(Destroy(first), VESSA_OK);
    EXPECT_EQ(Destroy(create.out), VESSA_OK);
    EXPECT_EQ(Unregister(), VESSA_OK);
    ExpectGone(1);
}

TEST_F(RegistryOrders, ACreateThatReadBeforeTheMarkWentIsRefused) {
    void* const first = Create();
    EXPECT_EQ(Unregister(), VESSA_OK);
    Call create;
    Call again;
    EXPECT_TRUE(CarriedOut({Creates("A", create), Registers("C", again)},
                           {"A:gate.reader.in", "C:gate.writer.sleeps", "A:ends", "C:ends"}));
    EXPECT_EQ(create.result, VESSA_ERR_NOT_REGISTERED);
    EXPECT_EQ(again.result, VESSA_OK);
    EXPECT_EQ(Destroy(first), VESSA_OK);
    EXPECT_TRUE(IsLoaded());
    EXPECT_EQ(Unregister(), VESSA_OK);
    ExpectGone(1);
}

TEST_F(RegistryOrders, OfTwoRegistrationsTheSecondFindsTheRecordOfTheFirst) {
    EXPECT_EQ(Unregister(), VESSA_OK);
    Call first;
    Call second;
    EXPECT_TRUE(CarriedOut({Registers("A", first, false), Registers("B", second, false)},
                           {"A:registry.register.entered", "B:gate.writer.counted", "B:blocks",
                            "A:in.Init", "B:gate.writer.sleeps", "B:blocks", "A:ends", "B:ends"}));
    EXPECT_EQ(first.result, VESSA_OK);
    EXPECT_EQ(second.result, VESSA_OK);
    EXPECT_EQ(References("x" MODULE_SUFFIX), 1);
    EXPECT_EQ(Unregister(), VESSA_OK);
    ExpectGone(1);
}

TEST_F(RegistryOrders, OfTwoUnregistrationsTheSecondFindsNothing) {
    EXPECT_EQ(Destroy(Create()), VESSA_OK);
    Call first;
    Call second;
    EXPECT_TRUE(CarriedOut(
        {Unregisters("A", first), Unregisters("B", second)},
        {"A:registry.unregister.taken", "B:gate.writer.counted", "B:blocks", "A:ends", "B:ends"}));
    EXPECT_EQ(first.result, VESSA_OK);
    EXPECT_EQ(second.result, VESSA_ERR_ARGUMENT);
    ExpectGone(1);
}

// ---- The destroy of the last instance and an unregistration: one of them unloads.

TEST_F(RegistryOrders, ADestroyThatCountedBeforeTheMarkLeavesTheUnloadToTheUnregistration) {
    void* const instance = Create();
    Call destroy;
    Call unregister;
    EXPECT_TRUE(CarriedOut({Destroys("A", destroy, instance), Unregisters("B", unregister)},
                           {"A:destroy.instance.gone", "B:ends", "A:ends"}));
    EXPECT_EQ(destroy.result, VESSA_OK);
    EXPECT_EQ(Passes("B", "registry.unregister.taken"), 1);
    ExpectGone(1);
}

TEST_F(RegistryOrders, ADestroyThatCountsAfterTheLookUnloads) {
    void* const instance = Create();
    Call destroy;
    Call unregister;
    EXPECT_TRUE(CarriedOut({Destroys("A", destroy, instance), Unregisters("B", unregister)},
                           {"A:record.instance.destroyed", "B:registry.unregister.puts_off",
                            "A:destroy.record.is_due", "B:ends", "A:ends"}));
    EXPECT_EQ(destroy.result, VESSA_OK);
    EXPECT_EQ(Passes("A", "unload.put_off.unloads"), 1);
    ExpectGone(1);
}

TEST_F(RegistryOrders, ADestroyThatCountsBetweenMarkAndLookFindsItDoneAlready) {
    void* const instance = Create();
    Call destroy;
    Call unregister;
    EXPECT_TRUE(CarriedOut({Destroys("A", destroy, instance), Unregisters("B", unregister)},
                           {"A:record.instance.destroyed", "B:registry.unregister.marked",
                            "A:destroy.record.is_due", "B:ends", "A:ends"}));
    EXPECT_EQ(destroy.result, VESSA_OK);
    EXPECT_EQ(Passes("A", "unload.put_off.unloads"), 0);
    ExpectGone(1);
}

TEST_F(RegistryOrders, ADestroyInsideTheModuleIsOutlivedByTheModule) {
    void* const instance = Create();
    Call destroy;
    Call unregister;
    EXPECT_TRUE(CarriedOut({Destroys("A", destroy, instance), Unregisters("B", unregister)},
                           {"A:in.DestroyInstance", "B:ends", "A:ends"}));
    EXPECT_EQ(Passes("B", "registry.unregister.puts_off"), 1);
    ExpectGone(1);
}

TEST_F(RegistryOrders, OfTwoThatDestroyTheLastInstancesOneUnloads) {
    void* const first = Create();
    void* const second = Create();
    EXPECT_EQ(Unregister(), VESSA_OK);
    Call one;
    Call other;
    EXPECT_TRUE(
        CarriedOut({Destroys("A", one, first), Destroys("B", other, second)},
                   {"A:counter.value.lowered", "B:counter.value.lowered", "A:destroy.record.is_due",
                    "B:destroy.record.is_due", "A:ends", "B:ends"}));
    EXPECT_EQ(one.result, VESSA_OK);
    EXPECT_EQ(other.result, VESSA_OK);
    ExpectGone(1);
}

TEST_F(RegistryOrders, OfTwoThatWantToUnloadOneWaitsForTheOthersUninit) {
    void* const first = Create();
    void* const second = Create();
    EXPECT_EQ(Unregister(), VESSA_OK);
    Call one;
    Call other;
    EXPECT_TRUE(CarriedOut({Destroys("A", one, first), Destroys("B", other, second)},
                           {"A:counter.value.lowered", "B:destroy.record.is_due", "A:in.Uninit",
                            "B:gate.writer.sleeps", "B:blocks", "A:ends", "B:ends"}));
    ExpectGone(1);
}

TEST_F(RegistryOrders, ARegistrationBeforeAnUnloadThatIsDueKeepsTheModule) {
    void* const instance = Create();
    EXPECT_EQ(Unregister(), VESSA_OK);
    Call destroy;
    Call again;
    EXPECT_TRUE(CarriedOut({Destroys("A", destroy, instance), Registers("C", again)},
                           {"A:destroy.record.is_due", "C:ends", "A:ends"}));
    EXPECT_EQ(again.result, VESSA_OK);
    EXPECT_TRUE(IsLoaded());
    EXPECT_EQ(Destroy(Create()), VESSA_OK);
    EXPECT_EQ(Unregister(), VESSA_OK);
    ExpectGone(1);
}

TEST_F(RegistryOrders, AnUnloadThatIsDueLeavesAnotherRecordOfTheKeyAlone) {
    void* const instance = Create();
    EXPECT_EQ(Unregister(), VESSA_OK);
    Call destroy;
    EXPECT_TRUE(CarriedOut({Destroys("A", destroy, instance),
                            {"C",
                             [this] {
                                 EXPECT_EQ(Register(), VESSA_OK);
                                 EXPECT_EQ(Unregister(), VESSA_OK);
                                 EXPECT_EQ(Register("x", false), VESSA_OK);
                             }}},
                           {"A:destroy.record.is_due", "C:ends", "A:ends"}));
    EXPECT_TRUE(IsLoaded());
    EXPECT_FALSE(Record("x")->IsUnregistered());
    EXPECT_EQ(Unregister(), VESSA_OK);
    ExpectGone(2);
}

TEST_F(RegistryOrders, ARegistrationWaitsForAnUnloadThatHasTakenTheRecord) {
    void* const instance = Create();
    EXPECT_EQ(Unregister(), VESSA_OK);
    Call destroy;
    Call again;
    EXPECT_TRUE(CarriedOut(
        {Destroys("A", destroy, instance), Registers("C", again, false)},
        {"A:module.unload.before_uninit", "C:gate.writer.sleeps", "C:blocks", "A:ends", "C:ends"}));
    EXPECT_EQ(again.result, VESSA_OK);
    EXPECT_EQ(Unregister(), VESSA_OK);
    ExpectGone(2);
}

TEST_F(RegistryOrders, ARegistrationWaitsForAnUnloadThatLooks) {
    void* const instance = Create();
    EXPECT_EQ(Unregister(), VESSA_OK);
    Call destroy;
    Call again;
    EXPECT_TRUE(CarriedOut({Destroys("A", destroy, instance), Registers("C", again)},
                           {"A:unload.put_off.looks", "C:gate.writer.comes",
                            "C:gate.writer.counted", "C:blocks", "A:ends", "C:ends"}));
    EXPECT_EQ(again.result, VESSA_OK);
    EXPECT_FALSE(IsLoaded());
    EXPECT_EQ(Unregister(), VESSA_OK);
    ExpectGone(1);
}

TEST_F(RegistryOrders, ACreateBeforeThePutOffUnloadIsRefusedAtOnce) {
    void* const instance = Create();
    EXPECT_EQ(Unregister(), VESSA_OK);
    Call destroy;
    Call create;
    EXPECT_TRUE(CarriedOut({Destroys("A", destroy, instance), Creates("B", create)},
                           {"A:unload.put_off.unloads", "B:ends", "A:ends"}));
    EXPECT_EQ(create.result, VESSA_ERR_NOT_REGISTERED);
    ExpectGone(1);
}

TEST_F(RegistryOrders, AQueryOfAnInstanceThatWasTakenOutFindsNothing) {
    void* const instance = Create();
    Call destroy;
    Call query;
    EXPECT_TRUE(CarriedOut({Destroys("A", destroy, instance), Queries("B", query, instance)},
                           {"A:destroy.entry.taken", "B:ends", "A:ends"}));
    EXPECT_EQ(destroy.result, VESSA_OK);
    EXPECT_EQ(query.result, VESSA_ERR_ARGUMENT);
    EXPECT_EQ(Unregister(), VESSA_OK);
    ExpectGone(1);
}

TEST_F(RegistryOrders, ACreateLoadsBeforeTheRegistrationThatWantsToLoad) {
    EXPECT_EQ(Unregister(), VESSA_OK);
    Call again;
    Call create;
    EXPECT_TRUE(CarriedOut({Registers("A", again, false), Creates("B", create)},
                           {"A:registry.register.loads", "B:ends", "A:ends"}));
    EXPECT_EQ(again.result, VESSA_OK);
    EXPECT_EQ(References("x" MODULE_SUFFIX), 1);
    EXPECT_EQ(Destroy(create.out), VESSA_OK);
    EXPECT_EQ(Unregister(), VESSA_OK);
    ExpectGone(1);
}

// ---- Unloads that a reading thread puts off.

TEST_F(RegistryOrders, OfTwoReadersThatPutTheSameUnloadOffOneCarriesItOut) {
    void* const first = Create();
    void* const second = Create();
    EXPECT_EQ(Unregister(), VESSA_OK);
    DeclareOuter("first", [&] { EXPECT_EQ(Destroy(first), VESSA_OK); });
    DeclareOuter("second", [&] { EXPECT_EQ(Destroy(second), VESSA_OK); });
    Call one;
    Call other;
    EXPECT_TRUE(CarriedOut(
        {Creates("A", one, "first"), Creates("B", other, "second")},
        {"A:counter.value.lowered", "B:counter.value.lowered", "A:unload.put_off.handed_over",
         "B:destroy.record.is_due", "B:ends", "A:ends"}));
    EXPECT_EQ(Passes("B", "unload.put_off.handed_over"), 0);
    ExpectGone(1);
    EXPECT_EQ(Destroy(one.out), VESSA_OK);
    EXPECT_EQ(Destroy(other.out), VESSA_OK);
    EXPECT_EQ(Unregister("first") + Unregister("second"), VESSA_OK);
}

TEST_F(RegistryOrders, AnUnloadThatIsPutOffWaitsForTheOtherReaders) {
    void* const instance = Create();
    EXPECT_EQ(Unregister(), VESSA_OK);
    DeclareOuter("outer", [&] { EXPECT_EQ(Destroy(instance), VESSA_OK); });
    DeclareOuter("other", [] { At("test.other.inside"); });
    Call one;
    Call other;
    EXPECT_TRUE(CarriedOut({Creates("A", one, "outer"), Creates("B", other, "other")},
                           {"A:unload.put_off.handed_over", "B:test.other.inside",
                            "A:gate.writer.sleeps", "A:blocks", "B:ends", "A:ends"}));
    ExpectGone(1);
    EXPECT_EQ(Destroy(one.out), VESSA_OK);
    EXPECT_EQ(Destroy(other.out), VESSA_OK);
    EXPECT_EQ(Unregister("outer") + Unregister("other"), VESSA_OK);
}

TEST_F(RegistryOrders, ARecordOutlivesTheUnloadThatIsPutOffFromIt) {
    void* const instance = Create();
    EXPECT_EQ(Unregister(), VESSA_OK);
    DeclareOuter("outer", [&] { EXPECT_EQ(Destroy(instance), VESSA_OK); });
    Call one;
    EXPECT_TRUE(CarriedOut({Creates("A", one, "outer"),
                            {"C",
                             [this] {
                                 EXPECT_EQ(Register(), VESSA_OK);
                                 void* const again = Create();
                                 EXPECT_EQ(Unregister(), VESSA_OK);
                                 EXPECT_EQ(Destroy(again), VESSA_OK);
                             }}},
                           {"A:unload.put_off.runs", "C:ends", "A:ends"}));
    EXPECT_EQ(Passes("C", "unload.put_off.unloads"), 1);
    EXPECT_EQ(Passes("A", "unload.put_off.unloads"), 0);
    EXPECT_EQ(Passes("A", "graveyard.sweep.looks"), 1);
    ExpectGone(1);
    EXPECT_EQ(Destroy(one.out), VESSA_OK);
    EXPECT_EQ(Unregister("outer"), VESSA_OK);
}

TEST_F(RegistryOrders, ARegistrationDuringTheReadDropsTheUnloadThatIsPutOff) {
    void* const instance = Create();
    EXPECT_EQ(Unregister(), VESSA_OK);
    DeclareOuter("outer", [&] { EXPECT_EQ(Destroy(instance), VESSA_OK); });
    Call one;
    Call again;
    EXPECT_TRUE(CarriedOut({Creates("A", one, "outer"), Registers("C", again)},
                           {"A:unload.put_off.handed_over", "C:gate.writer.sleeps", "C:blocks",
                            "A:unload.put_off.runs", "C:ends", "A:ends"}));
    EXPECT_EQ(again.result, VESSA_OK);
    EXPECT_TRUE(IsLoaded());
    EXPECT_EQ(Unregister(), VESSA_OK);
    ExpectGone(1);
    EXPECT_EQ(Destroy(one.out), VESSA_OK);
    EXPECT_EQ(Unregister("outer"), VESSA_OK);
}

}  // namespace
}  // namespace vessa_test
