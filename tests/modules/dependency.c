/* A library that test modules link: one form has an entry function of its own, which must not
 * be taken for the entry of the module that links it. */
#include <stddef.h>

#include "vessa/tarnet.h"

TARNET_API int TestDependency_Answer(void);

int TestDependency_Answer(void) {
    return 42;
}

#if defined(HAS_SYMBOL)
/* For a module that is linked with this form and meets the other one. */
TARNET_API int TestModule_DefinedNowhere(void);

int TestModule_DefinedNowhere(void) {
    return 0;
}
#endif

#if defined(HAS_ENTRY)
static int Zero(void) {
    return 0;
}

static int Create(const char* fkey, void** instance) {
    static char only;
    (void)fkey;
    *instance = &only;
    return 0;
}

static int Destroy(void* instance) {
    (void)instance;
    return 0;
}

static int Query(void* instance, const char* ikey, void** iface) {
    (void)ikey;
    *iface = instance;
    return 0;
}

const tarnet_export_table_v2* TARNET_GetPluginInterface_V2(void) {
    static const tarnet_export_table_v2 table = {Zero,  Zero, Create, Destroy,
                                                 Query, NULL, NULL,   NULL};
    return &table;
}
#endif
