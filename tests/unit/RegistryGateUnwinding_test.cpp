// What passes through the gate and is ended by an exception.
#include <gtest/gtest.h>

#include <stdexcept>

#include "common/RegistryGate.h"
#include "support/Sync.h"
#include "unit/RegistryGatePasses.h"

using vessa_test::JoiningThread;

namespace {

TEST(RegistryGate, AnExceptionLeavesNoReadAndNoMutexBehind) {
    RegistryGate gate;
    const auto fail = [] { throw std::runtime_error("inside"); };
    EXPECT_THROW(Reading(gate, fail), std::runtime_error);
    EXPECT_THROW(Reading(gate, [&] { Reading(gate, fail); }), std::runtime_error);
    EXPECT_THROW(Writing(gate, fail), std::runtime_error);
    EXPECT_THROW(WritingThenReading(
                     gate, [] {}, fail),
                 std::runtime_error);
    EXPECT_EQ(gate.Readers(), 0);
    EXPECT_FALSE(gate.ReadsHere());
    bool wrote = false;
    JoiningThread other([&] { Writing(gate, [&] { wrote = true; }); });
    other.Join();
    EXPECT_TRUE(wrote);
}

}  // namespace
