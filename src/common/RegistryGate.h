// The writer-preferring gate of the plug-in registry: a mutex, a drain semaphore and a count
// of readers.
//
//   state               reader enters          writer enters          reader exits
//   free                reading, count 1       writing                -
//   reading, count n    reading, count n+1     waiting, count n       count n-1; at 0: post,
//                                                                     free
//   waiting, count n    waits for the mutex    waits for the mutex    count n-1; at 0: post,
//                                                                     writing
//   writing             waits for the mutex    waits for the mutex    -
//
//   A writer leaves by exit (free) or by downgrade (reading, count 1).
//   A reader that enters on a thread which reads already only raises the count, in every
//   state: while the outer read is counted no writer is past its wait.
//   A waiting writer gives the mutex up between slices of its wait, so that a thread for
//   which a reader waits gets in; normally the writer is first.
//   A writer must not enter on a thread that reads: it would wait for itself. What a reading
//   thread wants to write it hands over with AfterRead.
#pragma once

#include "common/AtomicCounter.h"
#include "common/LockOrder.h"
#include "common/Sync.h"
#include "common/ThreadScope.h"

// A piece of work that needs the gate as a writer, put off by a reading thread. It links
// itself, so that handing it over cannot fail.
struct GateTask {
    GateTask* next = nullptr;
    void (*run)(GateTask*) = nullptr;
};

// One read on one thread's stack.
struct GateHold {
    const void* gate = nullptr;
    GateHold* outer = nullptr;
    GateTask* tasks = nullptr;  // of the outermost hold of its gate: what runs after it
    GateTask** tail = &tasks;
};

// Thread safety: every operation on any thread.
// Invariants: readers_ is the number of reads not yet exited; it rises only under mutex_ or on
// a thread that is counted in it already.
class CAPABILITY("gate") RegistryGate {
  public:
    RegistryGate() = default;
    RegistryGate(const RegistryGate&) = delete;
    RegistryGate& operator=(const RegistryGate&) = delete;

    // Whether the calling thread reads.
    bool ReadsHere() const { return FindHold() != nullptr; }
    // Runs the task at the end of the calling thread's outermost read; it must read. Tasks run
    // in the order in which they were handed over.
    void AfterRead(GateTask* task);

    int32_t Readers() const { return readers_.Get(); }

  private:
    friend class GatePass;

    void EnterAsWriter();
    void Downgrade();
    void ExitAsWriter();
    void EnterAsReader();
    void CountNestedReader() { readers_.Add(1); }
    void ExitAsReader();
    GateHold* FindHold() const;

    TOVA_Mutex mutex_ ACQUIRED_AFTER(lock_order::registry) ACQUIRED_BEFORE(lock_order::instances);
    TOVA_Sema drained_;
    AtomicCounter readers_;
};

// One pass through the gate, for the lifetime of the object.
class SCOPED_CAPABILITY GatePass {
  public:
    struct AsReader {};
    struct AsWriter {};

    GatePass(RegistryGate& gate, AsReader) ACQUIRE_SHARED(gate);
    GatePass(RegistryGate& gate, AsWriter) ACQUIRE(gate);
    // Exits, and runs what was put off if this was the thread's outermost read. A task may be
    // ended by the cancellation of the thread; the others still run.
    ~GatePass() noexcept(false) RELEASE_GENERIC();
    GatePass(const GatePass&) = delete;
    GatePass& operator=(const GatePass&) = delete;

    // From writer to reader, without a gap.
    void Downgrade() RELEASE() ACQUIRE_SHARED();

  private:
    void PushHold();

    ThreadScope scope_;
    RegistryGate& gate_;
    GateHold hold_;
    bool writing_;
};
