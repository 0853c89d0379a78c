/*
 * HostSystem.h: what the applications in this folder ask of the system, in C. Each system has a
 * folder with a header of this name.
 */
#ifndef VESSA_TESTS_CAPI_HOSTSYSTEM_H
#define VESSA_TESTS_CAPI_HOSTSYSTEM_H

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
/* Without its macros of everyday words. */
#define WIN32_LEAN_AND_MEAN
#define PSAPI_VERSION 2
#include <windows.h>
/* After that one. */
#include <psapi.h>
#include <shellapi.h>

#define VESSA_FILE "vessa.dll"
#define TOVA_FILE "tova.dll"
/* How a mapping of a module "a" ends. */
#define MODULE_A_FILE "/a.dll"
/* For a function that modules look for in the program. */
#define HOST_EXPORT __declspec(dllexport)

/* Both give a text that lives as long as the process. */

static inline WCHAR* WideText(const char* text) {
    const int size = MultiByteToWideChar(CP_UTF8, 0, text, -1, NULL, 0);
    WCHAR* const wide = calloc((size_t)size + 1, sizeof *wide);
    if (wide == NULL) exit(3);
    MultiByteToWideChar(CP_UTF8, 0, text, -1, wide, size);
    return wide;
}

static inline char* NarrowText(const WCHAR* wide) {
    const int size = WideCharToMultiByte(CP_UTF8, 0, wide, -1, NULL, 0, NULL, NULL);
    char* const text = calloc((size_t)size + 1, 1);
    if (text == NULL) exit(3);
    WideCharToMultiByte(CP_UTF8, 0, wide, -1, text, size, NULL, NULL);
    return text;
}

/* The arguments of main in UTF-8. */
static inline char** HostArguments(int* count, char** arguments) {
    WCHAR** const wide = CommandLineToArgvW(GetCommandLineW(), count);
    for (int i = 0; i < *count; ++i) arguments[i] = NarrowText(wide[i]);
    return arguments;
}

/* Libraries by their paths. With global its names are visible to all, as they are to nobody here
 * who does not ask for them. */

static inline void* OpenLibrary(const char* path, int global) {
    (void)global;
    WCHAR* const wide = WideText(path);
    for (WCHAR* c = wide; *c != 0; ++c) {
        if (*c == '/') *c = '\\';
    }
    return LoadLibraryW(wide);
}

static inline int CloseLibrary(void* library) {
    return FreeLibrary(library) ? 0 : -1;
}

static inline void* FindSymbol(void* library, const char* name) {
    const FARPROC found = GetProcAddress(library, name);
    void* symbol;
    memcpy(&symbol, &found, sizeof symbol);
    return symbol;
}

static inline void SayLibraryError(const char* path) {
    fprintf(stderr, "%s: error %lu\n", path, GetLastError());
}

/* Whether a mapping of this process comes from a file whose path contains the text. */
static inline int IsMapped(const char* text) {
    static HMODULE modules[4096];
    static WCHAR wide[4096];
    DWORD bytes = 0;
    int found = 0;
    if (!EnumProcessModules(GetCurrentProcess(), modules, sizeof modules, &bytes)) exit(3);
    for (DWORD i = 0; i < bytes / sizeof *modules; ++i) {
        if (GetModuleFileNameW(modules[i], wide, 4096) == 0) continue;
        for (WCHAR* c = wide; *c != 0; ++c) {
            if (*c == '\\') *c = '/';
        }
        char* const path = NarrowText(wide);
        if (strstr(path, text) != NULL) found = 1;
        free(path);
    }
    return found;
}

/* Takes all the slots for threads' own values that the system has, of either kind, but a few. */
static inline void LeaveFewThreadSlots(void) {
    DWORD plain[4];
    DWORD cleaned[8];
    DWORD slot;
    size_t taken = 0;
    while ((slot = TlsAlloc()) != TLS_OUT_OF_INDEXES) plain[taken++ % 4] = slot;
    for (size_t i = 0; i < taken && i < 4; ++i) TlsFree(plain[i]);
    taken = 0;
    while ((slot = FlsAlloc(NULL)) != FLS_OUT_OF_INDEXES) cleaned[taken++ % 8] = slot;
    for (size_t i = 0; i < taken && i < 8; ++i) FlsFree(cleaned[i]);
}

static inline void GoToTheRoot(void) {
    if (!SetCurrentDirectoryW(L"\\")) exit(3);
}

/* Ends the process without exit handlers, and without the libraries hearing of it. */
static inline void EndAtOnce(int status) {
    TerminateProcess(GetCurrentProcess(), (UINT)status);
    for (;;) Sleep(INFINITE);
}

/* To standard error, past every buffer. */
static inline void Say(const char* text) {
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_ERROR_HANDLE), text, (DWORD)strlen(text), &written, NULL);
}

/* Threads, and events that stay once they have happened. */

typedef HANDLE event_t;
typedef HANDLE thread_t;

static inline void MakeEvent(event_t* event) {
    *event = CreateSemaphoreW(NULL, 0, 1000, NULL);
}

static inline void Happen(event_t* event) {
    ReleaseSemaphore(*event, 1, NULL);
}

static inline void Await(event_t* event) {
    WaitForSingleObject(*event, INFINITE);
}

typedef struct start {
    void* (*function)(void*);
    void* argument;
} start_t;

static inline DWORD WINAPI RunStarted(void* given) {
    const start_t start = *(start_t*)given;
    free(given);
    start.function(start.argument);
    return 0;
}

static inline thread_t Start(void* (*function)(void*), void* argument) {
    start_t* const start = malloc(sizeof *start);
    if (start == NULL) exit(3);
    start->function = function;
    start->argument = argument;
    const HANDLE thread = CreateThread(NULL, 0, &RunStarted, start, 0, NULL);
    if (thread == NULL) exit(3);
    return thread;
}

static inline void Join(thread_t thread) {
    WaitForSingleObject(thread, INFINITE);
}

#endif
