// ThreadStacks.h: the size of a thread's stack.
#ifndef VESSA_TESTS_UNIT_POSIX_THREADSTACKS_H
#define VESSA_TESTS_UNIT_POSIX_THREADSTACKS_H

#include <gtest/gtest.h>
#include <pthread.h>

#include <cstddef>

namespace vessa_test {

// The calling thread's; 0 if the system does not say.
inline std::size_t OwnStackBytes() {
    std::size_t stack_bytes = 0;
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0) return 0;
    pthread_attr_getstacksize(&attributes, &stack_bytes);
    pthread_attr_destroy(&attributes);
    return stack_bytes;
}

// Runs on a thread whose stack holds no recursion over a hostile text.
template <class Function>
void OnSmallStack(Function function) {
    constexpr std::size_t kStackBytes = 256 * 1024;
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, kStackBytes), 0);
    pthread_t thread{};
    ASSERT_EQ(pthread_create(
                  &thread, &attributes,
                  [](void* argument) -> void* {
                      (*static_cast<Function*>(argument))();
                      return nullptr;
                  },
                  &function),
              0);
    pthread_attr_destroy(&attributes);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
}

}  // namespace vessa_test

#endif
