#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/time.h>

#include <cerrno>
#include <chrono>
#include <csignal>

#include "../Support.h"

using tova_test::Sem;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

volatile std::sig_atomic_t g_interruptions = 0;

void CountInterruption(int) {
    g_interruptions = g_interruptions + 1;
}

// Interrupts this process every few milliseconds, with a handler that restarts nothing.
class Interruptions {
  public:
    Interruptions() {
        g_interruptions = 0;
        struct sigaction action {};
        action.sa_handler = &CountInterruption;
        sigaction(SIGALRM, &action, &action_before_);
        const itimerval period{{0, 2000}, {0, 2000}};
        setitimer(ITIMER_REAL, &period, nullptr);
    }
    ~Interruptions() {
        const itimerval off{};
        setitimer(ITIMER_REAL, &off, nullptr);
        sigaction(SIGALRM, &action_before_, nullptr);
    }
    Interruptions(const Interruptions&) = delete;
    Interruptions& operator=(const Interruptions&) = delete;

  private:
    struct sigaction action_before_ {};
};

struct Cancelled {
    Sem sem;
    Sem about_to_wait;
};

void* WaitForEver(void* argument) {
    Cancelled& world = *static_cast<Cancelled*>(argument);
    TOVA_SemPost(&world.about_to_wait.value);
    TOVA_SemWait(&world.sem.value);
    return nullptr;
}

}  // namespace

TEST(SemaphorePosix, WaitsOnAfterAnInterruption) {
    Sem sem;
    const Interruptions interruptions;
    const auto start = Clock::now();
    EXPECT_EQ(TOVA_SemTimedWait(&sem.value, 100), ETIMEDOUT);
    EXPECT_GE(Clock::now() - start, milliseconds(100));
    EXPECT_GT(g_interruptions, 0);
}

TEST(SemaphorePosix, NamesItsErrors) {
    Sem sem;
    EXPECT_EQ(TOVA_SemTimedWait(&sem.value, 0), ETIMEDOUT);
    EXPECT_EQ(TOVA_GetSystemLastError(), ETIMEDOUT);
    tova_sem_t null = nullptr;
    EXPECT_EQ(TOVA_SemTimedWait(&null, 1000), EINVAL);
    EXPECT_EQ(TOVA_GetSystemLastError(), EINVAL);
    Sem full(0x7FFFFFFF);
    EXPECT_EQ(TOVA_SemPost(&full.value), EOVERFLOW);
    EXPECT_EQ(TOVA_GetSystemLastError(), EOVERFLOW);
}

TEST(SemaphorePosix, StaysUsableAfterAWaiterWasCancelled) {
    for (int i = 0; i < 50; ++i) {
        Cancelled world;
        pthread_t waiter;
        ASSERT_EQ(pthread_create(&waiter, nullptr, &WaitForEver, &world), 0);
        ASSERT_EQ(TOVA_SemWait(&world.about_to_wait.value), 0);
        ASSERT_EQ(pthread_cancel(waiter), 0);
        void* result = nullptr;
        ASSERT_EQ(pthread_join(waiter, &result), 0);
        EXPECT_EQ(result, PTHREAD_CANCELED);
        EXPECT_EQ(TOVA_SemTimedWait(&world.sem.value, 1), ETIMEDOUT);
        EXPECT_EQ(TOVA_SemPost(&world.sem.value), 0);
        EXPECT_EQ(TOVA_SemTimedWait(&world.sem.value, 0), 0);
    }
}
