#include "common/Contain.h"

#include <gtest/gtest.h>

#include <new>
#include <stdexcept>

#include "support/Allocation.h"

using vessa_test::AllocationFailure;

namespace {

TEST(Contain, RunsTheStepAndTellsThatItEnded) {
    int runs = 0;
    EXPECT_TRUE(Contain([&] { ++runs; }));
    EXPECT_EQ(runs, 1);
}

TEST(Contain, StopsEveryExceptionAndTellsOfIt) {
    int reached = 0;
    EXPECT_FALSE(Contain([&] {
        ++reached;
        throw std::runtime_error("x");
    }));
    EXPECT_FALSE(Contain([&] {
        ++reached;
        throw 42;
    }));
    EXPECT_FALSE(Contain([&] {
        ++reached;
        throw std::bad_alloc();
    }));
    EXPECT_FALSE(Contain([&] {
        ++reached;
        throw static_cast<const char*>(nullptr);
    }));
    EXPECT_EQ(reached, 4);
}

TEST(Contain, StopsAnExceptionWithoutMemory) {
    bool ended = true;
    {
        AllocationFailure none(1, AllocationFailure::Mode::kFromNth);
        ended = Contain([] { throw std::bad_alloc(); });
    }
    EXPECT_FALSE(ended);
}

TEST(Contain, StopsTheInnerExceptionInsideAHandlerOfAnother) {
    bool outer_caught = false;
    try {
        throw 1;
    } catch (int) {
        EXPECT_FALSE(Contain([] { throw 2; }));
        outer_caught = true;
    }
    EXPECT_TRUE(outer_caught);
}

}  // namespace
