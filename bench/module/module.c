/* The plug-in of all benchmarks: a small instance, three interfaces. It serves every key. */
#include <stdlib.h>
#include <string.h>
#include <vessa/tarnet.h>

struct instance {
    const void* operations;
    int value;
};

static const struct {
    const char* name;
    int (*run)(void* instance);
} interfaces[] = {{"bench.iface.encode", NULL}, {"bench.iface.decode", NULL},
                  {"bench.iface.status", NULL}};

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
    made->operations = interfaces;
    made->value = 42;
    *instance = made;
    return 0;
}

static int Destroy(void* instance) {
    free(instance);
    return 0;
}

static int Query(void* instance, const char* ikey, void** iface) {
    (void)instance;
    for (size_t i = 0; i < sizeof interfaces / sizeof interfaces[0]; ++i) {
        if (strcmp(interfaces[i].name, ikey) != 0) continue;
        *iface = (void*)&interfaces[i];
        return 0;
    }
    return 1;
}

static const tarnet_export_table_v2 table = {Init,  Uninit, Create, Destroy,
                                             Query, NULL,   NULL,   NULL};

const tarnet_export_table_v2* TARNET_GetPluginInterface_V2(void) {
    return &table;
}
