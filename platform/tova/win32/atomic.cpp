#include <windows.h>

#include "tova.h"

static_assert(sizeof(LONG) == sizeof(int32_t), "the system's 32-bit operations");

int32_t TOVA_AtomicAdd(volatile int32_t* target, int32_t delta) {
    return InterlockedExchangeAdd(reinterpret_cast<volatile LONG*>(target), delta);
}

int32_t TOVA_AtomicCas(volatile int32_t* target, int32_t exchange, int32_t comparand) {
    return InterlockedCompareExchange(reinterpret_cast<volatile LONG*>(target), exchange,
                                      comparand);
}
