// The gate's readers, which no mutex and no count shows, against its writers.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "common/AsymmetricFence.h"
#include "common/RegistryGate.h"
#include "common/SpinWait.h"
#include "support/Sync.h"
#include "unit/SpinBarrier.h"

using vessa_test::ColdStores;
using vessa_test::JoiningThread;
using vessa_test::RunTogether;
using vessa_test::SpinBarrier;
using vessa_test::Stagger;

struct RegistryGateAccess {
    static bool IsStrict(const RegistryGate& gate) {
        return (gate.attention_.load() & RegistryGate::kStrict) != 0;
    }
    // While nobody is at the gate: as after many reads.
    static void LeaveStrict(RegistryGate& gate) { gate.attention_.store(0); }
    static int32_t Counted(const RegistryGate& gate) { return gate.counted_.load(); }
    static int32_t Sleepers(const RegistryGate& gate) { return gate.sleepers_.load(); }
    static constexpr int32_t kStrictReads = RegistryGate::kStrictReads;
};

struct AsymmetricFenceAccess {
    static bool IsAsymmetric() { return AsymmetricFence::is_asymmetric_.load(); }
    static void SetAsymmetric(bool is_asymmetric) {
        AsymmetricFence::is_asymmetric_.store(is_asymmetric);
    }
};

namespace {

using Bodies = std::vector<std::function<void()>>;
using Access = RegistryGateAccess;

// Emulators and sanitizers are some ten times slower: small enough for them.
constexpr int kReads = 50000;
constexpr int kWrites = 2000;

template <class Work>
void Reading(RegistryGate& gate, Work&& inside) NO_THREAD_SAFETY_ANALYSIS {
    GatePass pass(gate, GatePass::AsReader());
    inside();
}
template <class Work>
void Writing(RegistryGate& gate, Work&& inside) NO_THREAD_SAFETY_ANALYSIS {
    GatePass pass(gate, GatePass::AsWriter());
    inside();
}

// Each test in both kinds: with fences that the writer runs on all threads, and with everybody's
// own.
class RegistryGateReaders : public testing::TestWithParam<bool> {
  protected:
    void SetUp() override {
        AsymmetricFenceAccess::SetAsymmetric(false);
        if (!GetParam()) return;
        AsymmetricFence::Prepare();
        if (!AsymmetricFenceAccess::IsAsymmetric())
            GTEST_SKIP() << "the system runs no fence on all threads";
    }
    void TearDown() override {
        // Or what was to be tested has not been.
        if (!IsSkipped()) {
            EXPECT_EQ(AsymmetricFenceAccess::IsAsymmetric(), GetParam());
        }
        AsymmetricFenceAccess::SetAsymmetric(false);
        EXPECT_FALSE(gate.HasReaders());
        EXPECT_EQ(gate.Writers(), 0);
        EXPECT_EQ(Access::Counted(gate), 0);
        EXPECT_EQ(Access::Sleepers(gate), 0);
    }

    // What the gate protects, which readers must never see half changed. Not atomic: a thread
    // sanitizer sees a gate that lets too many in.
    void Change() {
        ++first;
        ++second;
    }
    void Look() {
        if (first != second) ++wrong;
    }

    void ReadMany(int times) {
        for (int i = 0; i < times; ++i) {
            Reading(gate, [&] {
                Look();
                if (i % 8 == 0) Reading(gate, [&] { Look(); });
            });
        }
    }
    void WriteMany(int times) NO_THREAD_SAFETY_ANALYSIS {
        for (int i = 0; i < times; ++i) {
            GatePass pass(gate, GatePass::AsWriter());
            Change();
            const int mine = first;
            if (i % 2 == 0) continue;
            pass.Downgrade();
            // Nobody gets in between.
            wrong += first != mine;
            Look();
        }
    }

    // Until a writer has given up looking for readers to leave and waits.
    void AwaitSleeper() const {
        while (Access::Sleepers(gate) == 0) std::this_thread::yield();
    }

    RegistryGate gate;
    int first = 0;
    int second = 0;
    std::atomic<int> wrong{0};
};

INSTANTIATE_TEST_SUITE_P(BothKinds, RegistryGateReaders, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& kind) {
                             return kind.param ? "Asymmetric" : "Symmetric";
                         });

