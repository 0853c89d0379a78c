/*
 * One source, one module for each behaviour: what deviates from a well-behaved module is said
 * by macros from CMakeLists.txt. Without any it is a good version-2 module.
 *
 *  ENTRY_V1, ENTRY_V2          the entry of that version: 0 none, 1 a table, 2 returns null;
 *                              ENTRY_V2 3: returns a pointer into nowhere
 *  NAME_V1, NAME_V2            the entry's name here, which is not exported if it is not the usual
 *  SLOT_X                      0: the slot of operation X is null
 *  INIT_RESULT ...             what the operation returns; CREATE_, DESTROY_, QUERY_, UNINIT_
 *  CREATE_WRITES               a failing create stores a pointer all the same
 *  CREATE_NULL, CREATE_SAME    success with null; the same pointer every time
 *  CREATE_GARBAGE              success with a pointer into nowhere
 *  QUERY_NULL, QUERY_GARBAGE   the same of the interface
 *  IKEYS                       0 a list of one, 1 null, 2 "a", "", "b", null, 3 into nowhere
 *  VERSION_GARBAGE             a version that points into nowhere
 *  MAP_*                       the answers of the two calls of GetPluginMapFkeys
 *  THROW_X                     operation X throws, or does what TestModule_Throw does
 *  UNDEFINED_SYMBOL, USES_DEPENDENCY   references outside of the module
 */
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ModuleSystem.h"
#include "modules/TestInterface.h"
#include "vessa/tarnet.h"

#ifndef ENTRY_V1
#  define ENTRY_V1 0
#endif
#ifndef ENTRY_V2
#  define ENTRY_V2 1
#endif
#ifndef NAME_V1
#  define NAME_V1 TARNET_GetPluginInterface
#endif
#ifndef NAME_V2
#  define NAME_V2 TARNET_GetPluginInterface_V2
#endif
#ifndef INIT_RESULT
#  define INIT_RESULT 0
#endif
#ifndef UNINIT_RESULT
#  define UNINIT_RESULT 0
#endif
#ifndef CREATE_RESULT
#  define CREATE_RESULT 0
#endif
#ifndef CREATE_WRITES
#  define CREATE_WRITES 0
#endif
#ifndef CREATE_NULL
#  define CREATE_NULL 0
#endif
#ifndef CREATE_SAME
#  define CREATE_SAME 0
#endif
#ifndef CREATE_GARBAGE
#  define CREATE_GARBAGE 0
#endif
#ifndef DESTROY_RESULT
#  define DESTROY_RESULT 0
#endif
#ifndef QUERY_RESULT
#  define QUERY_RESULT 0
#endif
#ifndef QUERY_NULL
#  define QUERY_NULL 0
#endif
#ifndef QUERY_GARBAGE
#  define QUERY_GARBAGE 0
#endif
#ifndef VERSION_GARBAGE
#  define VERSION_GARBAGE 0
#endif
#ifndef IKEYS
#  define IKEYS 0
#endif

/* What the first and the second call store in *count and return, and how the second fills
 * the entries: the first MAP_FILL of MAP_KEYS. */
#ifndef MAP_COUNT
#  define MAP_COUNT 0
#endif
#ifndef MAP_COUNT_RESULT
#  define MAP_COUNT_RESULT 0
#endif
#ifndef MAP_SECOND_COUNT
#  define MAP_SECOND_COUNT MAP_COUNT
#endif
#ifndef MAP_SECOND_RESULT
#  define MAP_SECOND_RESULT 0
#endif
#ifndef MAP_FILL
#  define MAP_FILL 0
#endif
#ifndef MAP_KEYS
#  define MAP_KEYS "a", "b", "c"
#endif
#ifndef MAP_UNTERMINATED
#  define MAP_UNTERMINATED 0
#endif

#define SELECT_0(slot) NULL
#define SELECT_1(slot) (slot)
#define SELECT_(state, slot) SELECT_##state(slot)
#define SELECT(state, slot) SELECT_(state, slot)

