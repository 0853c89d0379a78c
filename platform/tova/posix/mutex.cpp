#include <new>

#include "common.h"

namespace {

struct Mutex : tova_shared_t {
    pthread_mutex_t native;
};

Mutex* Get(tova_mutex_t* mutex) {
    return mutex == nullptr ? nullptr : static_cast<Mutex*>(*mutex);
}

}  // namespace

int TOVA_MutexCreate(tova_mutex_t* mutex, int) {
    if (mutex == nullptr) return tova::Fail(EINVAL);
    *mutex = nullptr;
    Mutex* const block = new (std::nothrow) Mutex;
    if (block == nullptr) return tova::Fail(ENOMEM);
    block->references = 1;
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    const int error = pthread_mutex_init(&block->native, &attributes);
    pthread_mutexattr_destroy(&attributes);
    if (error != 0) {
        delete block;
        return tova::Fail(error);
    }
    *mutex = block;
    return 0;
}

int TOVA_MutexDestroy(tova_mutex_t* mutex) {
    if (mutex == nullptr) return tova::Fail(EINVAL);
    Mutex* const block = Get(mutex);
    *mutex = nullptr;
    if (block != nullptr && tova::DropReference(block)) {
        pthread_mutex_destroy(&block->native);
        delete block;
    }
    return 0;
}

int TOVA_MutexLock(tova_mutex_t* mutex) {
    Mutex* const block = Get(mutex);
    if (block == nullptr) return tova::Fail(EINVAL);
    const int error = pthread_mutex_lock(&block->native);
    return error == 0 ? 0 : tova::Fail(error);
}

int TOVA_MutexUnlock(tova_mutex_t* mutex) {
    Mutex* const block = Get(mutex);
    if (block == nullptr) return tova::Fail(EINVAL);
    const int error = pthread_mutex_unlock(&block->native);
    return error == 0 ? 0 : tova::Fail(error);
}
