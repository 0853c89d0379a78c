/* A plug-in that says which release it is: RELEASE, from CMakeLists.txt. The query gives a function
 * under the ikey "release". Its files are of one size, so that one can be written over another. */
#include <stdlib.h>
#include <string.h>

#include "vessa/tarnet.h"

static int Release(void) {
    return RELEASE;
}
static int (*const release)(void) = Release;

static int Init(void) {
    return 0;
}
static int Uninit(void) {
    return 0;
}
static int Create(void** instance) {
    *instance = malloc(1);
    return *instance != NULL ? 0 : 1;
}
static int Destroy(void* instance) {
    free(instance);
    return 0;
}
static int Query(void* instance, const char* ikey, void** iface) {
    (void)instance;
    if (strcmp(ikey, "release") != 0) return 1;
    memcpy(iface, (const void*)&release, sizeof *iface);
    return 0;
}

static const char** Ikeys(void) {
    static const char* ikeys[] = {"release", NULL};
    return ikeys;
}
static const char* Version(void) {
    return "upgrade";
}

static const tarnet_export_table_v1 table = {Init, Uninit, Create, Destroy, Query, Ikeys, Version};
const tarnet_export_table_v1* TARNET_GetPluginInterface(void) {
    return &table;
}
