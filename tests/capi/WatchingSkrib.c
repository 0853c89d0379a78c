/*
 * A stand-in for the logging library that watches the life of the loggers: whoever writes
 * after the last release, or releases more often than was got, ends the program with exit
 * status 97. Each release of the logger "vessa" is told on standard error.
 */
#include "HostSystem.h"
/* Before all others. */
#include <stdatomic.h>
#include <string.h>

#include "skrib/skrib.h"

typedef struct logger {
    const char* name;
    atomic_int references;
    atomic_int released;
} logger_t;

static logger_t vessa = {"vessa", 0, 0};
static logger_t others = {"", 0, 0};

static void Refuse(const char* text) {
    Say(text);
    EndAtOnce(97);
}

void* SKRIB_GetLogger(const char* name) {
    logger_t* const logger = strcmp(name, vessa.name) == 0 ? &vessa : &others;
    if (logger == &vessa && atomic_load(&vessa.released)) Refuse("got after the release\n");
    atomic_fetch_add(&logger->references, 1);
    return logger;
}

void SKRIB_ReleaseLogger(void* released) {
    logger_t* const logger = released;
    if (logger == NULL) return;
    if (atomic_fetch_sub(&logger->references, 1) != 1 && logger == &vessa)
        Refuse("released too often\n");
    if (logger != &vessa) return;
    atomic_store(&vessa.released, 1);
    Say("released\n");
}

int SKRIB_GetThreshold(void* logger) {
    if (logger == &vessa && atomic_load(&vessa.released)) Refuse("asked after the release\n");
    return SKRIB_LEVEL_TRACE;
}

void SKRIB_Write(void* logger, int level, const char* text, const char* file, const char* function,
                 int line) {
    (void)level;
    (void)file;
    (void)function;
    (void)line;
    if (logger != &vessa || !atomic_load(&vessa.released)) return;
    Say(text);
    Refuse(" was written after the release\n");
}

int SKRIB_SetThreshold(const char* name, int level) {
    (void)name;
    (void)level;
    return 0;
}

int SKRIB_SetSink(void (*sink)(void* user, const char* logger, int level, const char* text,
                               const char* file, const char* function, int line),
                  void* user) {
    (void)sink;
    (void)user;
    return 0;
}
