// LifeCycleSlots.h: every way in which the library calls into a module, each on the kind of
// thread and with the locks that it really has, so that a test can act from inside it.
#ifndef VESSA_TESTS_UNIT_LIFECYCLESLOTS_H
#define VESSA_TESTS_UNIT_LIFECYCLESLOTS_H

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "support/ModuleHook.h"
#include "support/Runtime.h"
#include "support/Sync.h"
#include "unit/LifeCycleWorld.h"

namespace vessa_test {

struct Slot {
    enum class Reached {
        kStart,        // registration in the first scan, inside VESSA_Init
        kScan,         // registration on the scanning thread
        kScanRemoval,  // unregistration on the scanning thread
        kFirstUse,     // load on demand, and the create after it
        kDestroy,
        kQuery,
        kStop,     // unregistration inside the last VESSA_Uninit
        kPutOff,   // the unload that live instances had put off
        kConflict  // destroy of an instance that was live already
    };
    Reached reached;
    std::string operation;

    std::string Name() const {
        static const char* const kNames[] = {"Start", "Scan", "ScanRemoval", "FirstUse", "Destroy",
                                             "Query", "Stop", "PutOff",      "Conflict"};
        return operation + "In" + kNames[static_cast<int>(reached)];
    }
    bool IsOnScanningThread() const {
        return reached == Reached::kScan || reached == Reached::kScanRemoval;
    }
};

inline std::ostream& operator<<(std::ostream& out, const Slot& slot) {
    return out << slot.Name();
}

inline std::vector<Slot> AllSlots() {
    using Reached = Slot::Reached;
    std::vector<Slot> slots;
    for (const char* operation : {"Entry", "Init", "GetFileVersion", "GetAllInterfaceIkeys"}) {
        slots.push_back({Reached::kStart, operation});
        slots.push_back({Reached::kScan, operation});
        slots.push_back({Reached::kFirstUse, operation});
    }
    slots.push_back({Reached::kStart, "GetPluginMapFkeys"});
    slots.push_back({Reached::kScan, "GetPluginMapFkeys"});
    slots.push_back({Reached::kScanRemoval, "GetPluginMapFkeys"});
    slots.push_back({Reached::kFirstUse, "CreateInstance_V2"});
    slots.push_back({Reached::kFirstUse, "CreateInstance"});
    slots.push_back({Reached::kDestroy, "DestroyInstance"});
    slots.push_back({Reached::kConflict, "DestroyInstance"});
    slots.push_back({Reached::kQuery, "QueryInterface"});
    slots.push_back({Reached::kScanRemoval, "Uninit"});
    slots.push_back({Reached::kStop, "Uninit"});
    slots.push_back({Reached::kPutOff, "Uninit"});
    return slots;
}

// The module of the slot is "m". "0_first" and "z_last" are other plug-ins, registered before
// and unregistered after it.
class SlotTest : public LifeCycleTest, public testing::WithParamInterface<Slot> {
  protected:
    using Reached = Slot::Reached;

    void SetUp() override {
        LifeCycleTest::SetUp();
        world.AddDelayed("0_first");
        world.AddDelayed("z_last");
        world.AddDelayed("hold");
    }

    // Brings the library to the point from which Enter reaches the slot. inside is called
    // there, once.
    void Prepare(std::function<void()> inside) {
        if (Is(Reached::kFirstUse) || Is(Reached::kConflict))
            world.AddDelayed("m", Module());
        else if (!Is(Reached::kScan))
            world.Add("m", Module(), {{"loadfkeys", "true"}});
        if (!Is(Reached::kStart)) {
            ASSERT_EQ(VESSA_Init(), VESSA_OK);
            if (Is(Reached::kDestroy) || Is(Reached::kQuery) || Is(Reached::kPutOff) ||
                Is(Reached::kConflict))
                instance = Create("m");
        }
        if (Is(Reached::kPutOff) || Is(Reached::kScanRemoval)) world.Remove("m");
        if (Is(Reached::kPutOff)) {
            ASSERT_TRUE(runtime.Tick());
        }
        if (Is(Reached::kScan)) world.Add("m", Module(), {{"loadfkeys", "true"}});
        hook.On("m", GetParam().operation, [this, inside](ModuleCall&) {
            if (entered_) return;
            entered_ = true;
            inside();
        });
    }

    // Goes through the slot and comes back; a hang ends the program with a message. Whether
    // the scanning thread waits for its next scan, where it is the one.
    bool Enter() {
        if (GetParam().IsOnScanningThread()) return runtime.Tick();
        JoiningThread caller([this] { Call(); });
        caller.Join();
        return true;
    }

    // Stops what is left after a slot that did not stop the library.
    void FinishStarted() {
        EXPECT_TRUE(entered_);
        if (!Is(Reached::kStop)) {
            EXPECT_TRUE(LifeCycle::Get()->coordinator().IsRunning());
            VESSA_Uninit();
        }
        FinishStopped();
    }
    void FinishStopped() {
        EXPECT_TRUE(entered_);
        EXPECT_FALSE(LifeCycle::Get()->coordinator().IsRunning());
        hook.Off("m", GetParam().operation);
        if (instance != nullptr) Destroy(instance);
    }

    bool Is(Reached reached) const { return GetParam().reached == reached; }

    World world;
    Runtime runtime;
    void* instance = nullptr;  // of "m", where one lives

  private:
    std::string Module() const {
        if (GetParam().operation == "CreateInstance") return "good_v1";
        return Is(Reached::kConflict) ? "same_instance" : "map_two";
    }

    void Call() {
        switch (GetParam().reached) {
            case Reached::kStart:
                EXPECT_EQ(VESSA_Init(), VESSA_OK);
                break;
            case Reached::kFirstUse:
                instance = Create("m");
                break;
            case Reached::kDestroy:
            case Reached::kPutOff:
                Destroy(instance);
                instance = nullptr;
                break;
            case Reached::kConflict: {
                void* second = nullptr;
                EXPECT_EQ(VESSA_CreateInstance("m", &second, nullptr), VESSA_ERR_INSTANCE_CONFLICT);
                break;
            }
            case Reached::kQuery: {
                void* found = nullptr;
                EXPECT_EQ(VESSA_QueryInterface(instance, "iface", &found, nullptr), VESSA_OK);
                break;
            }
            case Reached::kStop:
                VESSA_Uninit();
                break;
            default:
                FAIL() << "on the scanning thread";
        }
    }

    bool entered_ = false;

  protected:
    // Last: its handlers use all of the above.
    ModuleHook hook;
};

}  // namespace vessa_test

#endif
