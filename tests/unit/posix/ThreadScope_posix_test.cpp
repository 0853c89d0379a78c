// The end of a thread inside a frame.
#include <gtest/gtest.h>
#include <pthread.h>

#include "common/ThreadScope.h"

namespace {

int at_end_runs = 0;

void EndTheThread() {
    ++at_end_runs;
    pthread_exit(PTHREAD_CANCELED);
}

// A key's destructor runs after the thread's stack is gone and must not find a state.
TEST(ThreadScopeAtEnd, TheEndOfTheThreadInsideItLeavesNoStateBehind) {
    struct Seen {
        static void AtThreadEnd(void* flag) {
            *static_cast<bool*>(flag) = ThreadScope::Current() == nullptr;
        }
    };
    bool null_at_thread_end = false;
    pthread_key_t key{};
    ASSERT_EQ(pthread_key_create(&key, &Seen::AtThreadEnd), 0);
    struct Context {
        pthread_key_t key;
        bool* flag;
    } context{key, &null_at_thread_end};
    pthread_t thread{};
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void* argument) -> void* {
                      const auto& given = *static_cast<Context*>(argument);
                      pthread_setspecific(given.key, given.flag);
                      ThreadScope outer;
                      outer.State().at_end = &EndTheThread;
                      return nullptr;
                  },
                  &context),
              0);
    void* result = nullptr;
    pthread_join(thread, &result);
    pthread_key_delete(key);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(at_end_runs, 1);
    EXPECT_TRUE(null_at_thread_end);
}

}  // namespace
