#include "module.h"

MODULE_IMPORT int module_borrowed(void);
MODULE_EXPORT int module_lend(void);

int module_lend(void) {
    return module_borrowed() + 1;
}
