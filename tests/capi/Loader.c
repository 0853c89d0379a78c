/* An application that is not linked with the library: it loads and unloads it by path. */
#include "HostSystem.h"
/* Before all others. */
#include "Check.h"
#include "tova/tova.h"
#include "vessa/vessa.h"

#define LIBRARY "./" VESSA_FILE
#define TOVA_LIBRARY "./" TOVA_FILE

typedef struct library {
    void* handle;
    int (*Init)(void);
    void (*Uninit)(void);
    int (*CreateInstance)(const char* fkey, void** instance, int* plugin_error);
    int (*DestroyInstance)(void* instance, int* plugin_error);
} library_t;

static library_t library;

static void Look(void* handle, const char* name, void* function) {
    void* const symbol = FindSymbol(handle, name);
    if (symbol == NULL) {
        SayLibraryError(name);
        exit(3);
    }
    memcpy(function, &symbol, sizeof symbol);
}

static void Load(const char* path, int global) {
    library.handle = OpenLibrary(path, global);
    if (library.handle == NULL) {
        SayLibraryError(path);
        exit(3);
    }
    Look(library.handle, "VESSA_Init", (void*)&library.Init);
    Look(library.handle, "VESSA_Uninit", (void*)&library.Uninit);
    Look(library.handle, "VESSA_CreateInstance", (void*)&library.CreateInstance);
    Look(library.handle, "VESSA_DestroyInstance", (void*)&library.DestroyInstance);
}

static void Unload(void) {
    CHECK_INT(CloseLibrary(library.handle), 0);
}

static void Use(void) {
    void* instance = NULL;
    int error = 99;
    CHECK_INT(library.CreateInstance("a", &instance, &error), VESSA_OK);
    CHECK(instance != NULL);
    CHECK_INT(library.DestroyInstance(instance, &error), VESSA_OK);
}

static int Again(int global) {
    LeaveFewThreadSlots();
    for (int round = 0; round < 20; ++round) {
        Load(LIBRARY, global);
        if (!CHECK_INT(library.Init(), VESSA_OK)) {
            fprintf(stderr, "    round %d\n", round);
            break;
        }
        Use();
        library.Uninit();
        Unload();
        CHECK(!IsMapped(VESSA_FILE));
        CHECK(!IsMapped(MODULE_A_FILE));
    }
    return CheckResult();
}

/* Unloaded without having been used at all, or without having been started. */
static int Unused(void) {
    Load(LIBRARY, 0);
    Unload();
    CHECK(!IsMapped(VESSA_FILE));
    Load(LIBRARY, 0);
    void* instance = NULL;
    CHECK_INT(library.CreateInstance("a", &instance, NULL), VESSA_ERR_NOT_REGISTERED);
    library.Uninit();
    Unload();
    CHECK(!IsMapped(VESSA_FILE));
    return CheckResult();
}

/* Unloaded while it runs: it stays, and works, until it is stopped. */
static int Forgotten(void) {
    Load(LIBRARY, 0);
    CHECK_INT(library.Init(), VESSA_OK);
    Unload();
    CHECK(IsMapped(VESSA_FILE));
    Use();
    CHECK_INT(library.Init(), VESSA_OK);
    library.Uninit();
    CHECK(IsMapped(VESSA_FILE));
    /* Whoever stops it holds it. */
    Load(LIBRARY, 0);
    library.Uninit();
    Unload();
    CHECK(!IsMapped(VESSA_FILE));
    return CheckResult();
}

static int LeftRunning(int unload) {
    Load(LIBRARY, 0);
    CHECK_INT(library.Init(), VESSA_OK);
    Use();
    if (unload) Unload();
    return CheckResult();
}

/* Loaded by the given name; the root is beside that name wherever the working folder goes. */
static int Named(const char* path) {
    Load(path, 0);
    GoToTheRoot();
    CHECK_INT(library.Init(), VESSA_OK);
    Use();
    library.Uninit();
    Unload();
    return CheckResult();
}

/* Registered before the library is there, so that it runs after the library's own end. */
static void UseAtExit(void) {
    Use();
    CHECK_INT(library.Init(), VESSA_OK);
    library.Uninit();
    library.Uninit();
    if (CheckResult() != 0) EndAtOnce(CHECK_FAILED);
    fputs("exit handler\n", stdout);
}

