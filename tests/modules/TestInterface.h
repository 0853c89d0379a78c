/*
 * TestInterface.h: what the test modules offer and what they answer, for the modules
 * themselves and for the tests that use them. Plain C.
 */
#ifndef VESSA_TESTS_MODULES_TESTINTERFACE_H
#define VESSA_TESTS_MODULES_TESTINTERFACE_H

#ifdef __cplusplus
extern "C" {
#endif

/* The interface that every instance of a test module has under this ikey. */
#define TEST_MODULE_IKEY "iface"

typedef struct test_interface {
    void* instance;
    /* The fkey that the instance was made for; "" in a version-1 module. */
    const char* (*Fkey)(void* instance);
    int (*Add)(int a, int b);
} test_interface;

/* What GetFileVersion answers where the module has one. */
#define TEST_MODULE_VERSION "1.2.3 test"

/* Failure codes, a different one for each operation, so that a mix-up shows. */
enum test_module_error {
    TEST_MODULE_ERR_MAP_COUNT = 3,
    TEST_MODULE_ERR_MAP_FILL = 4,
    TEST_MODULE_ERR_UNKNOWN_IKEY = 5,
    TEST_MODULE_ERR_INIT = 7,
    TEST_MODULE_ERR_UNINIT = 9,
    TEST_MODULE_ERR_CREATE = 11,
    TEST_MODULE_ERR_DESTROY = 12,
    TEST_MODULE_ERR_QUERY = 13
};

/*
 * Called by a module at the start of each operation if the program defines and exports it.
 *
 *  module     the file name that the module was loaded from, without its suffix: a copy of a
 *             module under another name is told apart.
 *  operation  "Load", "Unload" (the module's constructor and destructor), "Entry" or the
 *             name of the operation's slot.
 *  a, b       by operation:
 *               CreateInstance       b: void** instance
 *               CreateInstance_V2    a: const char* fkey, b: void** instance
 *               DestroyInstance      a: void* instance
 *               QueryInterface       a: void* instance, b: test_module_query*
 *               GetPluginMapFkeys    a: char (*fkeys)[256], b: int* count
 *               others               null
 *  result     with a result other than 0 the operation does nothing more and returns
 *             *result, or null where it returns a pointer.
 */
typedef struct test_module_query {
    const char* ikey;
    void** iface;
} test_module_query;

int TestModule_Hook(const char* module, const char* operation, void* a, void* b, int* result);

#ifdef __cplusplus
}
#endif

#endif
