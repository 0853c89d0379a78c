// RawCall.h: a call of the system that no library stands in for.
#ifndef VESSA_TESTS_RELIABILITY_SEEDS_RAWCALL_H
#define VESSA_TESTS_RELIABILITY_SEEDS_RAWCALL_H

namespace schedule {

// What the system gives: a result, or an error number below 0.
inline long RawCall(long number, long a, long b, long c, long d, long e, long f) {
    register long r10 __asm__("r10") = d;
    register long r8 __asm__("r8") = e;
    register long r9 __asm__("r9") = f;
    long result;
    __asm__ volatile("syscall"
                     : "=a"(result)
                     : "a"(number), "D"(a), "S"(b), "d"(c), "r"(r10), "r"(r8), "r"(r9)
                     : "rcx", "r11", "memory");
    return result;
}

}  // namespace schedule

#endif
