#include <string.h>

#include "tova.h"

int UseEveryConstantFromC(void);

static int Nothing(void* argument) {
    return argument != 0;
}

int UseEveryConstantFromC(void) {
    tova_dirent_t entry;
    tova_entry_t entry_point = &Nothing;
    tova_mutex_t mutex = 0;
    tova_sem_t sem = 0;
    tova_thread_t thread = 0;
    int32_t value = 1;
    memset(&entry, 0, sizeof entry);
    if (entry.type == TOVA_DIRENT_FOLDER || entry.type == TOVA_DIRENT_FILE) return 1;
    if (TOVA_AtomicAdd(&value, 1) != 1 || TOVA_AtomicCas(&value, 0, 2) != 2) return 2;
    if (TOVA_MutexCreate(&mutex, 0) != 0 || TOVA_MutexDestroy(&mutex) != 0) return 3;
    if (TOVA_SemCreate(&sem, 1) != 0 || TOVA_SemDestroy(&sem) != 0) return 4;
    thread = TOVA_Thread_Create(entry_point, 0, 0, 0, 0, 0);
    if (thread == 0 || TOVA_Thread_Wait(thread) != 0) return 5;
    return 0;
}
