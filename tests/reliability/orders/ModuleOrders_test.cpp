// Orders of loads and unloads: the record's, the loader's and the module's own locks.
#include <atomic>

#include "reliability/orders/RegistryWorld.h"

namespace vessa_test {
namespace {

// "x" and "second" are two plug-ins of the same module, each a record of its own.
class ModuleOrders : public RegistryOrders {
  protected:
    void SetUp() override {
        RegistryOrders::SetUp();
        Declare("second", dir.Path("x" MODULE_SUFFIX));
    }
    void TearDown() override {
        for (const char* const fkey : {"x", "second"}) {
            if (IsRegistered(fkey)) {
                EXPECT_EQ(Unregister(fkey), VESSA_OK);
            }
        }
        EXPECT_FALSE(IsLoaded());
        EXPECT_EQ(Inits(), Uninits());
        RegistryOrders::TearDown();
    }

    // What two creates of one module come to.
    void ExpectOneLoad(const Call& one, const Call& other) {
        EXPECT_EQ(one.result, VESSA_OK);
        EXPECT_EQ(other.result, VESSA_OK);
        EXPECT_EQ(Inits(), 1);
        EXPECT_EQ(Destroy(one.out), VESSA_OK);
        EXPECT_EQ(Destroy(other.out), VESSA_OK);
    }
};

// ---- Two creates load the same record first.

TEST_F(ModuleOrders, ASecondCreateWaitsForTheLoadOfTheFirst) {
    Call one;
    Call other;
    EXPECT_TRUE(CarriedOut({Creates("A", one), Creates("B", other)},
                           {"A:record.load.has_mutex", "B:record.load.asks", "B:blocks",
                            "A:in.Init", "B:blocks", "A:ends", "B:ends"}));
    EXPECT_EQ(References("x" MODULE_SUFFIX), 1);
    ExpectOneLoad(one, other);
}

TEST_F(ModuleOrders, ACreateThatComesToTheMutexLaterFindsTheModuleLoaded) {
    Call one;
    Call other;
    EXPECT_TRUE(CarriedOut({Creates("A", one), Creates("B", other)},
                           {"A:record.load.asks", "B:ends", "A:ends"}));
    EXPECT_EQ(Passes("A", "loader.load.asks"), 0);
    ExpectOneLoad(one, other);
}

TEST_F(ModuleOrders, ACreateBetweenModuleAndRecordWaits) {
    Call one;
    Call other;
    EXPECT_TRUE(
        CarriedOut({Creates("A", one), Creates("B", other)},
                   {"A:record.load.loaded", "B:record.load.asks", "B:blocks", "A:ends", "B:ends"}));
    EXPECT_EQ(References("x" MODULE_SUFFIX), 1);
    ExpectOneLoad(one, other);
}

// ---- One of them inside of a module: it waits for nobody's load.

class InnerLoadOrders : public ModuleOrders {
  protected:
    void SetUp() override {
        ModuleOrders::SetUp();
        DeclareOuter("outer", [this] { MakeCreate(inner, "x"); });
    }
    void TearDown() override {
        EXPECT_EQ(Destroy(outer.out), VESSA_OK);
        EXPECT_EQ(Unregister("outer"), VESSA_OK);
        ModuleOrders::TearDown();
    }
    Call outer;
    Call inner;
};

TEST_F(InnerLoadOrders, TheLoadOutsideComesSecondAndGivesItsReferenceBack) {
    Call create;
    EXPECT_TRUE(CarriedOut({Creates("A", create), Creates("B", outer, "outer")},
                           {"A:record.load.loaded", "B:in.CreateInstance", "B:record.load.kept",
                            "A:record.load.kept", "A:ends", "B:ends"}));
    EXPECT_EQ(Passes("A", "loader.unload.checked"), 1);
    EXPECT_EQ(References("x" MODULE_SUFFIX), 1);
    ExpectOneLoad(create, inner);
}

TEST_F(InnerLoadOrders, TheLoadInsideComesSecondAndGivesItsReferenceBack) {
    Call create;
    EXPECT_TRUE(CarriedOut(
        {Creates("A", create), Creates("B", outer, "outer")},
        {"B:in.CreateInstance", "B:record.load.loaded", "A:ends", "B:record.load.kept", "B:ends"}));
    EXPECT_EQ(Passes("B", "loader.unload.checked"), 1);
    EXPECT_EQ(References("x" MODULE_SUFFIX), 1);
    ExpectOneLoad(create, inner);
}

TEST_F(InnerLoadOrders, ALoadInsideDoesNotWaitForTheRecordOfALoadOutside) {
    Call create;
    EXPECT_TRUE(CarriedOut({Creates("A", create), Creates("B", outer, "outer")},
                           {"A:record.load.has_mutex", "B:ends", "A:ends"}));
    EXPECT_EQ(References("x" MODULE_SUFFIX), 1);
    ExpectOneLoad(create, inner);
}

TEST_F(ModuleOrders, ACreateWaitsForALoadInWhoseInitTheModuleUsesItself) {
    std::atomic<void*> own{nullptr};
    modules.On("x", "Init", [&](void*) {
        Call nested;
        MakeCreate(nested, "x");
        own.store(nested.out);
        At("test.nested.made");
    });
    Call one;
    Call other;
    EXPECT_TRUE(
        CarriedOut({Creates("A", one), Creates("B", other)},
                   {"A:test.nested.made", "B:record.load.asks", "B:blocks", "A:ends", "B:ends"}));
    EXPECT_EQ(Destroy(own.load()), VESSA_OK);
    EXPECT_EQ(References("x" MODULE_SUFFIX), 1);
    ExpectOneLoad(one, other);
}

// ---- One record gives the module back while another takes it.

class SharedModuleOrders : public ModuleOrders {
  protected:
    void SetUp() override {
        ModuleOrders::SetUp();
        EXPECT_EQ(Destroy(Create("second")), VESSA_OK);
    }
    // The unregistration of "second" unloads; the create loads for "x". A load is asked for from
    // inside a reader's pass, so the two do not wait for each other at the gate.
    testing::AssertionResult Carried(const std::vector<std::string>& steps) {
        return CarriedOut({Unregisters("A", unregister, "second"), Creates("B", create)}, steps);
    }
    void ExpectLoads(int loads) {
        EXPECT_EQ(unregister.result, VESSA_OK);
        EXPECT_EQ(create.result, VESSA_OK);
        EXPECT_EQ(Inits(), loads);
        EXPECT_EQ(Uninits(), loads - 1);
        EXPECT_EQ(References("x" MODULE_SUFFIX), 1);
        EXPECT_EQ(Destroy(create.out), VESSA_OK);
    }
    Call unregister;
    Call create;
};

TEST_F(SharedModuleOrders, AnUnloadThatCountedFirstIsFollowedByALoadOfTheSameObject) {
    EXPECT_TRUE(
        Carried({"A:loader.unload.checked", "B:loader.load.referenced", "A:module.unload.counted",
                 "B:module.load.asks", "B:blocks", "A:ends", "B:ends"}));
    ExpectLoads(2);
}

TEST_F(SharedModuleOrders, ALoadThatCountedFirstKeepsTheModule) {
    EXPECT_TRUE(Carried({"A:loader.unload.checked", "B:module.load.counted", "A:module.unload.asks",
                         "A:blocks", "B:ends", "A:ends"}));
    ExpectLoads(1);
}

TEST_F(SharedModuleOrders, ALoadDuringTheUninitWaitsForTheRealUnload) {
    EXPECT_TRUE(Carried({"A:in.Uninit", "B:module.load.asks", "B:blocks", "A:module.unload.closed",
                         "B:blocks", "A:ends", "B:ends"}));
    ExpectLoads(2);
}

TEST_F(SharedModuleOrders, AnUnloadWaitsWhileALoadLooksTheModuleUp) {
    EXPECT_TRUE(Carried({"A:record.unload.asks", "B:loader.load.has_mutex", "A:blocks",
                         "B:module.load.counted", "A:module.unload.asks", "B:ends", "A:ends"}));
    ExpectLoads(1);
}

TEST_F(SharedModuleOrders, ALoadBeforeTheFileIsClosedWaitsForThat) {
    EXPECT_TRUE(Carried(
        {"A:module.unload.before_close", "B:module.load.asks", "B:blocks", "A:ends", "B:ends"}));
    ExpectLoads(2);
}

TEST_F(SharedModuleOrders, AReferenceTakenBeforeTheLastOneGoesKeepsTheObject) {
    EXPECT_TRUE(
        Carried({"A:loader.unload.unloaded", "B:loader.load.referenced", "A:ends", "B:ends"}));
    ExpectLoads(2);
}

TEST_F(SharedModuleOrders, ALookUpWaitsWhileTheLastReferenceGoesAndMakesANewObject) {
    EXPECT_TRUE(Carried(
        {"A:loader.unload.unreferenced", "B:loader.load.asks", "B:blocks", "A:ends", "B:ends"}));
    ExpectLoads(2);
}

TEST_F(SharedModuleOrders, ALoadIsKeptWhileTheOtherRecordStillShowsTheModule) {
    EXPECT_TRUE(Carried({"A:record.unload.unloaded", "B:ends", "A:ends"}));
    ExpectLoads(2);
}

// ---- Loads that fail.

class FailingLoadOrders : public RegistryOrders {
  protected:
    void SetUp() override {
        Declare("x", Module("init_fails", "x" MODULE_SUFFIX));
        Declare("second", dir.Path("x" MODULE_SUFFIX));
    }
    void TearDown() override {
        EXPECT_EQ(one.result, VESSA_ERR_MODULE_INIT);
        EXPECT_EQ(other.result, VESSA_ERR_MODULE_INIT);
        EXPECT_FALSE(IsLoaded());
        EXPECT_EQ(Inits(), 2);
        EXPECT_EQ(modules.Count("Load x"), modules.Count("Unload x"));
        EXPECT_EQ(Unregister("x") + Unregister("second"), VESSA_OK);
        RegistryOrders::TearDown();
    }
    Call one;
    Call other;
};

TEST_F(FailingLoadOrders, ALoadThatFailsLeavesTheObjectToWhoHasAReference) {
    EXPECT_TRUE(
        CarriedOut({Creates("A", one), Creates("B", other, "second")},
                   {"A:loader.load.gives_back", "B:loader.load.referenced", "A:ends", "B:ends"}));
}

TEST_F(FailingLoadOrders, ALoadThatWaitedForAFailingOneBeginsFromTheBeginning) {
    EXPECT_TRUE(CarriedOut({Creates("A", one), Creates("B", other, "second")},
                           {"A:in.Init", "B:module.load.asks", "B:blocks", "A:ends", "B:ends"}));
}

TEST_F(FailingLoadOrders, ALoadOfTheSameRecordTriesAgainWhenTheFirstHasFailed) {
    EXPECT_TRUE(
        CarriedOut({Creates("A", one), Creates("B", other)},
                   {"A:record.load.failed", "B:record.load.asks", "B:blocks", "A:ends", "B:ends"}));
}

}  // namespace
}  // namespace vessa_test
