#include "common/RefObject.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "support/Allocation.h"
#include "support/Runtime.h"
#include "support/Sync.h"

using vessa_test::AllocationFailure;
using vessa_test::Barrier;
using vessa_test::JoiningThread;
using vessa_test::LiveBlocks;
using vessa_test::Runtime;
using vessa_test::Tova;

namespace {

struct Counted {
    explicit Counted(int& deletions) : deletions_(deletions) {}
    ~Counted() {
        ++deletions_;
        if (at_end) at_end();
    }
    std::function<void()> at_end;
    int value = 7;

  private:
    int& deletions_;
};

using Pointer = ObjectPtrT<Counted>;

TEST(RefObject, APointerIsNullAtFirst) {
    Pointer pointer;
    EXPECT_TRUE(pointer.IsNull());
    EXPECT_EQ(pointer.Get(), nullptr);
}

TEST(RefObject, ResetTakesTheObjectAndLetsItGoAtTheEnd) {
    int deletions = 0;
    {
        Pointer pointer;
        auto* const object = new Counted(deletions);
        pointer.Reset(object);
        EXPECT_FALSE(pointer.IsNull());
        EXPECT_EQ(pointer.Get(), object);
        EXPECT_EQ(pointer->value, 7);
        EXPECT_EQ((*pointer).value, 7);
        EXPECT_EQ(deletions, 0);
    }
    EXPECT_EQ(deletions, 1);
}

TEST(RefObject, TheLastOfThreeCopiesDeletesTheObjectOnceAndTheBlockWithIt) {
    const long blocks_before = LiveBlocks();
    int deletions = 0;
    {
        Pointer first;
        first.Reset(new Counted(deletions));
        auto second = std::make_unique<Pointer>(first);
        auto third = std::make_unique<Pointer>();
        *third = *second;
        EXPECT_EQ(third->Get(), first.Get());
        first.Reset(nullptr);
        EXPECT_TRUE(first.IsNull());
        EXPECT_EQ(deletions, 0);
        second.reset();
        EXPECT_EQ(deletions, 0);
        EXPECT_EQ((*third)->value, 7);
        third.reset();
        EXPECT_EQ(deletions, 1);
    }
    EXPECT_EQ(deletions, 1);
    EXPECT_EQ(LiveBlocks(), blocks_before);
}

TEST(RefObject, ACopyOfANullPointerIsNullAndTouchesNoCount) {
    const Pointer null;
    Runtime runtime;
    const Pointer copy(null);
    Pointer assigned;
    assigned = null;
    EXPECT_TRUE(copy.IsNull());
    EXPECT_TRUE(assigned.IsNull());
    EXPECT_EQ(runtime.Calls(Tova::AtomicAdd), 0);
    EXPECT_EQ(runtime.Calls(Tova::AtomicCas), 0);
}

TEST(RefObject, AssignmentToItselfKeepsTheObjectAndItsCount) {
    int deletions = 0;
    Pointer pointer;
    pointer.Reset(new Counted(deletions));
    Pointer& alias = pointer;
    pointer = alias;
    EXPECT_FALSE(pointer.IsNull());
    EXPECT_EQ(pointer->value, 7);
    EXPECT_EQ(deletions, 0);
    pointer.Reset(nullptr);
    EXPECT_EQ(deletions, 1);
}

TEST(RefObject, AssignmentReleasesTheFormerObject) {
    int first = 0;
    int second = 0;
    Pointer pointer;
    pointer.Reset(new Counted(first));
    Pointer other;
    other.Reset(new Counted(second));
    pointer = other;
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 0);
    EXPECT_EQ(pointer.Get(), other.Get());
}

TEST(RefObject, TheFormerObjectGoesAfterTheNewOneIsHeld) {
    int first = 0;
    int second = 0;
    Pointer pointer;
    auto* const old_object = new Counted(first);
    auto* const new_object = new Counted(second);
    pointer.Reset(old_object);
    Counted* held_at_deletion = nullptr;
    bool could_be_shared = false;
    old_object->at_end = [&] {
        held_at_deletion = pointer.Get();
        // The new count block exists already: a copy needs none.
        AllocationFailure none(1, AllocationFailure::Mode::kFromNth);
        const Pointer copy(pointer);
        could_be_shared = !copy.IsNull();
    };
    pointer.Reset(new_object);
    EXPECT_EQ(first, 1);
    EXPECT_EQ(held_at_deletion, new_object);
    EXPECT_TRUE(could_be_shared);
    EXPECT_EQ(second, 0);
}

TEST(RefObject, WithoutMemoryForTheBlockTheObjectStaysTheCallers) {
    const long blocks_before = LiveBlocks();
    int deletions = 0;
    {
        auto object = std::make_unique<Counted>(deletions);
        Pointer pointer;
        long failed = 0;
        {
            AllocationFailure failure(1);
            pointer.Reset(object.get());
            failed = failure.Failed();
        }
        EXPECT_EQ(failed, 1);
        EXPECT_TRUE(pointer.IsNull());
        EXPECT_EQ(deletions, 0);
        EXPECT_EQ(object->value, 7);
    }
    EXPECT_EQ(deletions, 1);
    EXPECT_EQ(LiveBlocks(), blocks_before);
}

