// Starts and stops from inside every kind of plug-in call, on application threads and on the
// scanning thread.
#include <algorithm>
#include <string>
#include <vector>

#include "unit/LifeCycleSlots.h"

namespace vessa_test {
namespace {

using Lines = std::vector<std::string>;
using InEverySlot = SlotTest;

// The lines from the first one of this text on.
Lines From(const Lines& lines, const std::string& first) {
    return Lines(std::find(lines.begin(), lines.end(), first), lines.end());
}

TEST_P(InEverySlot, AStartIsCountedAndTakenBack) {
    LogCapture log(3);
    Lines seen;
    Prepare([&] {
        log.Clear();
        EXPECT_EQ(VESSA_Init(), Is(Reached::kStop) ? VESSA_FAILED : VESSA_OK);
        VESSA_Uninit();
        seen = LifeLines(log, true);
    });
    EXPECT_TRUE(Enter());
    if (Is(Reached::kStart)) {
        EXPECT_TRUE(LinesAre(seen, {"3 invoke vessa init", "3 invode Run func", "4 already run",
                                    "3 init vessa succeeded", "3 invoke vessa uninit"}));
    } else if (Is(Reached::kStop)) {
        EXPECT_TRUE(LinesAre(seen, {"3 invoke vessa init", "5 run plugin coordinator failed",
                                    "3 invoke vessa uninit", "4 vessa not init yet"}));
    } else {
        EXPECT_TRUE(LinesAre(
            seen, {"3 invoke vessa init", "3 vessa already init, init counter value 2",
                   "3 invoke vessa uninit", "3 need not uninit vessa yet, init counter value 1"}));
    }
    // One user is left: the application.
    log.Clear();
    FinishStarted();
    EXPECT_EQ(log.Count("3 uninit vessa succeeded"), Is(Reached::kStop) ? 0 : 1);
}

TEST_P(InEverySlot, AUserThatTheModuleKeepsOutlivesTheApplications) {
    Prepare([&] {
        if (!Is(Reached::kStop)) {
            EXPECT_EQ(VESSA_Init(), VESSA_OK);
        }
    });
    EXPECT_TRUE(Enter());
    if (!Is(Reached::kStop)) {
        LogCapture log(3);
        VESSA_Uninit();
        EXPECT_TRUE(LinesAre(LifeLines(log), {"3 invoke vessa uninit",
                                              "3 need not uninit vessa yet, init counter value "
                                              "1"}));
    }
    FinishStarted();
}

TEST_P(InEverySlot, TheLastStopIsCarriedOutAtTheEndOfTheOutermostFrame) {
    LogCapture log(1);
    bool ran_inside = false;
    Prepare([&] {
        log.Clear();
        VESSA_Uninit();
        ran_inside = LifeCycle::Get()->coordinator().IsRunning();
        EXPECT_EQ(log.Count("3 uninit vessa succeeded"), 0);
    });
    const bool waits_again = Enter();
    if (Is(Reached::kStart) || Is(Reached::kStop)) {
        // Nobody is counted yet or any more.
        EXPECT_TRUE(log.Contains("4 vessa not init yet"));
        FinishStarted();
        return;
    }
    EXPECT_TRUE(ran_inside);
    const Lines lines = LifeLines(log, true);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "3 invoke vessa uninit"), 1);
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines.front(), "3 invoke vessa uninit");
    EXPECT_EQ(lines.back(), "3 uninit vessa succeeded");
    const Lines stop = From(lines, "3 invoke Shutdown func");
    EXPECT_EQ(std::count(stop.begin(), stop.end(), "3 invoke Shutdown func"), 1);
    // What the frame had to say comes before the stop.
    for (const std::string& line : stop)
        EXPECT_EQ(line.find("plugin provider "), std::string::npos) << line;
    EXPECT_EQ(waits_again, !GetParam().IsOnScanningThread());
    FinishStopped();
}

TEST_P(InEverySlot, AStopThatIsPutOffIsDroppedWhenTheCallStartsAgain) {
    LogCapture log(3);
    Prepare([&] {
        if (Is(Reached::kStart) || Is(Reached::kStop)) return;
        log.Clear();
        VESSA_Uninit();
        EXPECT_EQ(VESSA_Init(), VESSA_OK);
        EXPECT_TRUE(LinesAre(LifeLines(log, true),
                             {"3 invoke vessa uninit", "3 invoke vessa init", "3 invode Run func",
                              "4 already run", "3 init vessa succeeded"}));
        log.Clear();
    });
    EXPECT_TRUE(Enter());
    if (!Is(Reached::kStop)) {
        EXPECT_EQ(log.Count("3 invoke Shutdown func"), 0);
    }
    FinishStarted();
}

INSTANTIATE_TEST_SUITE_P(Slots, InEverySlot, testing::ValuesIn(AllSlots()),
                         [](const auto& slot) { return slot.param.Name(); });

// After a stop on its own thread the scanning thread ends; the next start has a new one.
TEST_F(LifeCycleTest, StartsAgainAfterAStopOnTheScanningThread) {
    World world;
    world.AddDelayed("0_first");
    Runtime runtime;
    ModuleHook hook;
    hook.On("m", "Init", [](ModuleCall&) { VESSA_Uninit(); });
    ASSERT_EQ(VESSA_Init(), VESSA_OK);
    world.Add("m");
    EXPECT_FALSE(runtime.Tick());
    EXPECT_FALSE(LifeCycle::Get()->coordinator().IsRunning());
    hook.Off("m", "Init");
    ASSERT_EQ(VESSA_Init(), VESSA_OK);
    Destroy(Create("m"));
    world.Add("n");
    EXPECT_TRUE(runtime.Tick());
    Destroy(Create("n"));
    VESSA_Uninit();
    EXPECT_EQ(Runtime::Census().threads, 0);
}

}  // namespace
}  // namespace vessa_test
