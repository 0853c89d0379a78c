// The timer's thread: its end by itself, and its signals.
#include <gtest/gtest.h>
#include <pthread.h>

#include <csignal>

#include "common/Timer.h"
#include "support/Runtime.h"
#include "unit/TimerCallback.h"

using vessa_test::Callback;
using vessa_test::kPeriodMs;
using vessa_test::Runtime;

namespace {

TEST(Timer, AThreadThatTheCallbackEndsIsJoined) {
    const auto before = Runtime::Census();
    {
        Callback callback;
        callback.body = [] { pthread_exit(nullptr); };
        Callback next;
        Runtime runtime;
        Timer timer;
        ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
        EXPECT_FALSE(runtime.Tick());
        EXPECT_EQ(callback.runs, 1);
        timer.AskToEnd(kPeriodMs);
        ASSERT_TRUE(timer.SetTimer(kPeriodMs, next.Bound()));
        EXPECT_TRUE(runtime.Tick());
        EXPECT_EQ(next.runs, 1);
        EXPECT_TRUE(timer.StopTimer());
    }
    EXPECT_EQ(Runtime::Census(), before);
}

TEST(Timer, BlocksAsynchronousSignalsOnItsThread) {
    sigset_t mask;
    sigemptyset(&mask);
    Callback callback;
    callback.body = [&] { pthread_sigmask(SIG_SETMASK, nullptr, &mask); };
    Runtime runtime;
    Timer timer;
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    ASSERT_TRUE(timer.SetTimer(kPeriodMs, callback.Bound()));
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    EXPECT_TRUE(runtime.Tick());
    EXPECT_TRUE(timer.StopTimer());
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2, SIGALRM, SIGCHLD,
                             SIGPIPE, SIGWINCH, SIGCONT, SIGIO, SIGVTALRM, SIGRTMIN, SIGRTMAX})
        EXPECT_EQ(sigismember(&mask, signal), 1) << signal;
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT})
        EXPECT_EQ(sigismember(&mask, signal), 0) << signal;
    for (int signal = 1; signal < SIGRTMIN; ++signal)
        EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal)) << signal;
}

}  // namespace
