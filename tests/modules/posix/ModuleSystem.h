/* ModuleSystem.h: what a test module asks of the system, in C. */
#ifndef VESSA_TESTS_MODULES_MODULESYSTEM_H
#define VESSA_TESTS_MODULES_MODULESYSTEM_H

#ifndef _GNU_SOURCE
#  error "_GNU_SOURCE has to be defined before the first header of the system"
#endif
#include <dlfcn.h>
#include <string.h>

#define MODULE_SUFFIX ".so"

typedef void (*module_function_t)(void);

/* The function of that name which the program exports; null if there is none. */
static module_function_t FunctionOfProgram(const char* name) {
    void* const symbol = dlsym(RTLD_DEFAULT, name);
    module_function_t function;
    memcpy(&function, &symbol, sizeof function);
    return function;
}

/* Fills in the path of the module that the address belongs to; "?" if it is not known. */
static void PathOfModule(const void* address, char* path, size_t size) {
    Dl_info info;
    const char* name = "?";
    if (dladdr(address, &info) != 0 && info.dli_fname != NULL && strlen(info.dli_fname) < size)
        name = info.dli_fname;
    memcpy(path, name, strlen(name) + 1);
}

#endif
