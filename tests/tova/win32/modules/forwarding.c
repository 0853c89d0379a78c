#include "../../modules/module.h"

MODULE_EXPORT int module_own(void);

int module_own(void) {
    return 3;
}
