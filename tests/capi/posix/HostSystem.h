/*
 * HostSystem.h: what the applications in this folder ask of the system, in C. Each system has a
 * folder with a header of this name.
 */
#ifndef VESSA_TESTS_CAPI_HOSTSYSTEM_H
#define VESSA_TESTS_CAPI_HOSTSYSTEM_H

#ifndef _GNU_SOURCE
#  error "_GNU_SOURCE has to be defined before the first header of the system"
#endif
#include <dlfcn.h>
#include <pthread.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define VESSA_FILE "libvessa.so.2"
#define TOVA_FILE "libtova.so.2"
/* How a mapping of a module "a" ends. */
#define MODULE_A_FILE "/a.so"
/* For a function that modules look for in the program. */
#define HOST_EXPORT __attribute__((visibility("default")))

/* The arguments of main in UTF-8. */
static inline char** HostArguments(int* count, char** arguments) {
    (void)count;
    return arguments;
}

/* Libraries by their paths. With global its names are visible to all. */

static inline void* OpenLibrary(const char* path, int global) {
    return dlopen(path, RTLD_NOW | (global ? RTLD_GLOBAL : 0));
}

static inline int CloseLibrary(void* library) {
    return dlclose(library);
}

static inline void* FindSymbol(void* library, const char* name) {
    return dlsym(library, name);
}

static inline void SayLibraryError(const char* path) {
    fprintf(stderr, "%s: %s\n", path, dlerror());
}

/* Whether a mapping of this process comes from a file whose path contains the text. */
static inline int IsMapped(const char* text) {
    char line[4096];
    int found = 0;
    FILE* const maps = fopen("/proc/self/maps", "r");
    if (maps == NULL) exit(3);
    while (fgets(line, sizeof line, maps) != NULL) {
        if (strstr(line, text) != NULL) found = 1;
    }
    fclose(maps);
    return found;
}

/* Takes all the slots for threads' own values that the system has, but a few. */
static inline void LeaveFewThreadSlots(void) {
    pthread_key_t keys[4];
    pthread_key_t key;
    size_t taken = 0;
    while (pthread_key_create(&key, NULL) == 0) keys[taken++ % 4] = key;
    for (size_t i = 0; i < taken && i < 4; ++i) pthread_key_delete(keys[i]);
}

static inline void GoToTheRoot(void) {
    if (chdir("/") != 0) exit(3);
}

/* Ends the process without exit handlers. */
static inline void EndAtOnce(int status) {
    _exit(status);
}

/* To standard error, past every buffer. */
static inline void Say(const char* text) {
    const ssize_t ignored = write(2, text, strlen(text));
    (void)ignored;
}

/* Threads, and events that stay once they have happened. */

typedef sem_t event_t;
typedef pthread_t thread_t;

static inline void MakeEvent(event_t* event) {
    sem_init(event, 0, 0);
}

static inline void Happen(event_t* event) {
    sem_post(event);
}

static inline void Await(event_t* event) {
    while (sem_wait(event) != 0) {
    }
}

static inline thread_t Start(void* (*function)(void*), void* argument) {
    pthread_t thread;
    if (pthread_create(&thread, NULL, function, argument) != 0) exit(3);
    return thread;
}

static inline void Join(thread_t thread) {
    pthread_join(thread, NULL);
}

#endif
