// Starts and stops whose step on the word of users and phase is overtaken: between the look at the
// word and the change of it another thread changes it, each time in the same place.
#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "support/ModuleHook.h"
#include "support/Runtime.h"
#include "support/Sync.h"
#include "unit/LifeCycleWorld.h"

namespace vessa_test {
namespace {

// "keep" has a live instance all the time, so that plug-in calls are possible whatever runs.
class Overtaken : public LifeCycleTest {
  protected:
    void SetUp() override {
        LifeCycleTest::SetUp();
        world.AddDelayed("keep");
        ASSERT_EQ(VESSA_Init(), VESSA_OK);
        keep = Create("keep");
        runtime.Before(Tova::AtomicCas, [this](RuntimeCall&) {
            if (std::this_thread::get_id() != overtaken.load() || --steps_left != 0) return;
            overtaken = std::thread::id();
            overtaking();
            ++overtakings;
        });
    }
    void TearDown() override {
        runtime.Before(Tova::AtomicCas, nullptr);
        Destroy(keep);
        EXPECT_EQ(overtakings, 1);
        LifeCycleTest::TearDown();
    }

    // Before the nth step of this thread from here on the function runs to its end. A look at the
    // word is a step, the change that follows it is the second.
    void Overtake(int nth, std::function<void()> function) {
        overtaking = std::move(function);
        steps_left = nth;
        overtaken = std::this_thread::get_id();
    }

    static void OnAnotherThread(std::function<void()> function) {
        JoiningThread other(std::move(function));
        other.Join();
    }
    // From inside a plug-in call on another thread.
    void InAPluginCall(std::function<void()> function) {
        OnAnotherThread([&] { Call(function); });
    }
    // From inside a plug-in call on this thread.
    void Call(const std::function<void()>& function) {
        hook.On("keep", "QueryInterface", [&](ModuleCall&) { function(); });
        void* found = nullptr;
        EXPECT_EQ(VESSA_QueryInterface(keep, "iface", &found, nullptr), VESSA_OK);
        hook.Off("keep", "QueryInterface");
    }
    static void Start() { EXPECT_EQ(VESSA_Init(), VESSA_OK); }
    // How many users there are: so many stops stop the library.
    static void ExpectUsers(int users) {
        for (int i = 0; i < users; ++i) {
            EXPECT_TRUE(LifeCycle::Get()->coordinator().IsRunning()) << i;
            VESSA_Uninit();
        }
        EXPECT_FALSE(LifeCycle::Get()->coordinator().IsRunning());
    }

    World world;
    Runtime runtime;
    ModuleHook hook;
    void* keep = nullptr;
    std::function<void()> overtaking;
    std::atomic<std::thread::id> overtaken{};
    int steps_left = 0;
    int overtakings = 0;
};

TEST_F(Overtaken, AStartCountsAfterAnother) {
    Overtake(2, [this] { InAPluginCall(&Start); });
    Start();
    ExpectUsers(3);
}

TEST_F(Overtaken, AStartOfTheStoppedLibraryCountsAfterAnotherHasStartedIt) {
    VESSA_Uninit();
    Overtake(2, [this] { InAPluginCall(&Start); });
    Start();
    ExpectUsers(2);
}

TEST_F(Overtaken, AStopCountsDownAfterAStart) {
    Start();
    Overtake(2, [this] { InAPluginCall(&Start); });
    VESSA_Uninit();
    ExpectUsers(2);
}

TEST_F(Overtaken, TheLastStopIsNotTheLastAfterAStart) {
    Overtake(2, [this] { InAPluginCall(&Start); });
    VESSA_Uninit();
    ExpectUsers(1);
}

TEST_F(Overtaken, AStartInAPluginCallCountsAfterAnother) {
    Call([this] {
        Overtake(2, [] { OnAnotherThread(&Start); });
        Start();
    });
    ExpectUsers(3);
}

TEST_F(Overtaken, AStartInAPluginCallCountsAfterAnotherHasStartedTheLibrary) {
    VESSA_Uninit();
    Call([this] {
        Overtake(2, [] { OnAnotherThread(&Start); });
        Start();
    });
    ExpectUsers(2);
}

TEST_F(Overtaken, AStopInAPluginCallCountsDownAfterAStart) {
    Call([this] {
        Overtake(2, [] { OnAnotherThread(&Start); });
        VESSA_Uninit();
    });
    ExpectUsers(1);
}

TEST_F(Overtaken, TheEndOfAStartKeepsTheUserThatComesAtThatMoment) {
    VESSA_Uninit();
    LogCapture log(3);
    log.OnLine("3 run PluginCoordinator succeeded", [this] {
        Overtake(2, [this] { InAPluginCall(&Start); });
    });
    Start();
    ExpectUsers(2);
}

TEST_F(Overtaken, APutOffStopIsNoneAfterAnotherThreadsStartAndStop) {
    LogCapture log(3);
    Call([this] {
        VESSA_Uninit();
        Overtake(1, [] {
            OnAnotherThread([] {
                Start();
                VESSA_Uninit();
            });
        });
    });
    EXPECT_FALSE(LifeCycle::Get()->coordinator().IsRunning());
    EXPECT_EQ(log.Count("3 uninit vessa succeeded"), 1);
}

// The same without an overtaking at a step: all of it happens inside the plug-in call.
TEST_F(Overtaken, APutOffStopIsNoneWhereNothingRunsAnyMore) {
    ++overtakings;
    LogCapture log(3);
    Call([] {
        VESSA_Uninit();
        OnAnotherThread([] {
            Start();
            VESSA_Uninit();
        });
    });
    EXPECT_FALSE(LifeCycle::Get()->coordinator().IsRunning());
    EXPECT_EQ(log.Count("3 uninit vessa succeeded"), 1);
}

// A start or stop outside meets the start that a plug-in call carries out without the global
// mutex, and waits for its end in slices.
class DuringAStartInAPluginCall : public Overtaken {
  protected:
    static constexpr unsigned kSliceMs = 10;

    void SetUp() override {
        Overtaken::SetUp();
        ++overtakings;
        VESSA_Uninit();
        world.Add("b");
    }

    // Runs the function outside while "b"'s Init holds the start.
    void Meet(void (*function)()) {
        Gate inside;
        Gate waits;
        std::atomic<std::thread::id> waiter{};
        runtime.Before(Tova::SemTimedWait, [&](RuntimeCall& call) {
            if (call.milliseconds == kSliceMs && std::this_thread::get_id() == waiter.load())
                waits.Open();
        });
        hook.On("b", "Init", [&](ModuleCall&) {
            inside.Open();
            waits.Wait();
        });
        JoiningThread starter([this] { Call(&Start); });
        inside.Wait();
        JoiningThread other([&] {
            waiter = std::this_thread::get_id();
            function();
        });
        starter.Join();
        other.Join();
        runtime.Before(Tova::SemTimedWait, nullptr);
        hook.Off("b", "Init");
    }
};

TEST_F(DuringAStartInAPluginCall, AStartOutsideWaitsAndCounts) {
    Meet(&Start);
    ExpectUsers(2);
}

TEST_F(DuringAStartInAPluginCall, AStopOutsideWaitsAndStops) {
    Meet(&VESSA_Uninit);
    ExpectUsers(0);
}

}  // namespace
}  // namespace vessa_test
