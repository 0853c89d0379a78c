#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <vessa/tarnet.h>

static void Say(const char* name) { printf("hello, %s\n", name); }
static struct greet { void (*say)(const char* name); } greet = {Say};

static int Init(void) { return 0; }
static int Uninit(void) { return 0; }
static int Create(void** instance) { return (*instance = malloc(1)) != NULL ? 0 : 1; }
static int Destroy(void* instance) { return free(instance), 0; }
static int Query(void* instance, const char* ikey, void** iface) {
    *iface = instance != NULL && strcmp(ikey, "greet") == 0 ? &greet : NULL;
    return *iface != NULL ? 0 : 1;
}

static const tarnet_export_table_v1 table = {Init, Uninit, Create, Destroy, Query, NULL, NULL};
const tarnet_export_table_v1* TARNET_GetPluginInterface(void) { return &table; }
