#include "common/ThreadScope.h"

#include <gtest/gtest.h>

#include <new>
#include <stdexcept>

#include "ThreadSlots.h"
#include "common/RegistryGate.h"
#include "support/Allocation.h"
#include "support/Child.h"
#include "support/Sync.h"

using vessa_test::AllocationFailure;
using vessa_test::ChildResult;
using vessa_test::IsChild;
using vessa_test::JoiningThread;
using vessa_test::LiveBlocks;
using vessa_test::RunChild;
using vessa_test::TakeEveryThreadSlot;
using vessa_test::ThisTestAsChild;

namespace {

int at_end_runs = 0;
int asks_left = 0;
bool inside_a_frame = false;
bool inside_a_plugin_call = false;

void CountTheEnd() {
    ++at_end_runs;
    const ThreadState* const state = ThreadScope::Current();
    inside_a_frame = state != nullptr && state->frames == 1;
    inside_a_plugin_call = ThreadScope::InPluginCall();
}

void AskAgain() {
    CountTheEnd();
    if (asks_left-- > 0) ThreadScope().State().at_end = &AskAgain;
}

class ThreadScopeAtEnd : public testing::Test {
  protected:
    void SetUp() override {
        at_end_runs = 0;
        asks_left = 0;
        inside_a_frame = false;
        inside_a_plugin_call = false;
    }
};

TEST(ThreadScope, OutsideEveryFrameThereIsNoState) {
    EXPECT_EQ(ThreadScope::Current(), nullptr);
    EXPECT_FALSE(ThreadScope::InPluginCall());
}

TEST(ThreadScope, FramesNestAndShareTheOutermostState) {
    {
        ThreadScope outer;
        ThreadState* const state = &outer.State();
        EXPECT_EQ(ThreadScope::Current(), state);
        EXPECT_EQ(state->frames, 1);
        {
            ThreadScope inner;
            EXPECT_EQ(&inner.State(), state);
            EXPECT_EQ(state->frames, 2);
            state->starting = true;
        }
        EXPECT_EQ(ThreadScope::Current(), state);
        EXPECT_EQ(state->frames, 1);
        EXPECT_TRUE(state->starting);
    }
    EXPECT_EQ(ThreadScope::Current(), nullptr);
}

TEST(ThreadScope, ANewOutermostFrameStartsAfresh) {
    {
        ThreadScope scope;
        scope.State().starting = true;
        scope.State().timer = &scope;
    }
    ThreadScope scope;
    EXPECT_FALSE(scope.State().starting);
    EXPECT_EQ(scope.State().timer, nullptr);
    EXPECT_EQ(scope.State().plugin_calls, 0);
    EXPECT_EQ(scope.State().holds, nullptr);
}

TEST(ThreadScope, EachThreadHasItsOwnState) {
    ThreadScope scope;
    PluginCallScope call;
    bool other_null = false;
    bool other_in_call = true;
    ThreadState* other_state = nullptr;
    JoiningThread other([&] {
        other_null = ThreadScope::Current() == nullptr;
        other_in_call = ThreadScope::InPluginCall();
        ThreadScope own;
        other_state = &own.State();
    });
    other.Join();
    EXPECT_TRUE(other_null);
    EXPECT_FALSE(other_in_call);
    EXPECT_NE(other_state, &scope.State());
    EXPECT_TRUE(ThreadScope::InPluginCall());
}

TEST(ThreadScope, NeedsNoMemory) {
    const long blocks_before = LiveBlocks();
    bool in_call = false;
    long allocations = 0;
    {
        AllocationFailure none(1, AllocationFailure::Mode::kFromNth);
        {
            ThreadScope outer;
            PluginCallScope call;
            in_call = ThreadScope::InPluginCall();
        }
        allocations = none.Count();
    }
    EXPECT_TRUE(in_call);
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(LiveBlocks(), blocks_before);
}

TEST(ThreadScope, AnExceptionTakesTheFrameAway) {
    EXPECT_THROW(
        {
            ThreadScope outer;
            PluginCallScope call;
            throw std::runtime_error("inside");
        },
        std::runtime_error);
    EXPECT_EQ(ThreadScope::Current(), nullptr);

    ThreadScope outer;
    EXPECT_THROW(
        {
            PluginCallScope call;
            throw std::runtime_error("inside");
        },
        std::runtime_error);
    EXPECT_EQ(outer.State().frames, 1);
    EXPECT_FALSE(ThreadScope::InPluginCall());
}

TEST(PluginCallScope, CountsTheCallsOnTheStack) {
    ThreadScope outer;
    EXPECT_FALSE(ThreadScope::InPluginCall());
    {
        PluginCallScope call;
        EXPECT_TRUE(ThreadScope::InPluginCall());
        {
            ThreadScope nested_export;
            PluginCallScope nested_call;
            EXPECT_EQ(outer.State().plugin_calls, 2);
        }
        EXPECT_TRUE(ThreadScope::InPluginCall());
    }
    EXPECT_FALSE(ThreadScope::InPluginCall());
    EXPECT_EQ(outer.State().frames, 1);
}

TEST(PluginCallScope, IsAFrameByItself) {
    {
        PluginCallScope call;
        ASSERT_NE(ThreadScope::Current(), nullptr);
        EXPECT_EQ(ThreadScope::Current()->frames, 1);
        EXPECT_TRUE(ThreadScope::InPluginCall());
    }
    EXPECT_EQ(ThreadScope::Current(), nullptr);
}

TEST_F(ThreadScopeAtEnd, RunsOnceWhenTheOutermostFrameEnds) {
    {
        ThreadScope outer;
        {
            PluginCallScope call;
            ThreadScope inner;
            inner.State().at_end = &CountTheEnd;
        }
        EXPECT_EQ(at_end_runs, 0);
    }
    EXPECT_EQ(at_end_runs, 1);
    EXPECT_TRUE(inside_a_frame);
    EXPECT_FALSE(inside_a_plugin_call);
    EXPECT_EQ(ThreadScope::Current(), nullptr);
    { ThreadScope another; }
    EXPECT_EQ(at_end_runs, 1);
}

TEST_F(ThreadScopeAtEnd, RunsAgainWhenItAsksForIt) {
    asks_left = 3;
    {
        ThreadScope outer;
        outer.State().at_end = &AskAgain;
    }
    EXPECT_EQ(at_end_runs, 4);
    EXPECT_EQ(ThreadScope::Current(), nullptr);
}

TEST_F(ThreadScopeAtEnd, RunsAfterTheCountOfAnOutermostPluginCallIsGone) {
    {
        PluginCallScope call;
        ThreadScope::Current()->at_end = &CountTheEnd;
    }
    EXPECT_EQ(at_end_runs, 1);
    EXPECT_FALSE(inside_a_plugin_call);
}

TEST_F(ThreadScopeAtEnd, RunsAlsoWhenAnExceptionEndsTheFrame) {
    try {
        ThreadScope outer;
        outer.State().at_end = &CountTheEnd;
        throw std::runtime_error("inside");
    } catch (const std::runtime_error&) {
    }
    EXPECT_EQ(at_end_runs, 1);
    EXPECT_EQ(ThreadScope::Current(), nullptr);
}

// In a process of its own: the library asks for its slot only once.
TEST(ThreadScope, ThrowsOutOfMemoryWhenTheSystemHasNoSlotLeft) {
    if (!IsChild()) {
        const ChildResult result = RunChild(ThisTestAsChild());
        EXPECT_TRUE(result.Exited(0)) << result;
        return;
    }
    TakeEveryThreadSlot();
    EXPECT_THROW(ThreadScope(), std::bad_alloc);
    EXPECT_THROW(PluginCallScope(), std::bad_alloc);
    RegistryGate gate;
    EXPECT_THROW(GatePass(gate, GatePass::AsReader()), std::bad_alloc);
    EXPECT_THROW(GatePass(gate, GatePass::AsWriter()), std::bad_alloc);
    EXPECT_EQ(gate.Readers(), 0);
    EXPECT_EQ(ThreadScope::Current(), nullptr);
}

}  // namespace