#ifndef SLOT_INIT
#  define SLOT_INIT 1
#endif
#ifndef SLOT_UNINIT
#  define SLOT_UNINIT 1
#endif
#ifndef SLOT_CREATE
#  define SLOT_CREATE 1
#endif
#ifndef SLOT_DESTROY
#  define SLOT_DESTROY 1
#endif
#ifndef SLOT_QUERY
#  define SLOT_QUERY 1
#endif
#ifndef SLOT_IKEYS
#  define SLOT_IKEYS 1
#endif
#ifndef SLOT_VERSION
#  define SLOT_VERSION 1
#endif
#ifndef SLOT_MAP
#  define SLOT_MAP 1
#endif

void TestModule_Throw(const char* operation);
#define THROWS(operation) TestModule_Throw(operation)
#define PASSES(operation) ((void)(operation))
#ifndef THROW_ENTRY
#  define THROW_ENTRY PASSES
#endif
#ifndef THROW_INIT
#  define THROW_INIT PASSES
#endif
#ifndef THROW_UNINIT
#  define THROW_UNINIT PASSES
#endif
#ifndef THROW_CREATE
#  define THROW_CREATE PASSES
#endif
#ifndef THROW_DESTROY
#  define THROW_DESTROY PASSES
#endif
#ifndef THROW_QUERY
#  define THROW_QUERY PASSES
#endif
#ifndef THROW_IKEYS
#  define THROW_IKEYS PASSES
#endif
#ifndef THROW_VERSION
#  define THROW_VERSION PASSES
#endif
#ifndef THROW_MAP
#  define THROW_MAP PASSES
#endif

/* Nothing is mapped there. */
#define NOWHERE ((size_t)8)

/* The file name without folder and suffix, set before anything else of the module runs. */
static char module_name[256];

typedef int (*hook_t)(const char*, const char*, void*, void*, int*);

static int Hooked(const char* operation, void* a, void* b, int* result) {
    /* Looked up each time: the module may outlive one program part and be used by the next. */
    const hook_t hook = (hook_t)FunctionOfProgram("TestModule_Hook");
    *result = 0;
    return hook == NULL ? 0 : hook(module_name, operation, a, b, result);
}

__attribute__((constructor)) static void Load(void) {
    static char path[4096];
    int ignored;
    const char* name = path;
    const char* slash;
    size_t length;
    PathOfModule(module_name, path, sizeof path);
    slash = strrchr(path, '/');
    if (slash != NULL) name = slash + 1;
    length = strlen(name);
    if (length > strlen(MODULE_SUFFIX) &&
        strcmp(name + length - strlen(MODULE_SUFFIX), MODULE_SUFFIX) == 0)
        length -= strlen(MODULE_SUFFIX);
    if (length >= sizeof module_name) length = sizeof module_name - 1;
    memcpy(module_name, name, length);
    (void)Hooked("Load", NULL, NULL, &ignored);
}

__attribute__((destructor)) static void Unload(void) {
    int ignored;
    (void)Hooked("Unload", NULL, NULL, &ignored);
}

#if defined(UNDEFINED_SYMBOL)
int TestModule_DefinedNowhere(void);
#endif
#if defined(USES_DEPENDENCY)
int TestDependency_Answer(void);
#endif

typedef struct instance {
    test_interface interface;
    char fkey[TARNET_FKEY_SIZE];
} instance_t;

static const char* Fkey(void* instance) {
    return ((instance_t*)instance)->fkey;
}

static int Add(int a, int b) {
    return a + b;
}

static void SetUp(instance_t* instance, const char* fkey) {
    instance->interface.instance = instance;
    instance->interface.Fkey = Fkey;
    instance->interface.Add = Add;
    (void)snprintf(instance->fkey, sizeof instance->fkey, "%s", fkey);
}