static int LateUse(void) {
    atexit(UseAtExit);
    Load(LIBRARY, 0);
    CHECK_INT(library.Init(), VESSA_OK);
    Use();
    return CheckResult();
}

typedef void* (*assign_t)(void* to, const void* from);

/* The two exported assignments: both objects share the native one, which goes with the last. */
static int Assignments(void) {
    Load(LIBRARY, 0);
    void* const runtime = OpenLibrary(TOVA_LIBRARY, 0);
    assign_t assign_mutex;
    assign_t assign_semaphore;
    int (*MutexCreate)(tova_mutex_t*, int);
    int (*MutexLock)(tova_mutex_t*);
    int (*MutexUnlock)(tova_mutex_t*);
    int (*MutexDestroy)(tova_mutex_t*);
    int (*SemCreate)(tova_sem_t*, unsigned);
    int (*SemPost)(tova_sem_t*);
    int (*SemTimedWait)(tova_sem_t*, unsigned);
    int (*SemDestroy)(tova_sem_t*);
    Look(library.handle, "_ZN10TOVA_MutexaSERKS_", (void*)&assign_mutex);
    Look(library.handle, "_ZN9TOVA_SemaaSERKS_", (void*)&assign_semaphore);
    Look(runtime, "TOVA_MutexCreate", (void*)&MutexCreate);
    Look(runtime, "TOVA_MutexLock", (void*)&MutexLock);
    Look(runtime, "TOVA_MutexUnlock", (void*)&MutexUnlock);
    Look(runtime, "TOVA_MutexDestroy", (void*)&MutexDestroy);
    Look(runtime, "TOVA_SemCreate", (void*)&SemCreate);
    Look(runtime, "TOVA_SemPost", (void*)&SemPost);
    Look(runtime, "TOVA_SemTimedWait", (void*)&SemTimedWait);
    Look(runtime, "TOVA_SemDestroy", (void*)&SemDestroy);

    /* An object of either class is its native value and nothing else. */
    tova_mutex_t mutexes[2];
    for (int i = 0; i < 2; ++i) CHECK_INT(MutexCreate(&mutexes[i], 0), 0);
    CHECK(assign_mutex(&mutexes[1], &mutexes[0]) == &mutexes[1]);
    CHECK(mutexes[0] == mutexes[1]);
    CHECK_INT(mutexes[0]->references, 2);
    CHECK(assign_mutex(&mutexes[0], &mutexes[0]) == &mutexes[0]);
    CHECK_INT(mutexes[0]->references, 2);
    CHECK_INT(MutexLock(&mutexes[0]), 0);
    CHECK_INT(MutexUnlock(&mutexes[1]), 0);
    for (int i = 0; i < 2; ++i) CHECK_INT(MutexDestroy(&mutexes[i]), 0);

    tova_sem_t semaphores[2];
    for (int i = 0; i < 2; ++i) CHECK_INT(SemCreate(&semaphores[i], 0), 0);
    CHECK(assign_semaphore(&semaphores[1], &semaphores[0]) == &semaphores[1]);
    CHECK(semaphores[0] == semaphores[1]);
    CHECK_INT(SemPost(&semaphores[0]), 0);
    CHECK_INT(SemTimedWait(&semaphores[1], 0), 0);
    CHECK(SemTimedWait(&semaphores[0], 0) != 0);
    for (int i = 0; i < 2; ++i) CHECK_INT(SemDestroy(&semaphores[i]), 0);
    CHECK_INT(CloseLibrary(runtime), 0);
    Unload();
    return CheckResult();
}

int main(int argc, char** argv) {
    argv = HostArguments(&argc, argv);
    const char* const way = argc > 1 ? argv[1] : "";
    const char* const value = argc > 2 ? argv[2] : "";
    if (strcmp(way, "again") == 0) return Again(0);
    if (strcmp(way, "again_global") == 0) return Again(1);
    if (strcmp(way, "unused") == 0) return Unused();
    if (strcmp(way, "forgotten") == 0) return Forgotten();
    if (strcmp(way, "left_running") == 0) return LeftRunning(0);
    if (strcmp(way, "left_running_unloaded") == 0) return LeftRunning(1);
    if (strcmp(way, "named") == 0) return Named(value);
    if (strcmp(way, "late_use") == 0) return LateUse();
    if (strcmp(way, "assignments") == 0) return Assignments();
    fprintf(stderr, "no way \"%s\"\n", way);
    return 2;
}
