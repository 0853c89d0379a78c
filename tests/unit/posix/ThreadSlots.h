// ThreadSlots.h: the system's values for each thread, of which there is a limited number.
#ifndef VESSA_TESTS_UNIT_POSIX_THREADSLOTS_H
#define VESSA_TESTS_UNIT_POSIX_THREADSLOTS_H

#include <pthread.h>

namespace vessa_test {

// Nobody else in the process gets one afterwards.
inline void TakeEveryThreadSlot() {
    pthread_key_t key{};
    while (pthread_key_create(&key, nullptr) == 0) {
    }
}

}  // namespace vessa_test

#endif
