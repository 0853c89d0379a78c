#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/RegistryGate.h"
#include "common/ThreadScope.h"
#include "support/Child.h"
#include "unit/NamedTask.h"
#include "unit/RegistryGatePasses.h"

using vessa_test::ChildResult;
using vessa_test::IsChild;
using vessa_test::RunChild;
using vessa_test::ThisTestAsChild;

namespace {

TEST(RegistryGateTask, RunsInOrderAfterTheOutermostRead) {
    RegistryGate gate;
    Journal journal;
    NamedTask first(journal, "first");
    NamedTask second(journal, "second");
    NamedTask third(journal, "third");
    int readers_inside = -1;
    bool reads_inside = true;
    first.inside = [&] {
        readers_inside = gate.Readers();
        reads_inside = gate.ReadsHere();
    };
    Reading(gate, [&] {
        Reading(gate, [&] {
            gate.AfterRead(&first);
            Reading(gate, [&] { gate.AfterRead(&second); });
        });
        gate.AfterRead(&third);
        journal.push_back("read");
    });
    EXPECT_EQ(journal, (Journal{"read", "first", "second", "third"}));
    EXPECT_EQ(readers_inside, 0);
    EXPECT_FALSE(reads_inside);
}

TEST(RegistryGateTask, RunsAfterADowngradedRead) {
    RegistryGate gate;
    Journal journal;
    NamedTask task(journal, "task");
    WritingThenReading(
        gate, [] {},
        [&] {
            gate.AfterRead(&task);
            EXPECT_TRUE(journal.empty());
        });
    EXPECT_EQ(journal, Journal{"task"});
}

TEST(RegistryGateTask, MayEnterAsAWriter) {
    RegistryGate gate;
    Journal journal;
    NamedTask task(journal, "task");
    task.inside = [&] {
        WritingThenReading(
            gate, [&] { journal.push_back("writing"); }, [&] { journal.push_back("reading"); });
    };
    Reading(gate, [&] { gate.AfterRead(&task); });
    EXPECT_EQ(journal, (Journal{"task", "writing", "reading"}));
}

TEST(RegistryGateTask, MayPutOffAnotherInAReadOfItsOwn) {
    RegistryGate gate;
    Journal journal;
    NamedTask second(journal, "second");
    NamedTask first(journal, "first");
    NamedTask last(journal, "last");
    first.inside = [&] {
        Reading(gate, [&] { gate.AfterRead(&second); });
        journal.push_back("end of first");
    };
    Reading(gate, [&] {
        gate.AfterRead(&first);
        gate.AfterRead(&last);
    });
    EXPECT_EQ(journal, (Journal{"first", "second", "end of first", "last"}));
}

TEST(RegistryGateTask, MayBeHandedOverAgain) {
    RegistryGate gate;
    Journal journal;
    NamedTask task(journal, "task");
    NamedTask other(journal, "other");
    Reading(gate, [&] {
        gate.AfterRead(&task);
        gate.AfterRead(&other);
    });
    Reading(gate, [&] { gate.AfterRead(&task); });
    EXPECT_EQ(journal, (Journal{"task", "other", "task"}));
}

// The task may be gone after it ran.
TEST(RegistryGateTask, IsNotTouchedAfterItRan) {
    RegistryGate gate;
    Journal journal;
    auto first = std::make_unique<NamedTask>(journal, "first");
    NamedTask second(journal, "second");
    first->inside = [&] { std::unique_ptr<NamedTask>(std::move(first)); };
    GateTask* const handed = first.get();
    Reading(gate, [&] {
        gate.AfterRead(handed);
        gate.AfterRead(&second);
    });
    EXPECT_EQ(first, nullptr);
    EXPECT_EQ(journal, (Journal{"first", "second"}));
}

TEST(RegistryGateTask, RunsWhenItsOwnGatesReadEnds) {
    RegistryGate outer;
    RegistryGate inner;
    Journal journal;
    NamedTask of_outer(journal, "outer");
    NamedTask of_inner(journal, "inner");
    Reading(outer, [&] {
        Reading(inner, [&] {
            outer.AfterRead(&of_outer);
            inner.AfterRead(&of_inner);
        });
        journal.push_back("read");
    });
    EXPECT_EQ(journal, (Journal{"inner", "read", "outer"}));
}

TEST(RegistryGateTask, RunsAlsoWhenAnExceptionEndsTheRead) {
    RegistryGate gate;
    Journal journal;
    NamedTask task(journal, "task");
    EXPECT_THROW(Reading(gate,
                         [&] {
                             gate.AfterRead(&task);
                             throw std::runtime_error("inside");
                         }),
                 std::runtime_error);
    EXPECT_EQ(journal, Journal{"task"});
}

TEST(RegistryGateTask, OthersRunAlsoWhenOneThrows) {
    RegistryGate gate;
    Journal journal;
    NamedTask first(journal, "first");
    NamedTask second(journal, "second");
    NamedTask third(journal, "third");
    first.inside = [] { throw std::runtime_error("first"); };
    EXPECT_THROW(Reading(gate,
                         [&] {
                             gate.AfterRead(&first);
                             gate.AfterRead(&second);
                             gate.AfterRead(&third);
                         }),
                 std::runtime_error);
    EXPECT_EQ(journal, (Journal{"first", "second", "third"}));
    EXPECT_EQ(gate.Readers(), 0);
    EXPECT_EQ(ThreadScope::Current(), nullptr);
}

// In a process of its own: a recursion over the tasks would exhaust the stack.
TEST(RegistryGateTask, AnyNumberOfThemRunsOnAnOrdinaryStack) {
    if (!IsChild()) {
        const ChildResult result = RunChild(ThisTestAsChild());
        EXPECT_TRUE(result.Exited(0)) << result;
        return;
    }
    static long runs = 0;
    RegistryGate gate;
    std::vector<GateTask> tasks(200000);
    Reading(gate, [&] {
        for (GateTask& task : tasks) {
            task.run = [](GateTask*) { ++runs; };
            gate.AfterRead(&task);
        }
    });
    EXPECT_EQ(runs, 200000);
}

}  // namespace
