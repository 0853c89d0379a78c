#include "../../modules/module.h"

MODULE_EXPORT int module_something_else(void);

int module_something_else(void) {
    return 0;
}
