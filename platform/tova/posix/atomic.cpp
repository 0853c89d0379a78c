#include "tova.h"

int32_t TOVA_AtomicAdd(volatile int32_t* target, int32_t delta) {
    return __atomic_fetch_add(target, delta, __ATOMIC_SEQ_CST);
}

int32_t TOVA_AtomicCas(volatile int32_t* target, int32_t exchange, int32_t comparand) {
    // A failed exchange leaves the value it found in comparand, a successful one leaves it equal.
    __atomic_compare_exchange_n(target, &comparand, exchange, false, __ATOMIC_SEQ_CST,
                                __ATOMIC_SEQ_CST);
    return comparand;
}
