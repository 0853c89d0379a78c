#include "common/Closure.h"

#include <gtest/gtest.h>

#include "support/Allocation.h"

using vessa_test::AllocationFailure;
using vessa_test::LiveBlocks;

namespace {

struct Held {
    explicit Held(int& deletions) : deletions_(deletions) {}
    ~Held() { ++deletions_; }

  private:
    int& deletions_;
};

struct Callee {
    int calls = 0;
    unsigned first = 0;
    Held* second = nullptr;
    // Runs while the callee owns its copy of the second argument.
    ObjectPtrT<Closure>* let_go = nullptr;
    int deletions_inside = -1;
    int* deletions = nullptr;

    void Nothing() { ++calls; }
    void Two(unsigned number, ObjectPtrT<Held> held) {
        ++calls;
        first = number;
        second = held.Get();
        if (let_go != nullptr) let_go->Reset(nullptr);
        if (deletions != nullptr) deletions_inside = *deletions;
    }
    void TwoClosures(int, ObjectPtrT<Closure> inner) {
        ++calls;
        inner->Run();
    }
};

ObjectPtrT<Held> NewHeld(int& deletions) {
    ObjectPtrT<Held> held;
    held.Reset(new Held(deletions));
    return held;
}

TEST(Closure, RunsTheMemberFunctionEachTime) {
    Callee callee;
    const ObjectPtrT<Closure> closure = NewClosure(&callee, &Callee::Nothing);
    ASSERT_FALSE(closure.IsNull());
    EXPECT_EQ(callee.calls, 0);
    closure->Run();
    closure->Run();
    EXPECT_EQ(callee.calls, 2);
}

TEST(Closure, WithoutObjectOrMemberFunctionDoesNothing) {
    Callee callee;
    void (Callee::*const no_method)() = nullptr;
    void (Callee::*const no_method2)(unsigned, ObjectPtrT<Held>) = nullptr;
    Callee* const no_object = nullptr;
    NewClosure(no_object, &Callee::Nothing)->Run();
    NewClosure(&callee, no_method)->Run();
    NewClosure(no_object, &Callee::Two, 1U, ObjectPtrT<Held>())->Run();
    NewClosure(&callee, no_method2, 1U, ObjectPtrT<Held>())->Run();
    EXPECT_EQ(callee.calls, 0);
}

TEST(Closure, HandsItsStoredArgumentsOver) {
    int deletions = 0;
    Callee callee;
    ObjectPtrT<Held> held = NewHeld(deletions);
    const ObjectPtrT<Closure> closure = NewClosure(&callee, &Callee::Two, 30000U, held);
    closure->Run();
    EXPECT_EQ(callee.first, 30000U);
    EXPECT_EQ(callee.second, held.Get());
    callee.second = nullptr;
    closure->Run();
    EXPECT_EQ(callee.calls, 2);
    EXPECT_EQ(callee.second, held.Get());
    EXPECT_EQ(deletions, 0);
}

TEST(Closure, KeepsItsSecondArgumentAliveToItsOwnEnd) {
    int deletions = 0;
    Callee callee;
    ObjectPtrT<Closure> closure;
    {
        ObjectPtrT<Held> held = NewHeld(deletions);
        closure = NewClosure(&callee, &Callee::Two, 1U, held);
    }
    EXPECT_EQ(deletions, 0);
    closure->Run();
    closure->Run();
    EXPECT_EQ(deletions, 0);
    closure.Reset(nullptr);
    EXPECT_EQ(deletions, 1);
}

TEST(Closure, KeepsAClosureAliveThatIsItsLastReference) {
    int deletions = 0;
    Callee callee;
    Callee inner_callee;
    ObjectPtrT<Closure> outer;
    {
        ObjectPtrT<Held> held = NewHeld(deletions);
        ObjectPtrT<Closure> inner = NewClosure(&inner_callee, &Callee::Two, 5U, held);
        outer = NewClosure(&callee, &Callee::TwoClosures, 0, inner);
    }
    outer->Run();
    EXPECT_EQ(inner_callee.first, 5U);
    EXPECT_EQ(deletions, 0);
    outer.Reset(nullptr);
    EXPECT_EQ(deletions, 1);
}

TEST(Closure, TheCalleeOwnsACopyOfTheSecondArgument) {
    int deletions = 0;
    Callee callee;
    callee.deletions = &deletions;
    ObjectPtrT<Closure> closure;
    {
        ObjectPtrT<Held> held = NewHeld(deletions);
        closure = NewClosure(&callee, &Callee::Two, 1U, held);
    }
    callee.let_go = &closure;
    // The last reference from outside; the closure's own argument goes with the closure, the
    // callee's copy stays to the end of the call.
    const ObjectPtrT<Closure> running = closure;
    running->Run();
    EXPECT_TRUE(closure.IsNull());
    EXPECT_EQ(callee.deletions_inside, 0);
    EXPECT_EQ(deletions, 0);
}

TEST(Closure, TheCopyOfTheCalleeOutlivesTheClosure) {
    int deletions = 0;
    Callee callee;
    callee.deletions = &deletions;
    ObjectPtrT<Closure> closure;
    {
        ObjectPtrT<Held> held = NewHeld(deletions);
        closure = NewClosure(&callee, &Callee::Two, 1U, held);
    }
    Closure* const raw = closure.Get();
    callee.let_go = &closure;
    raw->Run();
    EXPECT_EQ(callee.deletions_inside, 0);
    EXPECT_EQ(deletions, 1);
}

template <class Make>
void FailEachAllocation(long expected_failures, Make make) {
    for (long n = 1;; ++n) {
        const long blocks_before = LiveBlocks();
        bool null = false;
        long failed = 0;
        {
            AllocationFailure failure(n);
            const ObjectPtrT<Closure> closure = make();
            null = closure.IsNull();
            failed = failure.Failed();
        }
        EXPECT_EQ(LiveBlocks(), blocks_before) << n;
        EXPECT_EQ(null, failed != 0) << n;
        if (failed == 0) {
            EXPECT_EQ(n, expected_failures + 1);
            break;
        }
    }
}

TEST(Closure, IsNullAndLeavesNothingBehindWhenAnAllocationFails) {
    Callee callee;
    FailEachAllocation(2, [&] { return NewClosure(&callee, &Callee::Nothing); });
    EXPECT_EQ(callee.calls, 0);
}

TEST(Closure, GivesItsArgumentBackWhenAnAllocationFails) {
    int deletions = 0;
    Callee callee;
    {
        ObjectPtrT<Held> held = NewHeld(deletions);
        FailEachAllocation(2, [&] { return NewClosure(&callee, &Callee::Two, 1U, held); });
        EXPECT_EQ(deletions, 0);
    }
    EXPECT_EQ(deletions, 1);
}

}  // namespace
