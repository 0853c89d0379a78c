// What a thread does between two looks at something that another thread is about to change.
#pragma once

#if defined(__x86_64__) || defined(_M_X64)
#  include <immintrin.h>
#endif

inline void SpinWait() {
#if defined(__x86_64__) || defined(_M_X64)
    _mm_pause();
#endif
}
