#include "common/Contain.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <new>
#include <stdexcept>

#include "support/Allocation.h"

using vessa_test::AllocationFailure;

namespace {

// What a thread that was to be ended leaves behind.
struct Ended {
    bool guard_ran = false;
    bool went_on = false;
};

struct SetAtEnd {
    bool& flag;
    ~SetAtEnd() { flag = true; }
};

bool EndsAsCancelled(void* (*body)(void*), Ended& ended) {
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, body, &ended) != 0) return false;
    void* result = nullptr;
    pthread_join(thread, &result);
    return result == PTHREAD_CANCELED;
}

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

TEST(Contain, LetsTheEndOfAThreadPass) {
    Ended ended;
    EXPECT_TRUE(EndsAsCancelled(
        [](void* argument) -> void* {
            auto& here = *static_cast<Ended*>(argument);
            Contain([&] {
                const SetAtEnd guard{here.guard_ran};
                pthread_exit(PTHREAD_CANCELED);
            });
            here.went_on = true;
            return nullptr;
        },
        ended));
    EXPECT_TRUE(ended.guard_ran);
    EXPECT_FALSE(ended.went_on);
}

TEST(Contain, LetsACancellationPassThroughSeveralLevels) {
    Ended ended;
    EXPECT_TRUE(EndsAsCancelled(
        [](void* argument) -> void* {
            auto& here = *static_cast<Ended*>(argument);
            Contain([&] {
                const SetAtEnd guard{here.guard_ran};
                Contain([] {
                    pthread_cancel(pthread_self());
                    pthread_testcancel();
                });
                here.went_on = true;
            });
            here.went_on = true;
            return nullptr;
        },
        ended));
    EXPECT_TRUE(ended.guard_ran);
    EXPECT_FALSE(ended.went_on);
}

}  // namespace
