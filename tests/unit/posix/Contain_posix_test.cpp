// The end of a thread passes through what stops exceptions.
#include <gtest/gtest.h>
#include <pthread.h>

#include "common/Contain.h"

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
