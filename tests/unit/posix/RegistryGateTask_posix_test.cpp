// Tasks that were put off to the end of a read, and a thread that ends in one of them.
#include <gtest/gtest.h>
#include <pthread.h>

#include "common/RegistryGate.h"
#include "unit/NamedTask.h"
#include "unit/RegistryGatePasses.h"

namespace {

TEST(RegistryGateTask, OthersRunAlsoWhenTheThreadIsEndedInOne) {
    struct Body {
        RegistryGate gate;
        Journal journal;
        NamedTask first{journal, "first"};
        NamedTask second{journal, "second"};
    } body;
    body.first.inside = [] { pthread_exit(PTHREAD_CANCELED); };
    pthread_t thread{};
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void* argument) -> void* {
                      auto& given = *static_cast<Body*>(argument);
                      Reading(given.gate, [&] {
                          given.gate.AfterRead(&given.first);
                          given.gate.AfterRead(&given.second);
                      });
                      return nullptr;
                  },
                  &body),
              0);
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(body.journal, (Journal{"first", "second"}));
    EXPECT_EQ(body.gate.Readers(), 0);
}

}  // namespace
