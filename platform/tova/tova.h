/*
 * tova.h: the portable runtime under the plug-in host library.
 *
 * One header, one folder of sources for each system with the same files and functions:
 * nothing above this line of the system asks which system it runs on.
 *
 * Laws that hold everywhere
 *
 *  1. Every function may be called on any thread, before TOVA_Init and after TOVA_Fini.
 *  2. 0 is success unless a function says otherwise. Every failing call sets the calling
 *     thread's last error, which TOVA_GetSystemLastError reads; a success leaves it alone or
 *     changes it, so read it on the very next line after the call that failed.
 *  3. Paths and names are zero-terminated UTF-8 on every system.
 *  4. No function throws, and none calls back into its caller, except that a loader call
 *     runs the module's own constructors and destructors.
 *  5. What a number cannot say (the loader's own words for a refusal) goes to the logger
 *     "tova".
 */
#ifndef TOVA_TOVA_H
#define TOVA_TOVA_H

#include <stddef.h>
#include <stdint.h>

#if defined(TOVA_API)
/* The includer defines these functions itself, or says how it finds them. */
#elif defined(_WIN32)
#  if defined(TOVA_BUILDING)
#    define TOVA_API __declspec(dllexport)
#  else
#    define TOVA_API __declspec(dllimport)
#  endif
#else
#  define TOVA_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Both calls only count; nothing depends on them and nothing is freed. Always 0. */
TOVA_API int TOVA_Init(void);
TOVA_API int TOVA_Fini(void);

/*
 * A mutex and a semaphore are one pointer each, to a block that begins with the number of
 * values that share it: 1 after the creation. Whoever copies a value and means to destroy
 * both adds 1 first (TOVA_AtomicAdd); a destruction takes 1 away, frees the block with the
 * last, and leaves its own value null. A null value may be destroyed, and every other use of
 * it fails. A thread that got a mutex or took a count may destroy it at once, even while the
 * thread that let it go is still inside that call.
 */
typedef struct tova_shared {
    volatile int32_t references;
} tova_shared_t;

typedef tova_shared_t* tova_mutex_t;
typedef tova_shared_t* tova_sem_t;

/* Re-entrant: the holder may lock again and unlocks as often. The number is reserved: 0.
 * Creation fails only for want of memory and leaves null. */
TOVA_API int TOVA_MutexCreate(tova_mutex_t* mutex, int reserved);
TOVA_API int TOVA_MutexDestroy(tova_mutex_t* mutex);
TOVA_API int TOVA_MutexLock(tova_mutex_t* mutex);
TOVA_API int TOVA_MutexUnlock(tova_mutex_t* mutex);

/* Counting, up to 0x7FFFFFFF: creation with more and a post beyond that fail. Posts made before
 * a wait are kept. */
TOVA_API int TOVA_SemCreate(tova_sem_t* sem, unsigned initial);
TOVA_API int TOVA_SemDestroy(tova_sem_t* sem);
TOVA_API int TOVA_SemPost(tova_sem_t* sem);
TOVA_API int TOVA_SemWait(tova_sem_t* sem);
/*
 * 0: a count was taken. Other: time-out or error; an error other than a null value has used
 * up the time as well, so that a loop around it never spins. 0 ms only looks. The time is
 * monotonic: a change of the clock does not matter; an interruption is waited on.
 */
TOVA_API int TOVA_SemTimedWait(tova_sem_t* sem, unsigned milliseconds);

/*
 * Starts a thread; null is failure. The four numbers are reserved: 0. The thread has a stack
 * of 8 MiB and blocks every asynchronous signal. The entry's result is dropped.
 * TOVA_Thread_Wait joins the thread and frees the handle, which must be done exactly once
 * and never on the thread itself (that fails and frees nothing). Nothing is caught: the entry
 * must not throw.
 */
typedef struct tova_thread* tova_thread_t;
typedef int (*tova_entry_t)(void* argument);
TOVA_API tova_thread_t TOVA_Thread_Create(tova_entry_t entry, void* argument, int, int, int, int);
TOVA_API int TOVA_Thread_Wait(tova_thread_t thread);