TEST(RefObject, AFailedResetReleasesTheFormerObjectAllTheSame) {
    int first = 0;
    int second = 0;
    auto object = std::make_unique<Counted>(second);
    Pointer pointer;
    pointer.Reset(new Counted(first));
    {
        AllocationFailure failure(1);
        pointer.Reset(object.get());
    }
    EXPECT_TRUE(pointer.IsNull());
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 0);
}

TEST(RefObject, ACopyNeedsNoMemory) {
    int deletions = 0;
    Pointer pointer;
    pointer.Reset(new Counted(deletions));
    bool copied = false;
    bool assigned = false;
    {
        AllocationFailure none(1, AllocationFailure::Mode::kFromNth);
        const Pointer copy(pointer);
        Pointer other;
        other = pointer;
        copied = !copy.IsNull();
        assigned = !other.IsNull();
    }
    EXPECT_TRUE(copied);
    EXPECT_TRUE(assigned);
}

TEST(RefObject, AssignOfAPairWithoutABlockMakesOne) {
    int deletions = 0;
    {
        Pointer pointer;
        pointer.Assign(new Counted(deletions), nullptr);
        EXPECT_FALSE(pointer.IsNull());
        const Pointer copy(pointer);
        EXPECT_EQ(copy.Get(), pointer.Get());
    }
    EXPECT_EQ(deletions, 1);

    auto object = std::make_unique<Counted>(deletions);
    Pointer refused;
    {
        AllocationFailure failure(1);
        refused.Assign(object.get(), nullptr);
    }
    EXPECT_TRUE(refused.IsNull());
    EXPECT_EQ(deletions, 1);
}

TEST(RefObject, AssignOfAPairWithoutAnObjectIsNullAndLeavesTheBlockAlone) {
    int deletions = 0;
    auto* const block = new RefObject<Counted>(new Counted(deletions));
    block->AddStrong();
    {
        Pointer pointer;
        pointer.Assign(nullptr, block);
        EXPECT_TRUE(pointer.IsNull());
    }
    EXPECT_EQ(deletions, 0);
    block->ReleaseStrong();
    EXPECT_EQ(deletions, 1);
}

TEST(RefObject, ABlockDeletesItsObjectOnlyOnce) {
    int deletions = 0;
    RefObject<Counted> block(new Counted(deletions));
    RefObjectBase& base = block;
    base.DestroyObject();
    EXPECT_EQ(deletions, 1);
    base.DestroyObject();
    EXPECT_EQ(deletions, 1);
}

TEST(RefObject, ABlockFreesItself) {
    const long blocks_before = LiveBlocks();
    int deletions = 0;
    RefObjectBase* const block = new RefObject<Counted>(new Counted(deletions));
    block->DestroyObject();
    block->DestroySelf();
    EXPECT_EQ(deletions, 1);
    EXPECT_EQ(LiveBlocks(), blocks_before);
}

TEST(RefObject, DeletesThroughTheVirtualDestructor) {
    struct Base {
        virtual ~Base() = default;
    };
    struct Derived : Base {
        explicit Derived(bool& ended) : ended_(ended) {}
        ~Derived() override { ended_ = true; }
        bool& ended_;
    };
    bool ended = false;
    {
        ObjectPtrT<Base> pointer;
        pointer.Reset(new Derived(ended));
        EXPECT_FALSE(ended);
    }
    EXPECT_TRUE(ended);
}

// Each round every thread writes into its part of the object and lets its copy go; whichever
// thread deletes the object has to see what all of them wrote.
TEST(RefObject, TheDeletingThreadSeesWhatTheOthersWrote) {
    constexpr int kThreads = 3;
    constexpr int kRounds = 500;
    struct Shared {
        explicit Shared(std::atomic<int>& sum) : sum_(sum) {}
        ~Shared() { sum_ += parts[0] + parts[1] + parts[2]; }
        int parts[kThreads] = {};
        std::atomic<int>& sum_;
    };
    std::atomic<int> sum{0};
    ObjectPtrT<Shared> source;
    Barrier barrier(kThreads + 1);
    {
        std::vector<std::unique_ptr<JoiningThread>> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.push_back(std::make_unique<JoiningThread>([&, i] {
                for (int round = 0; round < kRounds; ++round) {
                    barrier.ArriveAndWait();
                    auto copy = std::make_unique<ObjectPtrT<Shared>>(source);
                    barrier.ArriveAndWait();
                    const ObjectPtrT<Shared> second(*copy);
                    (*copy)->parts[i] = 1;
                    copy.reset();
                }
            }));
        }
        for (int round = 0; round < kRounds; ++round) {
            source.Reset(new Shared(sum));
            barrier.ArriveAndWait();
            barrier.ArriveAndWait();
            source.Reset(nullptr);
        }
    }
    EXPECT_EQ(sum, kThreads * kRounds);
}

}  // namespace
