#include "module.h"

/* Nothing that is there at run time defines it; the provider would. */
MODULE_IMPORT int module_borrowed(void);
MODULE_EXPORT int module_unresolved(void);

int module_unresolved(void) {
    return module_borrowed() + 2;
}
