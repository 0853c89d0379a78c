// What passes through the gate and is ended by the thread's cancellation.
#include <gtest/gtest.h>
#include <pthread.h>

#include <chrono>
#include <functional>

#include "common/RegistryGate.h"
#include "support/Child.h"
#include "support/Runtime.h"
#include "support/Sync.h"
#include "unit/RegistryGatePasses.h"

using vessa_test::ChildOptions;
using vessa_test::ChildResult;
using vessa_test::Gate;
using vessa_test::IsChild;
using vessa_test::JoiningThread;
using vessa_test::RunChild;
using vessa_test::Runtime;
using vessa_test::RuntimeCall;
using vessa_test::ThisTestAsChild;
using vessa_test::Tova;

namespace {

TEST(RegistryGate, ACancelledThreadLeavesNothingBehind) {
    struct Body {
        RegistryGate gate;
        void (*run)(RegistryGate&);
    } body;
    const auto end_thread = [](void (*run)(RegistryGate&), Body& shared) {
        shared.run = run;
        pthread_t thread{};
        ASSERT_EQ(pthread_create(
                      &thread, nullptr,
                      [](void* argument) -> void* {
                          auto& given = *static_cast<Body*>(argument);
                          given.run(given.gate);
                          return nullptr;
                      },
                      &shared),
                  0);
        void* result = nullptr;
        pthread_join(thread, &result);
        EXPECT_EQ(result, PTHREAD_CANCELED);
        EXPECT_EQ(shared.gate.Readers(), 0);
        bool wrote = false;
        JoiningThread other([&] { Writing(shared.gate, [&] { wrote = true; }); });
        other.Join();
        EXPECT_TRUE(wrote);
    };
    end_thread([](RegistryGate& gate) { Reading(gate, [] { pthread_exit(PTHREAD_CANCELED); }); },
               body);
    end_thread(
        [](RegistryGate& gate) {
            Reading(gate, [&] { Reading(gate, [] { pthread_exit(PTHREAD_CANCELED); }); });
        },
        body);
    end_thread([](RegistryGate& gate) { Writing(gate, [] { pthread_exit(PTHREAD_CANCELED); }); },
               body);
    end_thread(
        [](RegistryGate& gate) {
            WritingThenReading(
                gate, [] {}, [] { pthread_exit(PTHREAD_CANCELED); });
        },
        body);
}

// A cancelled writer ends in its wait, with the mutex or, in the gap, without it. In a process
// of its own: what it left behind would hang everybody who comes after it.
void CancelAWaitingWriter(const std::function<bool(const RuntimeCall&)>& where) {
    RegistryGate gate;
    Gate there;
    Runtime runtime;
    runtime.Before(Tova::SemTimedWait, [&](RuntimeCall& call) {
        if (where(call)) there.Open();
    });
    pthread_t writer{};
    Reading(gate, [&] {
        ASSERT_EQ(pthread_create(
                      &writer, nullptr,
                      [](void* argument) -> void* {
                          Writing(*static_cast<RegistryGate*>(argument), [] {});
                          return nullptr;
                      },
                      &gate),
                  0);
        there.Wait();
        ASSERT_EQ(pthread_cancel(writer), 0);
        void* result = nullptr;
        ASSERT_EQ(pthread_join(writer, &result), 0);
        ASSERT_EQ(result, PTHREAD_CANCELED);
    });
    EXPECT_EQ(gate.Readers(), 0);
    int passes = 0;
    JoiningThread reader([&] { Reading(gate, [&] { ++passes; }); });
    reader.Join();
    JoiningThread next([&] { Writing(gate, [&] { ++passes; }); });
    next.Join();
    EXPECT_EQ(passes, 2);
}

ChildOptions Impatient() {
    ChildOptions options = ThisTestAsChild();
    options.watchdog = std::chrono::seconds(20);
    return options;
}

TEST(RegistryGate, AWriterCancelledInItsWaitGivesTheMutexBack) {
    if (!IsChild()) {
        const ChildResult result = RunChild(Impatient());
        EXPECT_TRUE(result.Exited(0)) << result;
        return;
    }
    CancelAWaitingWriter([](const RuntimeCall& call) { return call.milliseconds >= 50; });
}

TEST(RegistryGate, AWriterCancelledBetweenItsSlicesLeavesTheMutexAlone) {
    if (!IsChild()) {
        const ChildResult result = RunChild(Impatient());
        EXPECT_TRUE(result.Exited(0)) << result;
        return;
    }
    CancelAWaitingWriter(
        [](const RuntimeCall& call) { return call.milliseconds > 0 && call.milliseconds < 50; });
}

}  // namespace
