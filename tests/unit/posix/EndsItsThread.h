// EndsItsThread.h: runs what is to end its thread on one of its own.
#ifndef VESSA_TESTS_UNIT_POSIX_ENDSITSTHREAD_H
#define VESSA_TESTS_UNIT_POSIX_ENDSITSTHREAD_H

#include <pthread.h>

#include <functional>
#include <utility>

namespace vessa_test {

// Runs the function on a thread that ends itself in it. False if it returned.
inline bool EndsItsThread(std::function<void()> function) {
    struct Body {
        std::function<void()> function;
        bool returned;
    } body{std::move(function), false};
    const auto run = [](void* argument) -> void* {
        Body* const own = static_cast<Body*>(argument);
        own->function();
        own->returned = true;
        return nullptr;
    };
    pthread_t thread;
    if (pthread_create(&thread, nullptr, run, &body) != 0) return false;
    pthread_join(thread, nullptr);
    return !body.returned;
}

}  // namespace vessa_test

#endif