TEST_P(RegistryGateReaders, NeverSeeWhatAWriterHasHalfDone) {
    RunTogether({[&] { ReadMany(kReads); }, [&] { ReadMany(kReads); }, [&] { WriteMany(kWrites); },
                 [&] { WriteMany(kWrites); }});
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(first, 2 * kWrites);
    EXPECT_EQ(second, 2 * kWrites);
}

// One read and one write at each distance from one another: with readers that run their own fence
// since a write before, and with those that run none. Some writes last longer than a reader looks
// for their end.
TEST_P(RegistryGateReaders, NeverMeetAWriterThatComesAtTheSameMoment) {
    constexpr int kLongWrite = 3000;
    // Every second write runs a fence on all threads, where there is one.
    const int rounds = GetParam() ? kReads / 5 : kReads / 2;
    SpinBarrier barrier(2);
    ColdStores stores;
    RunTogether({[&] {
                     for (int round = 0; round < rounds; ++round) {
                         barrier.ArriveAndWait();
                         Stagger(round);
                         if (round % 4 != 3) stores.Make();
                         Reading(gate, [&] {
                             for (int look = 0; look < 30; ++look) {
                                 Look();
                                 SpinWait();
                             }
                         });
                         barrier.ArriveAndWait();
                     }
                 },
                 [&] {
                     for (int round = 0; round < rounds; ++round) {
                         if (round % 2 == 0) Access::LeaveStrict(gate);
                         barrier.ArriveAndWait();
                         Stagger(round / 40);
                         if (round % 3 == 0) Stagger(39);
                         Writing(gate, [&] {
                             ++first;
                             for (int i = round % 16 == 0 ? kLongWrite : 10; i > 0; --i) SpinWait();
                             ++second;
                         });
                         barrier.ArriveAndWait();
                     }
                 }});
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(first, rounds);
}

// Long stretches without writers end the mode in which readers run their own fence, so that each
// write meets readers that run none.
TEST_P(RegistryGateReaders, NeverMissAWriterThatComesAfterManyReads) {
    constexpr int kStretches = 20;
    std::atomic<int> written{0};
    std::atomic<int> quiet_starts{0};
    const auto read = [&] {
        while (written < kStretches) ReadMany(64);
    };
    RunTogether({read, read, [&] {
                     for (int i = 0; i < kStretches; ++i) {
                         while (Access::IsStrict(gate)) ReadMany(64);
                         ++quiet_starts;
                         WriteMany(1);
                         ++written;
                     }
                 }});
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(quiet_starts, kStretches);
    EXPECT_EQ(first, kStretches);
}

TEST_P(RegistryGateReaders, LetAWriterThroughThoughTheyNeverPause) {
    std::atomic<bool> done{false};
    const auto read = [&] {
        while (!done) ReadMany(16);
    };
    RunTogether({read, read, read, [&] {
                     WriteMany(kWrites / 4);
                     done = true;
                 }});
    EXPECT_EQ(first, kWrites / 4);
    EXPECT_EQ(wrong, 0);
}

TEST_P(RegistryGateReaders, GetInThoughWritersNeverPause) {
    std::atomic<int> readers{2};
    const auto read = [&] {
        ReadMany(kReads / 100);
        --readers;
    };
    const auto write = [&] {
        while (readers > 0) WriteMany(4);
    };
    RunTogether({read, read, write, write});
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(first, second);
}

TEST_P(RegistryGateReaders, EnterAgainOnTheirThreadWhileAWriterWaits) {
    std::atomic<bool> is_written{false};
    std::unique_ptr<JoiningThread> writer;
    Reading(gate, [&] {
        writer =
            std::make_unique<JoiningThread>([&] { Writing(gate, [&] { is_written = true; }); });
        AwaitSleeper();
        for (int i = 0; i < 100; ++i) Reading(gate, [&] { wrong += is_written; });
        EXPECT_EQ(gate.Writers(), 1);
        EXPECT_FALSE(is_written);
    });
    writer->Join();
    EXPECT_EQ(wrong, 0);
    EXPECT_TRUE(is_written);
}