static int Init(void) {
    int result;
    if (Hooked("Init", NULL, NULL, &result)) return result;
    THROW_INIT("Init");
#if defined(UNDEFINED_SYMBOL)
    if (TestModule_DefinedNowhere() != 0) return -2;
#endif
#if defined(USES_DEPENDENCY)
    if (TestDependency_Answer() != 42) return -2;
#endif
    return INIT_RESULT;
}

static int Uninit(void) {
    int result;
    if (Hooked("Uninit", NULL, NULL, &result)) return result;
    THROW_UNINIT("Uninit");
    return UNINIT_RESULT;
}

static int MakeInstance(const char* fkey, void** instance) {
    instance_t* made;
    THROW_CREATE("CreateInstance");
#if CREATE_SAME
    /* Written by nobody: two threads may be given it at once. */
    static instance_t only = {{&only, Fkey, Add}, ""};
    (void)SetUp;
    (void)fkey;
    made = &only;
#elif CREATE_NULL
    (void)fkey;
    made = NULL;
#elif CREATE_GARBAGE
    (void)fkey;
    made = (void*)NOWHERE;
#else
    if (CREATE_RESULT != 0) {
        static char scribble;
        if (CREATE_WRITES) *instance = &scribble;
        return CREATE_RESULT;
    }
    made = malloc(sizeof *made);
    if (made == NULL) return -2;
    SetUp(made, fkey);
#endif
    *instance = made;
    return 0;
}

#if ENTRY_V1 == 1
static int CreateInstance(void** instance) {
    int result;
    if (Hooked("CreateInstance", NULL, (void*)instance, &result)) return result;
    return MakeInstance("", instance);
}
#endif

#if ENTRY_V2 == 1
static int CreateInstance_V2(const char* fkey, void** instance) {
    int result;
    if (Hooked("CreateInstance_V2", (void*)(size_t)fkey, (void*)instance, &result)) return result;
    return MakeInstance(fkey, instance);
}
#endif

static int DestroyInstance(void* instance) {
    int result;
    if (Hooked("DestroyInstance", instance, NULL, &result)) return result;
    THROW_DESTROY("DestroyInstance");
    /* Freed also when the result is a failure: nobody may use it afterwards. */
    if (!CREATE_SAME && !CREATE_GARBAGE) free(instance);
    return DESTROY_RESULT;
}

static int QueryInterface(void* instance, const char* ikey, void** iface) {
    test_module_query query = {ikey, iface};
    int result;
    if (Hooked("QueryInterface", instance, &query, &result)) return result;
    THROW_QUERY("QueryInterface");
    if (QUERY_RESULT != 0) {
        *iface = instance;
        return QUERY_RESULT;
    }
    if (strcmp(ikey, TEST_MODULE_IKEY) != 0) return TEST_MODULE_ERR_UNKNOWN_IKEY;
    *iface = &((instance_t*)instance)->interface;
    if (QUERY_NULL) *iface = NULL;
    if (QUERY_GARBAGE) *iface = (void*)NOWHERE;
    return 0;
}

static const char** GetAllInterfaceIkeys(void) {
#if IKEYS == 1
    static const char** const ikeys = NULL;
#elif IKEYS == 2
    static const char* ikeys[] = {"a", "", "b", NULL};
#elif IKEYS == 3
    const char** const ikeys = (const char**)NOWHERE;
#else
    static const char* ikeys[] = {TEST_MODULE_IKEY, NULL};
#endif
    int ignored;
    if (Hooked("GetAllInterfaceIkeys", NULL, NULL, &ignored)) return NULL;
    THROW_IKEYS("GetAllInterfaceIkeys");
    return ikeys;
}

static const char* GetFileVersion(void) {
    int ignored;
    if (Hooked("GetFileVersion", NULL, NULL, &ignored)) return NULL;
    THROW_VERSION("GetFileVersion");
    if (VERSION_GARBAGE) return (const char*)NOWHERE;
    return TEST_MODULE_VERSION;
}

