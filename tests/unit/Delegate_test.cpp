#include "common/Delegate.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/Allocation.h"
#include "support/Runtime.h"
#include "support/Sync.h"

using vessa_test::AllocationFailure;
using vessa_test::Barrier;
using vessa_test::Gate;
using vessa_test::JoiningThread;
using vessa_test::LiveBlocks;
using vessa_test::Runtime;

namespace {

using Texts = std::vector<std::string>;
using Signature = void(int, const Texts&);
using Target = ObjectPtrT<IDelegate<Signature>>;

struct Receiver {
    int calls = 0;
    int last = 0;
    const Texts* list = nullptr;
    std::function<void()> inside;

    void Take(int number, const Texts& texts) {
        ++calls;
        last = number;
        list = &texts;
        if (inside) inside();
    }
    void Other(int, const Texts&) { ++calls; }
};
using ReceiverDelegate = ClassDelegate<void (Receiver::*)(int, const Texts&)>;

// A target of another kind that tells of its end.
struct Watched final : IDelegate<Signature> {
    explicit Watched(std::function<void()> end) : at_end(std::move(end)) {}
    ~Watched() override {
        if (at_end) at_end();
    }
    IDelegate* Clone() const override { return nullptr; }
    bool Equals(const IDelegate&) const override { return false; }
    bool IsEmpty() const override { return false; }
    void Invoke(int, const Texts&) override { ++calls; }
    bool InvokeIfBound(int, const Texts&) override { return true; }
    std::function<void()> at_end;
    int calls = 0;
};

Target TargetOf(Receiver& receiver) {
    Target target;
    target.Reset(new ReceiverDelegate(&Receiver::Take, &receiver));
    return target;
}

TEST(ClassDelegate, InvokesTheMemberFunctionWithTheArguments) {
    Receiver receiver;
    ReceiverDelegate target(&Receiver::Take, &receiver);
    const Texts texts = {"a"};
    target.Invoke(3, texts);
    EXPECT_EQ(receiver.calls, 1);
    EXPECT_EQ(receiver.last, 3);
    // A reference goes through as it is, without a copy.
    EXPECT_EQ(receiver.list, &texts);
    EXPECT_TRUE(target.InvokeIfBound(4, texts));
    EXPECT_EQ(receiver.calls, 2);
    EXPECT_EQ(receiver.last, 4);
}

TEST(ClassDelegate, IsEmptyWhenTheObjectOrTheMemberFunctionIsNull) {
    Receiver receiver;
    EXPECT_FALSE(ReceiverDelegate(&Receiver::Take, &receiver).IsEmpty());
    EXPECT_TRUE(ReceiverDelegate(nullptr, &receiver).IsEmpty());
    EXPECT_TRUE(ReceiverDelegate(&Receiver::Take, nullptr).IsEmpty());
    EXPECT_TRUE(ReceiverDelegate(nullptr, nullptr).IsEmpty());
}

TEST(ClassDelegate, InvokeIfBoundRefusesAnIncompleteTarget) {
    Receiver receiver;
    EXPECT_FALSE(ReceiverDelegate(nullptr, &receiver).InvokeIfBound(1, {}));
    EXPECT_FALSE(ReceiverDelegate(&Receiver::Take, nullptr).InvokeIfBound(1, {}));
    EXPECT_FALSE(ReceiverDelegate(nullptr, nullptr).InvokeIfBound(1, {}));
    EXPECT_EQ(receiver.calls, 0);
}

TEST(ClassDelegate, InvokeOfNothingAtAllDoesNothing) {
    const long blocks_before = LiveBlocks();
    ReceiverDelegate target(nullptr, nullptr);
    target.Invoke(1, {});
    EXPECT_TRUE(target.IsEmpty());
    EXPECT_EQ(LiveBlocks(), blocks_before);
}

TEST(ClassDelegate, EqualsTheSameObjectAndMemberFunctionOnly) {
    Receiver receiver;
    Receiver another;
    const ReceiverDelegate target(&Receiver::Take, &receiver);
    EXPECT_TRUE(target.Equals(ReceiverDelegate(&Receiver::Take, &receiver)));
    EXPECT_TRUE(target.Equals(target));
    EXPECT_FALSE(target.Equals(ReceiverDelegate(&Receiver::Take, &another)));
    EXPECT_FALSE(target.Equals(ReceiverDelegate(&Receiver::Other, &receiver)));
}

TEST(ClassDelegate, NeverEqualsATargetOfAnotherKind) {
    Receiver receiver;
    const ReceiverDelegate target(&Receiver::Take, &receiver);
    const Watched other(nullptr);
    EXPECT_FALSE(target.Equals(other));
}

TEST(ClassDelegate, CloneIsAnEqualTargetOfItsOwn) {
    Receiver receiver;
    const ReceiverDelegate target(&Receiver::Take, &receiver);
    const std::unique_ptr<IDelegate<Signature>> clone(target.Clone());
    ASSERT_NE(clone, nullptr);
    EXPECT_NE(clone.get(), static_cast<const IDelegate<Signature>*>(&target));
    EXPECT_TRUE(clone->Equals(target));
    clone->Invoke(5, {});
    EXPECT_EQ(receiver.last, 5);
}

TEST(ClassDelegate, CloneIsNullWithoutMemory) {
    Receiver receiver;
    const ReceiverDelegate target(&Receiver::Take, &receiver);
    IDelegate<Signature>* clone = nullptr;
    {
        AllocationFailure failure(1);
        clone = target.Clone();
    }
    EXPECT_EQ(clone, nullptr);
}

TEST(Delegate, WithoutATargetDoesNothing) {
    const Delegate<Signature> delegate;
    EXPECT_TRUE(delegate.Get().IsNull());
    const long blocks_before = LiveBlocks();
    delegate(1, {});
    EXPECT_EQ(LiveBlocks(), blocks_before);
}

TEST(Delegate, CallsTheTargetThatWasSetLast) {
    Receiver first;
    Receiver second;
    Delegate<Signature> delegate;
    delegate.Set(TargetOf(first));
    delegate(1, {"x"});
    EXPECT_EQ(first.last, 1);
    delegate.Set(TargetOf(second));
    delegate(2, {});
    EXPECT_EQ(first.last, 1);
    EXPECT_EQ(second.last, 2);
    delegate.Set(Target());
    delegate(3, {});
    EXPECT_EQ(first.calls + second.calls, 2);
}

TEST(Delegate, GetSharesTheTarget) {
    Receiver receiver;
    Delegate<Signature> delegate;
    const Target target = TargetOf(receiver);
    delegate.Set(target);
    EXPECT_EQ(delegate.Get().Get(), target.Get());
}

TEST(Delegate, ReleasesItsTargetWithItself) {
    int ends = 0;
    {
        Delegate<Signature> delegate;
        Target target;
        target.Reset(new Watched([&] { ++ends; }));
        delegate.Set(target);
        target.Reset(nullptr);
        EXPECT_EQ(ends, 0);
    }
    EXPECT_EQ(ends, 1);
}

// A copy must not share the native mutex: two destructors would destroy one.
TEST(Delegate, ACopySharesTheTargetAndHasAMutexOfItsOwn) {
    static_assert(std::is_copy_constructible_v<Delegate<Signature>>);
    Receiver first;
    Receiver second;
    const auto before = Runtime::Census();
    {
        Delegate<Signature> delegate;
        delegate.Set(TargetOf(first));
        auto copy = std::make_unique<Delegate<Signature>>(delegate);
        EXPECT_EQ(Runtime::Census().mutexes, before.mutexes + 2);
        EXPECT_EQ(copy->Get().Get(), delegate.Get().Get());
        copy->Set(TargetOf(second));
        delegate(1, {});
        (*copy)(2, {});
        EXPECT_EQ(first.last, 1);
        EXPECT_EQ(second.last, 2);
        copy.reset();
        EXPECT_EQ(Runtime::Census().mutexes, before.mutexes + 1);
        delegate(3, {});
        EXPECT_EQ(first.last, 3);
    }
    EXPECT_EQ(Runtime::Census(), before);
}

TEST(Delegate, AssignmentTakesOverTheTargetAndKeepsItsMutex) {
    Receiver receiver;
    int ends = 0;
    const auto before = Runtime::Census();
    {
        Delegate<Signature> source;
        source.Set(TargetOf(receiver));
        Delegate<Signature> delegate;
        Target former;
        former.Reset(new Watched([&] { ++ends; }));
        delegate.Set(former);
        former.Reset(nullptr);
        delegate = source;
        EXPECT_EQ(ends, 1);
        EXPECT_EQ(Runtime::Census().mutexes, before.mutexes + 2);
        EXPECT_EQ(delegate.Get().Get(), source.Get().Get());
        Delegate<Signature>& alias = delegate;
        delegate = alias;
        delegate(6, {});
        EXPECT_EQ(receiver.last, 6);
    }
    EXPECT_EQ(Runtime::Census(), before);
}

TEST(Delegate, ARunningCallEndsOnTheOldTargetAndTheNextUsesTheNewOne) {
    Receiver old_receiver;
    Receiver new_receiver;
    Gate inside;
    Gate go_on;
    int ends = 0;
    Delegate<Signature> delegate;
    {
        struct Holding final : IDelegate<Signature> {
            Holding(Receiver& receiver, int& ends_of_target)
                : to(receiver), ended(ends_of_target) {}
            ~Holding() override { ++ended; }
            IDelegate* Clone() const override { return nullptr; }
            bool Equals(const IDelegate&) const override { return false; }
            bool IsEmpty() const override { return false; }
            void Invoke(int number, const Texts& texts) override {
                to.Take(number, texts);
                EXPECT_EQ(ended, 0);
            }
            bool InvokeIfBound(int, const Texts&) override { return true; }
            Receiver& to;
            int& ended;
        };
        Target target;
        target.Reset(new Holding(old_receiver, ends));
        delegate.Set(target);
    }
    old_receiver.inside = [&] {
        inside.Open();
        go_on.Wait();
    };
    JoiningThread caller([&] { delegate(1, {}); });
    inside.Wait();
    // Neither the replacement nor a call of the new target waits for the running one.
    delegate.Set(TargetOf(new_receiver));
    EXPECT_EQ(ends, 0);
    delegate(2, {});
    EXPECT_EQ(new_receiver.last, 2);
    go_on.Open();
    caller.Join();
    EXPECT_EQ(old_receiver.calls, 1);
    EXPECT_EQ(old_receiver.last, 1);
    EXPECT_EQ(ends, 1);
}

TEST(Delegate, ACallMayReplaceItsOwnTarget) {
    Receiver first;
    Receiver second;
    Delegate<Signature> delegate;
    delegate.Set(TargetOf(first));
    first.inside = [&] {
        delegate.Set(TargetOf(second));
        delegate(2, {});
    };
    delegate(1, {});
    EXPECT_EQ(first.calls, 1);
    EXPECT_EQ(second.last, 2);
}

TEST(Delegate, TheEndOfTheFormerTargetIsOutsideTheMutex) {
    Delegate<Signature> delegate;
    bool null_seen = false;
    Target target;
    target.Reset(new Watched([&] {
        // Another thread must be able to use the delegate meanwhile.
        JoiningThread other([&] { null_seen = delegate.Get().IsNull(); });
        other.Join();
    }));
    delegate.Set(target);
    target.Reset(nullptr);
    delegate.Set(Target());
    EXPECT_TRUE(null_seen);
}

TEST(Delegate, MayBeSetWhileOthersCall) {
    constexpr int kRounds = 2000;
    struct Counting final : IDelegate<Signature> {
        explicit Counting(int start) : state(start) {}
        ~Counting() override { state = -1; }
        IDelegate* Clone() const override { return nullptr; }
        bool Equals(const IDelegate&) const override { return false; }
        bool IsEmpty() const override { return false; }
        void Invoke(int, const Texts&) override {
            if (state != 1) ADD_FAILURE() << "called after its end";
        }
        bool InvokeIfBound(int, const Texts&) override { return true; }
        int state;
    };
    Delegate<Signature> delegate;
    Barrier start(3);
    const auto call = [&] {
        start.ArriveAndWait();
        for (int round = 0; round < kRounds; ++round) delegate(round, {});
    };
    {
        JoiningThread one(call);
        JoiningThread two(call);
        start.ArriveAndWait();
        for (int round = 0; round < kRounds; ++round) {
            Target target;
            if (round % 3 != 0) target.Reset(new Counting(1));
            delegate.Set(target);
        }
    }
    delegate.Set(Target());
    EXPECT_TRUE(delegate.Get().IsNull());
}

}  // namespace
