// Runtime.h: a stand-in at the runtime's seam. A program that links the object library
// vessa_test_runtime has every TOVA_ function of its own, which goes on to the real one; on
// Windows only what is linked into the program comes here. While a Runtime object lives, calls
// are counted, can be made to fail, can be held by a test, and long waits are ended by the test
// instead of by the clock.
#ifndef VESSA_TESTS_SUPPORT_RUNTIME_H
#define VESSA_TESTS_SUPPORT_RUNTIME_H

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <vector>

#include "TestPlatform.h"

namespace vessa_test {

// Every function of the runtime by its name without "TOVA_".
#define VESSA_TEST_TOVA_LIST(X)                                                                    \
  X(Init)                                                                                          \
  X(Fini)                                                                                          \
  X(MutexCreate)                                                                                   \
  X(MutexDestroy)                                                                                  \
  X(MutexLock)                                                                                     \
  X(MutexUnlock) X(SemCreate) X(SemDestroy) X(SemPost) X(SemWait) X(SemTimedWait) X(Thread_Create) \
      X(Thread_Wait) X(AtomicAdd) X(AtomicCas) X(LoadDSo) X(GetDsoSym) X(UnloadDSo) X(AccessFile)  \
          X(GetSystemLastError) X(OpenDir) X(FindFileInDir) X(CloseDir) X(Strncpy)

enum class Tova {
#define VESSA_TEST_TOVA_ENUMERATOR(name) name,
    VESSA_TEST_TOVA_LIST(VESSA_TEST_TOVA_ENUMERATOR)
#undef VESSA_TEST_TOVA_ENUMERATOR
};

// One call, as a hook sees it.
class RuntimeCall {
  public:
    RuntimeCall(Tova called, void* about, const char* name, unsigned timeout_ms)
        : function(called), object(about), text(name), milliseconds(timeout_ms) {}

    // In a hook of Before: the real function is not called. Fail gives what the function
    // gives on failure and sets the thread's last error.
    void Fail(int system_error = kErrorIo);
    void Return(int result);
    void ReturnPointer(void* result);

    const Tova function;
    void* const object;           // the mutex, semaphore, thread, module or folder; else null
    const char* const text;       // the path or the symbol's name; else null
    const unsigned milliseconds;  // of a timed wait
    long index = 0;               // from the Runtime's construction on; the first is 1

  private:
    friend class Interception;
    enum class Action { kReal, kFail, kReturn };
    Action action_ = Action::kReal;
    int error_ = 0;
    std::intptr_t result_ = 0;
};

// What was created and not destroyed yet, in the whole process. A primitive that two share
// counts one destruction for each.
struct RuntimeCensus {
    long mutexes;
    long semaphores;
    long threads;
    long modules;
    long folders;

    friend bool operator==(const RuntimeCensus& a, const RuntimeCensus& b) {
        return a.mutexes == b.mutexes && a.semaphores == b.semaphores && a.threads == b.threads &&
               a.modules == b.modules && a.folders == b.folders;
    }
    friend bool operator!=(const RuntimeCensus& a, const RuntimeCensus& b) { return !(a == b); }
};
std::ostream& operator<<(std::ostream& out, const RuntimeCensus& census);

// A thread in a long wait.
struct RuntimeWaiter {
    int id;  // the same in every wait of this thread on this semaphore
    unsigned milliseconds;
    long waits;  // how many it has begun, this one included
};

// One at a time in a process. Hooks may use only what outlives the Runtime: declare it after
// gates and other things that they refer to. Its destruction waits for hooks still running.
//
// Time. TOVA_SemTimedWait with kLongWaitMs or more does not look at the clock: it ends with 0
// when the semaphore is posted, and with a time-out when the test ticks. Threads that still
// wait when the Runtime goes away wait on by the clock. Shorter waits are real.
class Runtime {
  public:
    static constexpr unsigned kLongWaitMs = 1000;
    using Hook = std::function<void(RuntimeCall&)>;

    Runtime();
    ~Runtime();
    Runtime(const Runtime&) = delete;
    Runtime& operator=(const Runtime&) = delete;

    // Calls since the construction, and how many of them were made to fail. What the runtime
    // or a hook calls itself does not count and is never held or failed.
    long Calls(Tova function) const;
    long Failed(Tova function) const;

    // The nth call from here on fails, or all from it on; the last request for a function
    // holds. A failing timed wait uses up its time: a long one until the tick, and a post
    // still ends it with success. Throws std::logic_error for AtomicAdd, AtomicCas,
    // GetSystemLastError and Strncpy, which cannot fail.
    void FailCall(Tova function, long nth = 1, int system_error = kErrorIo);
    void FailFrom(Tova function, long nth = 1, int system_error = kErrorIo);
    void StopFailing(Tova function);

    // Called on the calling thread with no lock held, before and after each call of the
    // function; one of each for a function, null for none. A thrown exception fails the test
    // and goes no further.
    void Before(Tova function, Hook hook);
    void After(Tova function, Hook hook);

    static RuntimeCensus Census();

    // The threads in long waits, in the order in which these began. AwaitWaiters waits until
    // there are as many.
    std::vector<RuntimeWaiter> Waiters() const;
    std::vector<RuntimeWaiter> AwaitWaiters(int count = 1) const;

    // Lets one long wait time out and returns when that thread waits again or has ended: what
    // it did in between has been done. Without an id it is the wait that began last; if there
    // is none, one is waited for. True if the thread waits again.
    bool Tick();
    bool Tick(int waiter);

    // The two halves of Tick, for a test that has to act while the thread is between its
    // waits. StartTick gives the waiter's id.
    int StartTick();
    int StartTick(int waiter);
    bool AwaitRound(int waiter);
};

}  // namespace vessa_test

#endif
