// ThreadSlots.h: the system's values for each thread, of which there is a limited number.
#ifndef VESSA_TESTS_UNIT_WIN32_THREADSLOTS_H
#define VESSA_TESTS_UNIT_WIN32_THREADSLOTS_H

#include <windows.h>

namespace vessa_test {

// Nobody else in the process gets one afterwards.
inline void TakeEveryThreadSlot() {
    while (FlsAlloc(nullptr) != FLS_OUT_OF_INDEXES) {
    }
}

}  // namespace vessa_test

#endif
