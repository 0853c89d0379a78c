// Every export with each of its allocations failing in turn, alone or together with all later
// ones, with all messages and with none: a documented result, cleared out parameters, and a
// library that can be used and stopped afterwards and leaves nothing loaded.
#include <cstring>
#include <string>
#include <tuple>

#include "TestPlatform.h"
#include "skrib.h"
#include "support/Allocation.h"
#include "support/ModuleHook.h"
#include "support/Runtime.h"
#include "unit/LifeCycleWorld.h"

// The XML parser loses its nodes when it runs out of memory between two of them.
extern "C" PROGRAM_EXPORT const char* __lsan_default_suppressions();
const char* __lsan_default_suppressions() {
    return "leak:TiXml\n";
}

namespace vessa_test {
namespace {

using Mode = AllocationFailure::Mode;

class EveryFailingAllocation : public LifeCycleTest,
                               public testing::WithParamInterface<std::tuple<Mode, int>> {
  protected:
    EveryFailingAllocation() : log(std::get<1>(GetParam())) {}

    void SetUp() override {
        LifeCycleTest::SetUp();
        world.Add("a", "map_two", {{"loadfkeys", "true"}});
        world.AddDelayed("d");
        // Once without a failure: what is made once for the process is made now.
        UseAndStop();
    }

    // Calls the operation with the nth allocation failing; whether one did.
    template <class Operation>
    bool FailNth(long nth, Operation operation) {
        AllocationFailure failure(nth, std::get<0>(GetParam()));
        operation();
        return failure.Failed() != 0;
    }

    // round(n) until it gives false: nothing failed any more.
    template <class Round>
    void ForEachAllocation(Round round) {
        for (long nth = 1;; ++nth) {
            SCOPED_TRACE("allocation " + std::to_string(nth));
            if (!round(nth)) break;
            ASSERT_LT(nth, 10000);
            if (HasFailure()) return;
        }
    }

    // A whole life; nothing may be loaded after it.
    void UseAndStop() {
        ASSERT_EQ(VESSA_Init(), VESSA_OK);
        UseStarted();
        VESSA_Uninit();
        ExpectNothingLoaded();
    }
    void UseStarted() {
        for (const char* fkey : {"a", "b", "d"}) Destroy(Create(fkey));
    }
    void ExpectNothingLoaded() {
        EXPECT_TRUE(LifeCycle::Get()->IsQuiet());
        const RuntimeCensus census = Runtime::Census();
        EXPECT_EQ(census.modules, 0);
        EXPECT_EQ(census.threads, 0);
        EXPECT_EQ(census.folders, 0);
    }

    World world;
    LogCapture log;
};

TEST_P(EveryFailingAllocation, OfAStart) {
    bool refused = false;
    ForEachAllocation([&](long nth) {
        int result = 99;
        const bool failed = FailNth(nth, [&] { result = VESSA_Init(); });
        EXPECT_TRUE(result == VESSA_OK || result == VESSA_FAILED) << result;
        refused = refused || result == VESSA_FAILED;
        if (result == VESSA_OK) VESSA_Uninit();
        // What a failed start registered goes with the next stop.
        EXPECT_EQ(VESSA_Init(), VESSA_OK);
        VESSA_Uninit();
        UseAndStop();
        return failed;
    });
    EXPECT_TRUE(refused);
}

TEST_P(EveryFailingAllocation, OfAStop) {
    ForEachAllocation([&](long nth) {
        EXPECT_EQ(VESSA_Init(), VESSA_OK);
        Destroy(Create("d"));
        log.Clear();
        const bool failed = FailNth(nth, [] { VESSA_Uninit(); });
        // Messages may be missing, nothing else.
        EXPECT_EQ(log.Count("4 shutdown plugin coordinator failed, and ignored"), 0);
        EXPECT_FALSE(LifeCycle::Get()->coordinator().IsRunning());
        ExpectNothingLoaded();
        UseAndStop();
        return failed;
    });
}

TEST_P(EveryFailingAllocation, OfACreateThatLoadsTheModule) {
    bool refused = false;
    ForEachAllocation([&](long nth) {
        EXPECT_EQ(VESSA_Init(), VESSA_OK);
        void* instance = &world;
        int error = 99;
        int result = 99;
        const bool failed =
            FailNth(nth, [&] { result = VESSA_CreateInstance("d", &instance, &error); });
        EXPECT_EQ(error, 0);
        if (result == VESSA_OK) {
            Destroy(instance);
        } else {
            EXPECT_EQ(result, VESSA_ERR_OUT_OF_MEMORY);
            EXPECT_EQ(instance, nullptr);
            refused = true;
        }
        UseStarted();
        VESSA_Uninit();
        ExpectNothingLoaded();
        return failed;
    });
    EXPECT_TRUE(refused);
}

TEST_P(EveryFailingAllocation, OfADestroy) {
    EXPECT_EQ(VESSA_Init(), VESSA_OK);
    ForEachAllocation([&](long nth) {
        void* const instance = Create("d");
        int error = 99;
        int result = 99;
        const bool failed = FailNth(nth, [&] { result = VESSA_DestroyInstance(instance, &error); });
        EXPECT_EQ(error, 0);
        if (result != VESSA_OK) {
            // Untouched then.
            EXPECT_EQ(result, VESSA_ERR_OUT_OF_MEMORY);
            Destroy(instance);
        }
        return failed;
    });
    VESSA_Uninit();
    ExpectNothingLoaded();
}

TEST_P(EveryFailingAllocation, OfADestroyThatUnloadsTheModule) {
    ForEachAllocation([&](long nth) {
        EXPECT_EQ(VESSA_Init(), VESSA_OK);
        void* const instance = Create("d");
        VESSA_Uninit();
        int result = 99;
        const bool failed =
            FailNth(nth, [&] { result = VESSA_DestroyInstance(instance, nullptr); });
        if (result != VESSA_OK) {
            EXPECT_EQ(result, VESSA_ERR_OUT_OF_MEMORY);
            Destroy(instance);
        }
        UseAndStop();
        return failed;
    });
}

TEST_P(EveryFailingAllocation, OfAQuery) {
    EXPECT_EQ(VESSA_Init(), VESSA_OK);
    void* const instance = Create("d");
    const char* const ikey = "an interface key that is too long to be kept in place";
    ForEachAllocation([&](long nth) {
        void* found = &world;
        int error = 99;
        int result = 99;
        const bool failed =
            FailNth(nth, [&] { result = VESSA_QueryInterface(instance, ikey, &found, &error); });
        EXPECT_EQ(found, nullptr);
        if (result == VESSA_ERR_OUT_OF_MEMORY) {
            EXPECT_TRUE(failed);
            EXPECT_EQ(error, 0);
        } else {
            EXPECT_EQ(result, VESSA_FAILED);
            EXPECT_EQ(error, 5);
        }
        return failed;
    });
    Destroy(instance);
    VESSA_Uninit();
}

TEST_P(EveryFailingAllocation, OfAnAttributeQueryIsNone) {
    EXPECT_EQ(VESSA_Init(), VESSA_OK);
    char value[64] = "untouched";
    unsigned int length = sizeof value;
    int result = 99;
    const bool failed =
        FailNth(1, [&] { result = VESSA_QueryConfigAttribute("d", "delayload", value, &length); });
    EXPECT_FALSE(failed);
    EXPECT_EQ(result, VESSA_OK);
    EXPECT_STREQ(value, "true");
    VESSA_Uninit();
}

TEST_P(EveryFailingAllocation, OfTheListOfFkeys) {
    EXPECT_EQ(VESSA_Init(), VESSA_OK);
    int without_array = 0;
    int with_gaps = 0;
    ForEachAllocation([&](long nth) {
        char* nothing = nullptr;
        char** fkeys = &nothing;
        unsigned int count = 99;
        int result = 99;
        const bool failed = FailNth(nth, [&] { result = VESSA_QueryAllFkeys(&fkeys, &count); });
        if (result == VESSA_OK) {
            EXPECT_EQ(count, 2u);
            EXPECT_STREQ(fkeys[0], "a");
            EXPECT_STREQ(fkeys[1], "d");
        } else {
            EXPECT_EQ(result, VESSA_ERR_OUT_OF_MEMORY);
            EXPECT_NE(fkeys, &nothing);
            if (fkeys == nullptr) {
                ++without_array;
                return failed;
            }
            ++with_gaps;
            EXPECT_EQ(count, 2u);
            EXPECT_EQ(fkeys[1], nullptr);
        }
        const bool release_allocates =
            FailNth(1, [&] { result = VESSA_ReleaseAllFkeys(fkeys, count); });
        EXPECT_FALSE(release_allocates);
        EXPECT_EQ(result, VESSA_OK);
        return failed;
    });
    EXPECT_GT(without_array, 0);
    EXPECT_EQ(with_gaps, 2);
    if (std::get<1>(GetParam()) <= SKRIB_LEVEL_ERROR) {
        EXPECT_EQ(log.Count("5 create fkeys vector failed, fkeynum [0]"), 1);
        EXPECT_EQ(log.Count("5 create fkey buffer failed, out of memory, bufsize=[0]"), 2);
    }
    VESSA_Uninit();
}

INSTANTIATE_TEST_SUITE_P(
    Modes, EveryFailingAllocation,
    testing::Combine(testing::Values(Mode::kNth, Mode::kFromNth),
                     testing::Values(SKRIB_LEVEL_TRACE, SKRIB_LEVEL_OFF)),
    [](const auto& mode) {
        return std::string(std::get<0>(mode.param) == Mode::kNth ? "Alone" : "AndAllLaterOnes") +
               (std::get<1>(mode.param) == SKRIB_LEVEL_OFF ? "Silently" : "Logged");
    });

}  // namespace
}  // namespace vessa_test
