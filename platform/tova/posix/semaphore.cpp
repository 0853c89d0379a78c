#include <atomic>
#include <climits>
#include <new>

#include "common.h"

namespace {

/*
 * The count is taken and given by compare-and-swap alone. Only a thread that finds none goes to
 * the condition: it counts itself into waiters first and looks at the count again after that; a
 * post raises the count first and looks at waiters after that. Both sequentially consistent, so
 * that at least one of them sees the other. The mutex is held from that second look to the wait,
 * so that the signal cannot fall in between.
 */
struct Semaphore : tova_shared_t {
    std::atomic<int32_t> count{0};
    std::atomic<int32_t> waiters{0};
    pthread_mutex_t mutex;
    pthread_cond_t posted;
};

Semaphore* Get(tova_sem_t* sem) {
    return sem == nullptr ? nullptr : static_cast<Semaphore*>(*sem);
}

void Release(Semaphore* block) {
    if (!tova::DropReference(block)) return;
    pthread_cond_destroy(&block->posted);
    pthread_mutex_destroy(&block->mutex);
    delete block;
}

int MakePrimitives(Semaphore* block) {
    const int mutex_error = pthread_mutex_init(&block->mutex, nullptr);
    if (mutex_error != 0) return mutex_error;
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    const int error = pthread_cond_init(&block->posted, &attributes);
    pthread_condattr_destroy(&attributes);
    if (error != 0) pthread_mutex_destroy(&block->mutex);
    return error;
}

bool TryTake(Semaphore* block) {
    int32_t count = block->count.load();
    while (count > 0) {
        if (block->count.compare_exchange_weak(count, count - 1)) return true;
    }
    return false;
}

// The stay of one thread among the waiters; ends also when the thread is cancelled in its wait.
class Stay {
  public:
    explicit Stay(Semaphore* block) : block_(block) {
        pthread_mutex_lock(&block_->mutex);
        block_->waiters.fetch_add(1);
    }
    ~Stay() {
        block_->waiters.fetch_sub(1);
        pthread_mutex_unlock(&block_->mutex);
    }
    Stay(const Stay&) = delete;
    Stay& operator=(const Stay&) = delete;

  private:
    Semaphore* const block_;
};

// 0: taken; otherwise the error, ETIMEDOUT at the deadline. Null: no deadline.
int WaitUntil(Semaphore* block, const timespec* deadline) {
    const Stay stay(block);
    int error = 0;
    for (;;) {
        // Also after the time is up: the signal of a post may have been spent on this thread.
        if (TryTake(block)) return 0;
        if (error != 0) return error;
        error = deadline == nullptr
                    ? pthread_cond_wait(&block->posted, &block->mutex)
                    : pthread_cond_timedwait(&block->posted, &block->mutex, deadline);
    }
}

}  // namespace

int TOVA_SemCreate(tova_sem_t* sem, unsigned initial) {
    if (sem == nullptr) return tova::Fail(EINVAL);
    *sem = nullptr;
    if (initial > INT32_MAX) return tova::Fail(EINVAL);
    Semaphore* const block = new (std::nothrow) Semaphore;
    if (block == nullptr) return tova::Fail(ENOMEM);
    block->references = 1;
    block->count.store(static_cast<int32_t>(initial));
    const int error = MakePrimitives(block);
    if (error != 0) {
        delete block;
        return tova::Fail(error);
    }
    *sem = block;
    return 0;
}

int TOVA_SemDestroy(tova_sem_t* sem) {
    if (sem == nullptr) return tova::Fail(EINVAL);
    Semaphore* const block = Get(sem);
    *sem = nullptr;
    if (block != nullptr) Release(block);
    return 0;
}

int TOVA_SemPost(tova_sem_t* sem) {
    Semaphore* const block = Get(sem);
    if (block == nullptr) return tova::Fail(EINVAL);
    // Whoever takes this count may destroy the semaphore before the signal below is sent.
    tova::AddReference(block);
    int error = 0;
    int32_t count = block->count.load();
    do {
        if (count == INT32_MAX) error = EOVERFLOW;
    } while (error == 0 && !block->count.compare_exchange_weak(count, count + 1));
    if (error == 0 && block->waiters.load() != 0) {
        pthread_mutex_lock(&block->mutex);
        pthread_cond_signal(&block->posted);
        pthread_mutex_unlock(&block->mutex);
    }
    Release(block);
    return error == 0 ? 0 : tova::Fail(error);
}

int TOVA_SemWait(tova_sem_t* sem) {
    Semaphore* const block = Get(sem);
    if (block == nullptr) return tova::Fail(EINVAL);
    if (TryTake(block)) return 0;
    const int error = WaitUntil(block, nullptr);
    return error == 0 ? 0 : tova::Fail(error);
}

int TOVA_SemTimedWait(tova_sem_t* sem, unsigned milliseconds) {
    Semaphore* const block = Get(sem);
    if (block == nullptr) return tova::Fail(EINVAL);
    if (TryTake(block)) return 0;
    if (milliseconds == 0) return tova::Fail(ETIMEDOUT);
    const timespec deadline =
        tova::MonotonicAfter(milliseconds / 1000, (milliseconds % 1000) * 1'000'000L);
    const int error = WaitUntil(block, &deadline);
    if (error == 0) return 0;
    if (error != ETIMEDOUT) tova::SleepUntil(deadline);
    return tova::Fail(error);
}
