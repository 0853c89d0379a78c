#ifndef TESTS_TOVA_POSIX_STANDINS_H
#define TESTS_TOVA_POSIX_STANDINS_H

#include <pthread.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>

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
