/* ModuleSystem.h: what a test module asks of the system, in C. */
#ifndef VESSA_TESTS_MODULES_MODULESYSTEM_H
#define VESSA_TESTS_MODULES_MODULESYSTEM_H

#include <string.h>

/* Without its macros of everyday words. */
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#define MODULE_SUFFIX ".dll"

typedef void (*module_function_t)(void);

/* The function of that name which the program exports; null if there is none. */
static module_function_t FunctionOfProgram(const char* name) {
    const FARPROC found = GetProcAddress(GetModuleHandleW(NULL), name);
    module_function_t function;
    memcpy(&function, &found, sizeof function);
    return function;
}

/* Fills in the path of the module that the address belongs to, with "/" between its parts; "?"
 * if it is not known. */
static void PathOfModule(const void* address, char* path, size_t size) {
    const DWORD how =
        GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
    static WCHAR wide[4096];
    const DWORD room = sizeof wide / sizeof *wide;
    HMODULE module;
    DWORD length = 0;
    if (GetModuleHandleExW(how, (const WCHAR*)address, &module))
        length = GetModuleFileNameW(module, wide, room);
    if (length == 0 || length == room ||
        WideCharToMultiByte(CP_UTF8, 0, wide, -1, path, (int)size, NULL, NULL) == 0)
        memcpy(path, "?", 2);
    for (char* c = strchr(path, '\\'); c != NULL; c = strchr(c, '\\')) *c = '/';
}

#endif
