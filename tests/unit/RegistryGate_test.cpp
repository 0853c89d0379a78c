#include "common/RegistryGate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include "support/Allocation.h"
#include "support/Runtime.h"
#include "support/Sync.h"
#include "unit/RegistryGatePasses.h"

using vessa_test::AllocationFailure;
using vessa_test::Barrier;
using vessa_test::Gate;
using vessa_test::JoiningThread;
using vessa_test::Runtime;
using vessa_test::RuntimeCall;
using vessa_test::Tova;

namespace {

// Sees where the threads are by what they ask of the runtime. A writer in a slice of its wait
// holds the mutex and waits up to the slice's time; in a gap it waits without the mutex. Both
// are told from the readers' looks, which have no time.
class Watch {
  public:
    static constexpr unsigned kSliceMs = 50;

    Watch() {
        runtime_.Before(Tova::SemTimedWait, [this](RuntimeCall& call) {
            if (call.milliseconds == 0) return;
            if (call.milliseconds < kSliceMs) {
                ++gaps;
                return;
            }
            ++slices;
            waiting.Open();
            if (hold) hold_until.Wait();
        });
        runtime_.Before(Tova::MutexLock, [this](RuntimeCall&) {
            if (++locks == locks_to_see.load()) locking.Open();
        });
    }
    // Opens locking when that many more threads have come to a mutex.
    void SeeLocks(int count) { locks_to_see = locks + count; }

    Gate waiting;     // a writer waits for readers
    Gate locking;     // see SeeLocks
    Gate hold_until;  // with hold: how long each slice is kept from its real wait
    std::atomic<bool> hold{false};
    std::atomic<int> slices{0};
    std::atomic<int> gaps{0};
    std::atomic<int> locks{0};
    std::atomic<int> locks_to_see{-1};

    Runtime& Calls() { return runtime_; }