// A reader may wait for a thread that reads: the waiting writer lets it in.
TEST_P(RegistryGateReaders, WaitForOneThatComesBehindAWaitingWriter) {
    std::atomic<bool> is_written{false};
    std::atomic<bool> was_written{true};
    std::unique_ptr<JoiningThread> writer;
    Reading(gate, [&] {
        writer =
            std::make_unique<JoiningThread>([&] { Writing(gate, [&] { is_written = true; }); });
        AwaitSleeper();
        JoiningThread reader([&] { Reading(gate, [&] { was_written = is_written.load(); }); });
        reader.Join();
    });
    writer->Join();
    EXPECT_FALSE(was_written);
    EXPECT_TRUE(is_written);
}

TEST_P(RegistryGateReaders, RunTheirOwnFenceFromAWriteToTheLastOfManyReadsWithoutOne) {
    EXPECT_FALSE(Access::IsStrict(gate));
    WriteMany(1);
    EXPECT_TRUE(Access::IsStrict(gate));
    // The first time the thread may have counted reads of another gate.
    while (Access::IsStrict(gate)) ReadMany(1);
    WriteMany(1);
    for (int i = 1; i < Access::kStrictReads; ++i) Reading(gate, [&] { Look(); });
    EXPECT_TRUE(Access::IsStrict(gate));
    Reading(gate, [&] { Look(); });
    EXPECT_FALSE(Access::IsStrict(gate));
    for (int i = 0; i < Access::kStrictReads; ++i) Reading(gate, [&] { Look(); });
    EXPECT_FALSE(Access::IsStrict(gate));
    WriteMany(1);
    EXPECT_TRUE(Access::IsStrict(gate));
}

TEST_P(RegistryGateReaders, OfASecondGateAreCountedAndKeepItsWritersOutAllTheSame) {
    RegistryGate other;
    std::atomic<bool> is_written{false};
    std::unique_ptr<JoiningThread> writer;
    Reading(other, [&] {
        EXPECT_EQ(Access::Counted(other), 0);
        Reading(gate, [&] {
            EXPECT_EQ(Access::Counted(gate), 1);
            EXPECT_TRUE(gate.HasReaders());
            EXPECT_TRUE(gate.ReadsHere());
            Reading(gate, [&] { EXPECT_EQ(Access::Counted(gate), 1); });
            Reading(other, [&] { EXPECT_EQ(Access::Counted(other), 0); });
            writer =
                std::make_unique<JoiningThread>([&] { Writing(gate, [&] { is_written = true; }); });
            AwaitSleeper();
            EXPECT_FALSE(is_written);
        });
        // The writer is not kept out by the read of the other gate, which goes on.
        writer->Join();
        EXPECT_TRUE(is_written);
        EXPECT_EQ(Access::Counted(gate), 0);
        EXPECT_TRUE(other.HasReaders());
        EXPECT_FALSE(gate.HasReaders());
    });
    EXPECT_FALSE(other.HasReaders());
}

TEST_P(RegistryGateReaders, OfTwoGatesAtOnceNeverSeeWhatAWriterHasHalfDone) {
    RegistryGate other;
    const auto read = [&] {
        for (int i = 0; i < kReads / 2; ++i)
            Reading(other, [&] { Reading(gate, [&] { Look(); }); });
    };
    RunTogether({read, read, [&] { WriteMany(kWrites); },
                 [&] {
                     for (int i = 0; i < kWrites / 4; ++i) Writing(other, [] {});
                 }});
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(first, kWrites);
    EXPECT_EQ(Access::Counted(other), 0);
}

TEST_P(RegistryGateReaders, RunWhatWasPutOffWhenTheOutermostReadHasEnded) {
    struct Task : GateTask {
        RegistryGate* gate = nullptr;
        int runs = 0;
        bool was_reading = true;
    } task;
    task.gate = &gate;
    task.run = [](GateTask* run) {
        auto* const self = static_cast<Task*>(run);
        ++self->runs;
        self->was_reading = self->gate->ReadsHere();
        Writing(*self->gate, [] {});
    };
    OwnContext().Run([&](const CallContext& context) NO_THREAD_SAFETY_ANALYSIS {
        GateRead outer(gate, context);
        {
            GateRead inner(gate, context);
            gate.AfterRead(&task);
        }
        EXPECT_EQ(task.runs, 0);
    });
    EXPECT_EQ(task.runs, 1);
    EXPECT_FALSE(task.was_reading);
}

}  // namespace
