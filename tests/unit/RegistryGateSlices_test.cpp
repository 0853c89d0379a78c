// A writer that waits for readers, in slices with the mutex and between them without it. Which of
// its waits it is at is told by the time that it asks of the runtime.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include "common/RegistryGate.h"
#include "support/Runtime.h"
#include "support/Sync.h"
#include "unit/RegistryGatePasses.h"

using vessa_test::Gate;
using vessa_test::JoiningThread;
using vessa_test::Runtime;
using vessa_test::RuntimeCall;
using vessa_test::Tova;

namespace {

constexpr unsigned kSliceMs = 50;

TEST(RegistryGateSlices, AWriterWaitsOnWhenASliceEnds) {
    RegistryGate gate;
    Gate second_slice;
    std::atomic<bool> left{false};
    bool writer_saw_it = false;
    std::atomic<int> slices{0};
    Runtime runtime;
    runtime.Before(Tova::SemTimedWait, [&](RuntimeCall& call) {
        if (call.milliseconds >= kSliceMs && ++slices == 2) second_slice.Open();
    });
    std::unique_ptr<JoiningThread> writer;
    Reading(gate, [&] {
        writer =
            std::make_unique<JoiningThread>([&] { Writing(gate, [&] { writer_saw_it = left; }); });
        second_slice.Wait();
        left = true;
    });
    writer->Join();
    EXPECT_TRUE(writer_saw_it);
}

// Another writer may have the mutex meanwhile and sleep for the one post of the last reader.
TEST(RegistryGateSlices, AWriterGivesAPostBackThatItTakesBetweenTwoSlices) {
    RegistryGate gate;
    Gate between_slices;
    Gate left;
    Runtime runtime;
    runtime.Before(Tova::SemTimedWait, [&](RuntimeCall& call) {
        if (call.milliseconds == 0 || call.milliseconds >= kSliceMs) return;
        between_slices.Open();
        left.Wait();
    });
    std::unique_ptr<JoiningThread> writer;
    Reading(gate, [&] {
        writer = std::make_unique<JoiningThread>([&] { Writing(gate, [] {}); });
        between_slices.Wait();
    });
    EXPECT_EQ(runtime.Calls(Tova::SemPost), 1);
    left.Open();
    writer->Join();
    EXPECT_EQ(runtime.Calls(Tova::SemPost), 2);
}

}  // namespace
