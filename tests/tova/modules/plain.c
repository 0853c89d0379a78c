#include "module.h"

MODULE_EXPORT int module_answer(void);
MODULE_EXPORT int module_count(void);
MODULE_EXPORT int module_value = 23;

int module_answer(void) {
    return 42;
}

/* Begins again with each real load. */
int module_count(void) {
    static int count = 0;
    return ++count;
}