/* Sequentially consistent. Both give the value before the call. Add wraps around; Cas stores
 * exchange if the target equals comparand. */
TOVA_API int32_t TOVA_AtomicAdd(volatile int32_t* target, int32_t delta);
TOVA_API int32_t TOVA_AtomicCas(volatile int32_t* target, int32_t exchange, int32_t comparand);

/*
 * Loads a module, bound at once and locally. Null is failure: also for what is no regular
 * file, is cut short, or is of another class or machine, each found before the system's
 * loader touches it; of the modules it depends on, the system's loader is the judge. A path
 * without a folder is one in the current folder, never one that the system searches for.
 * A symbol counts only if the module itself defines it; one that is not found is null and no
 * matter for the log. Each refusal to load or unload writes one record of level error.
 */
TOVA_API void* TOVA_LoadDSo(const char* path);
TOVA_API void* TOVA_GetDsoSym(void* dso, const char* name);
TOVA_API int TOVA_UnloadDSo(void* dso);

/* mode 0: 0 if the file exists; a dangling link does not. Any other mode fails. */
TOVA_API int TOVA_AccessFile(const char* path, int mode);
TOVA_API int TOVA_GetSystemLastError(void);

/*
 * One entry of a folder. Links are followed: type, stamp and identity are those of what the
 * link points to; a dangling link is neither a folder nor a file.
 *
 *  name    zero-terminated; a name that does not fit fails the whole listing. (On Windows its
 *          short name is shown instead, where the volume keeps one.)
 *  type    TOVA_DIRENT_FOLDER, TOVA_DIRENT_FILE (a regular file) or another number.
 *  volume, file_id   together the same for two names of one object, different otherwise.
 *  stamp   changes whenever the file is rewritten: also with the same size, restored times,
 *          within one tick of the clock, or by a rename over it. Only a file system that
 *          keeps coarser times than the system's clock can hide a rewrite of the same size.
 *  reserved  zero.
 */
#define TOVA_DIRENT_FOLDER 256
#define TOVA_DIRENT_FILE 512

typedef struct tova_dirent {
    char name[256];
    uint32_t reserved_256;
    uint32_t reserved_260;
    uint32_t type; /* at 264 */
    uint32_t reserved_268;
    uint64_t volume;
    uint64_t file_id;
    uint64_t reserved_288[6];
    uint64_t stamp; /* at 336 */
} tova_dirent_t;

#ifdef __cplusplus
static_assert(offsetof(tova_dirent_t, name) == 0, "directory entry: name");
static_assert(offsetof(tova_dirent_t, type) == 264, "directory entry: type");
static_assert(offsetof(tova_dirent_t, stamp) == 336, "directory entry: stamp");
#else
_Static_assert(offsetof(tova_dirent_t, name) == 0, "directory entry: name");
_Static_assert(offsetof(tova_dirent_t, type) == 264, "directory entry: type");
_Static_assert(offsetof(tova_dirent_t, stamp) == 336, "directory entry: stamp");
#endif

/*
 * Reads and examines the whole listing before it returns; an error half way is a failed
 * open, never a short listing. Entries that vanish meanwhile are left out. "." and ".." come
 * first, then the names in byte order. If a file was written within the running tick of the
 * clock, the call takes until that tick is over (some milliseconds): a later write could not
 * be told apart otherwise. TOVA_FindFileInDir: 0 while there is an entry; at the end it fails,
 * as often as it is called. One thread at a time for one handle.
 */
TOVA_API void* TOVA_OpenDir(const char* path);
TOVA_API int TOVA_FindFileInDir(void* dir, tova_dirent_t* entry);
TOVA_API int TOVA_CloseDir(void* dir);

/* Copies at most n bytes of from, and one terminating zero if it fits into n. Writes nothing
 * beyond that. Gives to. */
TOVA_API char* TOVA_Strncpy(char* to, const char* from, size_t n);

#ifdef __cplusplus
}
#endif

#endif