  private:
    Runtime runtime_;
};

TEST(RegistryGate, FreeAReaderEntersAndLeaves) {
    RegistryGate gate;
    EXPECT_EQ(gate.Readers(), 0);
    EXPECT_FALSE(gate.ReadsHere());
    Reading(gate, [&] {
        EXPECT_EQ(gate.Readers(), 1);
        EXPECT_TRUE(gate.ReadsHere());
    });
    EXPECT_EQ(gate.Readers(), 0);
    EXPECT_FALSE(gate.ReadsHere());
}

TEST(RegistryGate, FreeAWriterEntersWithoutAWait) {
    RegistryGate gate;
    Watch watch;
    Writing(gate, [&] {
        EXPECT_EQ(gate.Readers(), 0);
        EXPECT_FALSE(gate.ReadsHere());
    });
    EXPECT_EQ(watch.slices, 0);
    Writing(gate, [] {});
    Reading(gate, [&] { EXPECT_EQ(gate.Readers(), 1); });
}

TEST(RegistryGate, ReadingAnotherReaderEnters) {
    RegistryGate gate;
    int seen_inside = 0;
    bool reads_here_before = true;
    Reading(gate, [&] {
        JoiningThread other([&] {
            reads_here_before = gate.ReadsHere();
            Reading(gate, [&] { seen_inside = gate.Readers(); });
        });
        other.Join();
        EXPECT_EQ(gate.Readers(), 1);
    });
    EXPECT_EQ(seen_inside, 2);
    EXPECT_FALSE(reads_here_before);
    EXPECT_EQ(gate.Readers(), 0);
}

TEST(RegistryGate, ReadingAWriterWaitsForTheLastReader) {
    RegistryGate gate;
    Gate second_reads;
    Gate second_leaves;
    std::atomic<bool> first_left{false};
    std::atomic<bool> second_left{false};
    bool writer_saw_both = false;
    int readers_seen = -1;
    Watch watch;
    std::unique_ptr<JoiningThread> writer;
    JoiningThread second([&] {
        Reading(gate, [&] {
            second_reads.Open();
            second_leaves.Wait();
            second_left = true;
        });
    });
    Reading(gate, [&] {
        second_reads.Wait();
        writer = std::make_unique<JoiningThread>([&] {
            Writing(gate, [&] {
                writer_saw_both = first_left && second_left;
                readers_seen = gate.Readers();
            });
        });
        watch.waiting.Wait();
        EXPECT_EQ(gate.Readers(), 2);
        first_left = true;
    });
    EXPECT_EQ(gate.Readers(), 1);
    EXPECT_FALSE(writer->HasEnded());
    second_leaves.Open();
    writer->Join();
    second.Join();
    EXPECT_TRUE(writer_saw_both);
    EXPECT_EQ(readers_seen, 0);
}

// The post of the last reader ends the wait, not the end of a slice.
TEST(RegistryGate, WaitingTheLastReadersExitLetsTheWriterIn) {
    RegistryGate gate;
    Watch watch;
    watch.hold = true;
    std::unique_ptr<JoiningThread> writer;
    Reading(gate, [&] {
        writer = std::make_unique<JoiningThread>([&] { Writing(gate, [] {}); });
        watch.waiting.Wait();
    });
    // Posted before the real wait begins: it must not be lost.
    watch.hold_until.Open();
    writer->Join();
    EXPECT_EQ(watch.slices, 1);
    EXPECT_EQ(watch.gaps, 0);
    EXPECT_EQ(watch.Calls().Calls(Tova::SemPost), 1);
}

TEST(RegistryGate, WaitingANewReaderComesAfterTheWriter) {
    RegistryGate gate;
    std::atomic<bool> written{false};
    bool reader_saw_it = false;
    Watch watch;
    watch.hold = true;
    std::unique_ptr<JoiningThread> writer;
    std::unique_ptr<JoiningThread> reader;
    Reading(gate, [&] {
        writer = std::make_unique<JoiningThread>([&] { Writing(gate, [&] { written = true; }); });
        watch.waiting.Wait();
        watch.SeeLocks(1);
        reader = std::make_unique<JoiningThread>(
            [&] { Reading(gate, [&] { reader_saw_it = written; }); });
        watch.locking.Wait();
        EXPECT_EQ(gate.Readers(), 1);
    });
    watch.hold_until.Open();
    writer->Join();
    reader->Join();
    EXPECT_TRUE(reader_saw_it);
    EXPECT_EQ(watch.gaps, 0);
}

TEST(RegistryGate, WaitingAnotherWriterComesAfterTheFirst) {
    RegistryGate gate;
    int inside = 0;
    int together = 0;
    std::vector<int> order;
    const auto write = [&](int number) {
        Writing(gate, [&] {
            if (++inside > 1) ++together;
            order.push_back(number);
            --inside;
        });
    };
    Watch watch;
    watch.hold = true;
    std::unique_ptr<JoiningThread> first;
    std::unique_ptr<JoiningThread> second;
    Reading(gate, [&] {
        first = std::make_unique<JoiningThread>([&] { write(1); });
        watch.waiting.Wait();
        watch.SeeLocks(1);
        second = std::make_unique<JoiningThread>([&] { write(2); });
        watch.locking.Wait();
    });
    watch.hold_until.Open();
    first->Join();
    second->Join();
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
    EXPECT_EQ(together, 0);
}

TEST(RegistryGate, WritingAReaderAndAWriterWait) {
    RegistryGate gate;
    std::atomic<bool> left{false};
    bool reader_saw_it = false;
    bool writer_saw_it = false;
    Watch watch;
    std::unique_ptr<JoiningThread> reader;
    std::unique_ptr<JoiningThread> writer;
    Writing(gate, [&] {
        watch.SeeLocks(2);
        reader =
            std::make_unique<JoiningThread>([&] { Reading(gate, [&] { reader_saw_it = left; }); });
        writer =
            std::make_unique<JoiningThread>([&] { Writing(gate, [&] { writer_saw_it = left; }); });
        watch.locking.Wait();
        EXPECT_EQ(gate.Readers(), 0);
        left = true;
    });
    reader->Join();
    writer->Join();
    EXPECT_TRUE(reader_saw_it);
    EXPECT_TRUE(writer_saw_it);
    EXPECT_EQ(gate.Readers(), 0);
}

TEST(RegistryGate, ADowngradedWriterReads) {
    RegistryGate gate;
    WritingThenReading(
        gate, [&] { EXPECT_FALSE(gate.ReadsHere()); },
        [&] {
            EXPECT_TRUE(gate.ReadsHere());
            EXPECT_EQ(gate.Readers(), 1);
            // Others read beside it.
            int seen = 0;
            JoiningThread other([&] { Reading(gate, [&] { seen = gate.Readers(); }); });
            other.Join();
            EXPECT_EQ(seen, 2);
        });
    EXPECT_EQ(gate.Readers(), 0);
}

TEST(RegistryGate, ADowngradeLeavesNoGapForAnotherWriter) {
    RegistryGate gate;
    std::atomic<bool> read{false};
    bool writer_saw_it = false;
    Watch watch;
    std::unique_ptr<JoiningThread> writer;
    WritingThenReading(
        gate,
        [&] {
            watch.SeeLocks(1);
            writer = std::make_unique<JoiningThread>(
                [&] { Writing(gate, [&] { writer_saw_it = read; }); });
            watch.locking.Wait();
        },
        [&] {
            watch.waiting.Wait();
            read = true;
        });
    writer->Join();
    EXPECT_TRUE(writer_saw_it);
}

TEST(RegistryGate, ADowngradeCountsTheReadBeforeItLetsTheMutexGo) {
    RegistryGate gate;
    int readers_at_unlock = -1;
    Runtime runtime;
    WritingThenReading(
        gate,
        [&] {
            runtime.Before(Tova::MutexUnlock,
                           [&](RuntimeCall&) { readers_at_unlock = gate.Readers(); });
        },
        [&] { runtime.Before(Tova::MutexUnlock, nullptr); });
    EXPECT_EQ(readers_at_unlock, 1);
}

TEST(RegistryGate, ANestedReaderIsTheSameThread) {
    RegistryGate gate;
    Runtime runtime;
    Reading(gate, [&] {
        const long locks = runtime.Calls(Tova::MutexLock);
        const long waits = runtime.Calls(Tova::SemTimedWait);
        const long posts = runtime.Calls(Tova::SemPost);
        Reading(gate, [&] {
            EXPECT_EQ(gate.Readers(), 1);
            Reading(gate, [&] { EXPECT_EQ(gate.Readers(), 1); });
        });
        EXPECT_EQ(gate.Readers(), 1);
        EXPECT_EQ(runtime.Calls(Tova::MutexLock), locks);
        EXPECT_EQ(runtime.Calls(Tova::SemTimedWait), waits);
        EXPECT_EQ(runtime.Calls(Tova::SemPost), posts);
    });
    EXPECT_EQ(runtime.Calls(Tova::SemPost), 0);
}

TEST(RegistryGate, ANestedReaderEntersBehindAWaitingWriter) {
    RegistryGate gate;
    std::atomic<bool> nested_done{false};
    bool writer_saw_it = false;
    Watch watch;
    // The writer stands in its wait with the mutex held until the reader is done.
    watch.hold = true;
    std::unique_ptr<JoiningThread> writer;
    Reading(gate, [&] {
        writer = std::make_unique<JoiningThread>(
            [&] { Writing(gate, [&] { writer_saw_it = nested_done; }); });
        watch.waiting.Wait();
        Reading(gate, [&] { EXPECT_EQ(gate.Readers(), 1); });
        Reading(gate, [&] { EXPECT_EQ(gate.Readers(), 1); });
        nested_done = true;
    });
    watch.hold_until.Open();
    writer->Join();
    EXPECT_TRUE(writer_saw_it);
}

TEST(RegistryGate, ANestedReaderEntersADowngradedRead) {
    RegistryGate gate;
    Watch watch;
    watch.hold = true;
    std::unique_ptr<JoiningThread> writer;
    WritingThenReading(
        gate, [] {},
        [&] {
            writer = std::make_unique<JoiningThread>([&] { Writing(gate, [] {}); });
            watch.waiting.Wait();
            Reading(gate, [&] { EXPECT_EQ(gate.Readers(), 1); });
            EXPECT_EQ(gate.Readers(), 1);
        });
    watch.hold_until.Open();
    writer->Join();
}

// A module's thread reads while a writer waits for the read that waits for this thread.
TEST(RegistryGate, AReaderForWhichAReaderWaitsGetsInBeforeTheWaitingWriter) {
    RegistryGate gate;
    std::atomic<bool> helped{false};
    bool writer_saw_it = false;
    Watch watch;
    std::unique_ptr<JoiningThread> writer;
    Reading(gate, [&] {
        writer = std::make_unique<JoiningThread>(
            [&] { Writing(gate, [&] { writer_saw_it = helped; }); });
        watch.waiting.Wait();
        JoiningThread worker([&] { Reading(gate, [&] { helped = true; }); });
        worker.Join();
    });
    writer->Join();
    EXPECT_TRUE(writer_saw_it);
    EXPECT_GE(watch.gaps, 1);
}

TEST(RegistryGate, WithoutAWriterThatSleepsNobodyPosts) {
    RegistryGate gate;
    Runtime runtime;
    Reading(gate, [&] { JoiningThread([&] { Reading(gate, [] {}); }).Join(); });
    WritingThenReading(
        gate, [] {}, [] {});
    EXPECT_EQ(runtime.Calls(Tova::SemPost), 0);
}

// Two readers leave while a writer sleeps: it takes one post and leaves the other.
void LeaveAStalePost(RegistryGate& gate) {
    Watch watch;
    watch.hold = true;
    Gate second_reads;
    Gate second_leaves;
    JoiningThread second([&] {
        Reading(gate, [&] {
            second_reads.Open();
            second_leaves.Wait();
        });
    });
    std::unique_ptr<JoiningThread> writer;
    Reading(gate, [&] {
        second_reads.Wait();
        writer = std::make_unique<JoiningThread>([&] { Writing(gate, [] {}); });
        watch.waiting.Wait();
    });
    second_leaves.Open();
    second.Join();
    watch.hold_until.Open();
    writer->Join();
    ASSERT_EQ(watch.Calls().Calls(Tova::SemPost), 2);
    ASSERT_EQ(watch.slices, 1);
}

TEST(RegistryGate, AStalePostDoesNotLetAWriterIn) {
    RegistryGate gate;
    LeaveAStalePost(gate);
    Gate taken;
    std::atomic<bool> left{false};
    bool writer_saw_it = false;
    std::atomic<int> slices{0};
    Runtime runtime;
    runtime.Before(Tova::SemTimedWait, [&](RuntimeCall& call) {
        if (call.milliseconds >= Watch::kSliceMs && ++slices == 2) taken.Open();
    });
    std::unique_ptr<JoiningThread> writer;
    WritingThenReading(
        gate, [] {},
        [&] {
            writer = std::make_unique<JoiningThread>(
                [&] { Writing(gate, [&] { writer_saw_it = left; }); });
            taken.Wait();
            left = true;
        });
    writer->Join();
    EXPECT_TRUE(writer_saw_it);
}

TEST(RegistryGate, AReaderThatTakesTheMutexThrowsStalePostsAway) {
    RegistryGate gate;
    LeaveAStalePost(gate);
    Watch watch;
    std::unique_ptr<JoiningThread> reader;
    Writing(gate, [&] {
        watch.SeeLocks(1);
        reader = std::make_unique<JoiningThread>([&] { Reading(gate, [] {}); });
        watch.locking.Wait();
    });
    reader->Join();
    // The stale one, and the look that finds no more.
    EXPECT_EQ(watch.Calls().Calls(Tova::SemTimedWait), 2);
}

TEST(RegistryGate, EachGateCountsItsOwnReadsOfAThread) {
    RegistryGate one;
    RegistryGate two;
    Reading(one, [&] {
        EXPECT_TRUE(one.ReadsHere());
        EXPECT_FALSE(two.ReadsHere());
        Writing(two, [&] { EXPECT_FALSE(two.ReadsHere()); });
        Reading(two, [&] {
            EXPECT_TRUE(two.ReadsHere());
            Reading(one, [&] { EXPECT_EQ(one.Readers(), 1); });
            EXPECT_TRUE(one.ReadsHere());
        });
        EXPECT_FALSE(two.ReadsHere());
        EXPECT_TRUE(one.ReadsHere());
    });
    EXPECT_FALSE(one.ReadsHere());
}

TEST(RegistryGate, NeedsNoMemory) {
    struct Task : GateTask {
        int runs = 0;
    } task;
    task.run = [](GateTask* self) { ++static_cast<Task*>(self)->runs; };
    RegistryGate gate;
    const Work nothing = [] {};
    const Work nested = [&] {
        GatePass inner(gate, GatePass::AsReader());
        gate.AfterRead(&task);
    };
    long allocations = -1;
    {
        AllocationFailure none(1, AllocationFailure::Mode::kFromNth);
        Reading(gate, nested);
        Writing(gate, nothing);
        WritingThenReading(gate, nothing, nested);
        allocations = none.Count();
    }
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(task.runs, 2);
}

// Whatever passes how: writers are alone, what they wrote is whole, everybody gets through and
// every task runs.
TEST(RegistryGate, StandsARandomMixOfPasses) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 4000;
    struct Task : GateTask {
        std::function<void()> work;
    };
    RegistryGate gate;
    long left = 0;
    long right = 0;
    std::atomic<long> torn{0};
    std::atomic<long> tasks_run{0};
    std::atomic<long> tasks_given{0};
    long writes_counted = 0;
    std::atomic<long> writes_made{0};
    const auto look = [&] {
        if (left != right) ++torn;
    };
    const auto change = [&] {
        ++left;
        ++writes_counted;
        ++right;
        ++writes_made;
    };
    const auto round = [&](std::mt19937& random) {
        Task task;
        task.work = [&] {
            Writing(gate, change);
            ++tasks_run;
        };
        task.run = [](GateTask* self) { static_cast<Task*>(self)->work(); };
        const auto hand_over = [&] {
            gate.AfterRead(&task);
            ++tasks_given;
        };
        switch (random() % 6) {
            case 0:
                Writing(gate, change);
                break;
            case 1:
                WritingThenReading(gate, change, look);
                break;
            case 2:
                Reading(gate, [&] { Reading(gate, look); });
                break;
            case 3:
                Reading(gate, [&] { Reading(gate, hand_over); });
                break;
            case 4:
                WritingThenReading(gate, change, hand_over);
                break;
            default:
                Reading(gate, look);
                break;
        }
    };
    Barrier start(kThreads);
    {
        std::vector<std::unique_ptr<JoiningThread>> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.push_back(std::make_unique<JoiningThread>([&, i] {
                std::mt19937 random(static_cast<unsigned>(4711 + i));
                start.ArriveAndWait();
                for (int n = 0; n < kRounds; ++n) round(random);
            }));
        }
    }
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(tasks_run, tasks_given);
    EXPECT_GT(tasks_run, 0);
    EXPECT_EQ(left, right);
    EXPECT_EQ(writes_counted, writes_made);
    EXPECT_EQ(gate.Readers(), 0);
}

}  // namespace
