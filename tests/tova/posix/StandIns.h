#ifndef TESTS_TOVA_POSIX_STANDINS_H
#define TESTS_TOVA_POSIX_STANDINS_H

#include <dlfcn.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <ctime>

/*
 * This program defines some functions of the C library and the allocation operators, so that
 * they also stand in for what the runtime calls. Each passes on to the real one unless the test
 * has put a function in its place.
 */
namespace stand_in {

struct Functions {
    ssize_t (*getdents)(int, void*, size_t);
    int (*fstatat)(int, const char*, struct stat*, int);
    int (*cond_wait)(pthread_cond_t*, pthread_mutex_t*);
    int (*cond_timedwait)(pthread_cond_t*, pthread_mutex_t*, const timespec*);
    int (*attr_setstacksize)(pthread_attr_t*, size_t);
    int (*attr_init)(pthread_attr_t*);
    int (*join)(pthread_t, void**);
    int (*mutex_init)(pthread_mutex_t*, const pthread_mutexattr_t*);
    int (*cond_init)(pthread_cond_t*, const pthread_condattr_t*);
    int (*nanosleep)(clockid_t, int, const timespec*, timespec*);
    int (*gettime)(clockid_t, timespec*);
    int (*fstat)(int, struct stat*);
    ssize_t (*pread)(int, void*, size_t, off_t);
    void* (*open)(const char*, int);  // dlopen
    int (*close)(void*);              // dlclose
    char* (*error)();                 // dlerror
    int (*info)(void*, int, void*);   // dlinfo
    int (*address)(const void*, Dl_info*, void**, int);  // dladdr1
};

// What is called; a null is the real one.
extern Functions put;

const Functions& Real();

// Puts the real ones back at the end of the test.
class Restore {
  public:
    Restore() = default;
    ~Restore() { put = Functions{}; }
    Restore(const Restore&) = delete;
    Restore& operator=(const Restore&) = delete;
};

// The next lock of a mutex on this thread goes there instead.
void PutNextLock(int (*lock)(pthread_mutex_t*));
int RealLock(pthread_mutex_t* mutex);

// Watches one allocated block, until the next is watched.
void Watch(const void* block);
bool IsFreed();

// Lets the n-th allocation from now on fail, once, on this thread; 0: none.
void FailAllocation(int n);

}  // namespace stand_in

#endif
