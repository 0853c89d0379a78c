// RuntimeState.h: what the stand-in's functions and the Runtime object share.
#ifndef VESSA_TESTS_SUPPORT_RUNTIMESTATE_H
#define VESSA_TESTS_SUPPORT_RUNTIMESTATE_H

#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "TestPlatform.h"
#include "support/Allocation.h"
#include "support/Runtime.h"
#include "tova.h"

namespace vessa_test {

#define VESSA_TEST_TOVA_COUNT(name) +1
constexpr std::size_t kTovaCount = 0 VESSA_TEST_TOVA_LIST(VESSA_TEST_TOVA_COUNT);
#undef VESSA_TEST_TOVA_COUNT

const char* SymbolName(Tova function);

// The function that this program's own stands in for; ends the program if there is none.
void* RealSymbol(Tova function);

// While one lives on a thread, the thread's calls go straight on.
class Bypass {
  public:
    Bypass() { ++depth; }
    ~Bypass() { --depth; }
    Bypass(const Bypass&) = delete;
    Bypass& operator=(const Bypass&) = delete;
    static bool Active() { return depth > 0; }

  private:
    static thread_local int depth;
};

template <class F, class... A>
auto CallReal(Tova function, F*, A... arguments) {
    const Bypass bypass;
    return reinterpret_cast<F*>(RealSymbol(function))(arguments...);
}

// What a call leaves behind for its caller: the C library's error and the system's, which are
// one and the same on some systems.
class LastErrors {
  public:
    LastErrors() { Keep(); }
    void Keep() {
        system_ = LastSystemError();
        errno_ = errno;
    }
    void Set(int system_error) { system_ = system_error; }
    void Restore() const {
        errno = errno_;
        SetLastSystemError(system_);
    }

  private:
    int system_;
    int errno_;
};

// One call of one function: counts it, asks the hooks, decides on failure. Leaves the last
// errors of the call behind whatever happens in between.
class Interception {
  public:
    explicit Interception(Tova function, void* object = nullptr, const char* text = nullptr,
                          unsigned milliseconds = 0);
    ~Interception();
    Interception(const Interception&) = delete;
    Interception& operator=(const Interception&) = delete;

    bool Fails() const { return call_.action_ == RuntimeCall::Action::kFail; }
    bool IsReplaced() const { return call_.action_ != RuntimeCall::Action::kReal; }
    std::intptr_t Result(std::intptr_t failed) const { return Fails() ? failed : call_.result_; }
    int Error() const { return call_.error_; }

    // To be told the real function's result at once, before the last errors change.
    template <class R>
    R Done(R result) {
        errors_.Keep();
        return result;
    }

  private:
    RuntimeCall call_;
    bool counted_ = false;
    LastErrors errors_;
};

struct FailurePlan {
    long at = 0;  // the index of the first failing call; 0 is none
    bool all_after = false;
    int error = 0;
};

// The hooks and failures asked for, by function. Thread safety: all operations on any thread.
class Interventions {
  public:
    void Start();
    void End();
    bool IsActive() const { return active_.load(); }

    long NextIndex(Tova function);
    long Calls(Tova function) const;
    long Failed(Tova function) const;
    void Plan(Tova function, long nth, bool all_after, int error);
    void SetHook(Tova function, bool before, Runtime::Hook hook);
    // Runs the hook, if there is one, outside of the lock.
    void RunHook(bool before, RuntimeCall& call);
    // Whether the plan makes this call fail, and with which error.
    bool MustFail(Tova function, long index, int* error);
    void CountFailure(Tova function);

  private:
    struct Function {
        std::atomic<long> calls{0};
        std::atomic<long> failed{0};
        // False while there is neither hook nor plan: then the lock is left alone, so that it
        // does not order threads which the real functions would not order.
        std::atomic<bool> special{false};
        FailurePlan plan;
        std::shared_ptr<Runtime::Hook> before;
        std::shared_ptr<Runtime::Hook> after;

        void UpdateSpecial() { special = plan.at != 0 || before || after; }
    };

    Function& Of(Tova function) { return functions_[static_cast<std::size_t>(function)]; }
    const Function& Of(Tova function) const {
        return functions_[static_cast<std::size_t>(function)];
    }

    std::atomic<bool> active_{false};
    mutable std::mutex mutex_;
    std::condition_variable idle_;
    int hooks_running_ = 0;
    std::array<Function, kTovaCount> functions_;
};

// The long waits. Thread safety: all operations on any thread.
class LongWaits {
  public:
    void Start();
    // The waiting threads go on by the clock.
    void End();
    bool IsActive() const { return active_.load(); }

    // 0: taken. *by_clock: the stand-in ended, the wait is to be made by the clock.
    int Wait(tova_sem_t* sem, unsigned milliseconds, int error, bool* by_clock);
    void Posted();
    void ThreadEnds(long thread);

    std::vector<RuntimeWaiter> Waiters(std::size_t at_least);
    // 0 for the wait that began last.
    int StartTick(int id);
    bool AwaitRound(int id);

  private:
    struct Record {
        int id = 0;
        long thread = 0;
        const void* semaphore = nullptr;
        unsigned milliseconds = 0;
        long waits = 0;
        long waits_at_tick = 0;
        long order = 0;
        bool waiting = false;
        bool ticked = false;
        bool ended = false;
    };
    class Stay;

    Record* Enter(const void* semaphore, unsigned milliseconds);
    Record* FindTickable(int id);
    Record* Find(int id);

    std::atomic<bool> active_{false};
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::unique_ptr<Record>> records_;
    long order_ = 0;
};

// Never destroyed: threads and modules may still come at the end of the process.
Interventions& TheInterventions();
LongWaits& TheLongWaits();

enum class Resource { kMutex, kSemaphore, kThread, kModule, kFolder };
void CountResource(Resource resource, long delta);

}  // namespace vessa_test

#endif
