#include <csignal>
#include <initializer_list>
#include <new>

#include "common.h"

struct tova_thread {
    pthread_t native;
    tova_entry_t entry;
    void* argument;
};

namespace {

constexpr size_t kStackSizeBytes = size_t{8} << 20;

extern "C" void* RunThread(void* argument) {
    const tova_thread* const thread = static_cast<const tova_thread*>(argument);
    thread->entry(thread->argument);
    return nullptr;
}

// Every signal but those that the thread's own instructions raise: blocking these would turn a
// handler of the application into a kill.
sigset_t AsynchronousSignals() {
    sigset_t set;
    sigfillset(&set);
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) {
        sigdelset(&set, signal);
    }
    return set;
}

int Start(tova_thread* thread) {
    pthread_attr_t attributes;
    int error = pthread_attr_init(&attributes);
    if (error != 0) return error;
    error = pthread_attr_setstacksize(&attributes, kStackSizeBytes);
    if (error == 0) {
        // A thread starts with its creator's mask; set there, no signal comes before the entry.
        const sigset_t blocked = AsynchronousSignals();
        sigset_t before;
        pthread_sigmask(SIG_SETMASK, &blocked, &before);
        error = pthread_create(&thread->native, &attributes, &RunThread, thread);
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    pthread_attr_destroy(&attributes);
    return error;
}

}  // namespace

tova_thread_t TOVA_Thread_Create(tova_entry_t entry, void* argument, int, int, int, int) {
    if (entry == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    tova_thread* const thread = new (std::nothrow) tova_thread{pthread_t{}, entry, argument};
    if (thread == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    const int error = Start(thread);
    if (error != 0) {
        delete thread;
        errno = error;
        return nullptr;
    }
    return thread;
}

int TOVA_Thread_Wait(tova_thread_t thread) {
    if (thread == nullptr) return tova::Fail(EINVAL);
    if (pthread_equal(thread->native, pthread_self()) != 0) return tova::Fail(EDEADLK);
    // Nobody could join it after a cancelled wait.
    const tova::CancelGuard guard;
    const int error = pthread_join(thread->native, nullptr);
    if (error != 0) return tova::Fail(error);
    delete thread;
    return 0;
}
