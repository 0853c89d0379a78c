#include "module.h"

MODULE_EXPORT int module_borrowed(void);

int module_borrowed(void) {
    return 7;
}