#if ENTRY_V2 == 1
static int GetPluginMapFkeys(char (*fkeys)[TARNET_FKEY_SIZE], int* count) {
    static const char* const keys[] = {MAP_KEYS};
    const int fill = MAP_FILL;
    int result;
    if (Hooked("GetPluginMapFkeys", (void*)fkeys, count, &result)) return result;
    THROW_MAP("GetPluginMapFkeys");
    if (fkeys == NULL) {
        *count = MAP_COUNT;
        return MAP_COUNT_RESULT;
    }
    for (int i = 0; i < fill; ++i) {
        if (MAP_UNTERMINATED) {
            memset(fkeys[i], 'x', TARNET_FKEY_SIZE);
        } else {
            (void)snprintf(fkeys[i], TARNET_FKEY_SIZE, "%s", keys[i]);
        }
    }
    *count = MAP_SECOND_COUNT;
    return MAP_SECOND_RESULT;
}
#endif

#if ENTRY_V1 == 1
static const tarnet_export_table_v1 table_v1 = {
    SELECT(SLOT_INIT, Init),
    SELECT(SLOT_UNINIT, Uninit),
    SELECT(SLOT_CREATE, CreateInstance),
    SELECT(SLOT_DESTROY, DestroyInstance),
    SELECT(SLOT_QUERY, QueryInterface),
    SELECT(SLOT_IKEYS, GetAllInterfaceIkeys),
    SELECT(SLOT_VERSION, GetFileVersion),
};
#endif

#if ENTRY_V2 == 1
static const tarnet_export_table_v2 table_v2 = {
    SELECT(SLOT_INIT, Init),
    SELECT(SLOT_UNINIT, Uninit),
    SELECT(SLOT_CREATE, CreateInstance_V2),
    SELECT(SLOT_DESTROY, DestroyInstance),
    SELECT(SLOT_QUERY, QueryInterface),
    SELECT(SLOT_IKEYS, GetAllInterfaceIkeys),
    SELECT(SLOT_VERSION, GetFileVersion),
    SELECT(SLOT_MAP, GetPluginMapFkeys),
};
#endif

/* Every defect leaves some of the operations unused; this keeps them compiled everywhere. */
typedef void (*any_function_t)(void);
__attribute__((used)) static const any_function_t operations[] = {
    (any_function_t)Init,
    (any_function_t)Uninit,
    (any_function_t)MakeInstance,
    (any_function_t)DestroyInstance,
    (any_function_t)QueryInterface,
    (any_function_t)GetAllInterfaceIkeys,
    (any_function_t)GetFileVersion,
    (any_function_t)SetUp,
#if ENTRY_V1 == 1
    (any_function_t)CreateInstance,
#endif
#if ENTRY_V2 == 1
    (any_function_t)CreateInstance_V2,
    (any_function_t)GetPluginMapFkeys,
#endif
};

#if ENTRY_V1 == 1
const tarnet_export_table_v1* NAME_V1(void) {
    int ignored;
    if (Hooked("Entry", NULL, NULL, &ignored)) return NULL;
    THROW_ENTRY("Entry");
    return &table_v1;
}
#elif ENTRY_V1 == 2
const tarnet_export_table_v1* NAME_V1(void) {
    int ignored;
    (void)Hooked("Entry", NULL, NULL, &ignored);
    return NULL;
}
#endif

#if ENTRY_V2 == 1
const tarnet_export_table_v2* NAME_V2(void) {
    int ignored;
    if (Hooked("Entry", NULL, NULL, &ignored)) return NULL;
    THROW_ENTRY("Entry");
    return &table_v2;
}
#elif ENTRY_V2 == 2 || ENTRY_V2 == 3
const tarnet_export_table_v2* NAME_V2(void) {
    int ignored;
    (void)Hooked("Entry", NULL, NULL, &ignored);
    return ENTRY_V2 == 2 ? NULL : (const tarnet_export_table_v2*)NOWHERE;
}
#endif
