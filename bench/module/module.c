/* The plug-in of all benchmarks: a small instance, three interfaces. It serves every key. */
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <vessa/tarnet.h>

struct interface {
    const char* name; /* null: the last one */
    int (*run)(void* instance);
};

struct instance {
    const struct interface* interfaces;
    int value;
};

static const struct interface interfaces[] = {{"bench.iface.encode", NULL},
                                              {"bench.iface.decode", NULL},
                                              {"bench.iface.status", NULL},
                                              {NULL, NULL}};

static int Init(void) {
    return 0;
}

static int Uninit(void) {
    return 0;
}

static int Create(const char* fkey, void** instance) {
    struct instance* const made = malloc(sizeof *made);
    if (made == NULL) return 1;
    (void)fkey;
    made->interfaces = interfaces;
    made->value = 42;
    *instance = made;
    return 0;
}

static int Destroy(void* instance) {
    free(instance);
    return 0;
}

/* Reads the instance, as whatever serves an instance does. */
static int Query(void* instance, const char* ikey, void** iface) {
    const struct interface* found = ((const struct instance*)instance)->interfaces;
    while (found->name != NULL && strcmp(found->name, ikey) != 0) ++found;
    if (found->name == NULL) return 1;
    *iface = (void*)(uintptr_t)found;
    return 0;
}

static const tarnet_export_table_v2 table = {Init,  Uninit, Create, Destroy,
                                             Query, NULL,   NULL,   NULL};

const tarnet_export_table_v2* TARNET_GetPluginInterface_V2(void) {
    return &table;
}
