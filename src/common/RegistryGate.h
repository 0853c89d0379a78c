// The writer-preferring gate of the plug-in registry: a count of writers, a mutex, a semaphore, and
// the readers, each shown by the place of its thread.
//
//   state               reader enters           writer enters          reader exits
//   free                reading                 writing                -
//   reading             reading, one more       waiting                one less; the last: free
//   waiting             waits until no writer   waits for the mutex    one less, posts; the last:
//                       is left, or for the                            writing
//                       mutex
//   writing             the same                waits for the mutex    -
//
//   A writer leaves by exit (free, or to the next writer) or by downgrade (reading, one).
//   A reader shows itself first and looks for writers second; a writer counts itself first and
//   looks for readers second. So at least one of them sees the other, and a reader that sees a
//   writer takes itself back: it waits a moment for the writers to leave, and after that for the
//   mutex, which lets it in whoever waits. Most readers run no fence for that; the first writer
//   runs one on all threads, and makes the readers that come behind it run their own, so that
//   writers that follow each other interrupt nobody. When many of them have met no writer, that
//   ends.
//   Writers that follow each other at once leave the readers that they turned away a turn of some
//   microseconds, in which many of them come and go.
//   A thread that reads already enters in every state: while its outer read is shown no writer is
//   past its wait.
//   A waiting writer gives the mutex up between slices of its wait, so that a thread for which a
//   reader waits gets in; normally the writer is first.
//   A writer must not enter on a thread that reads: it would wait for itself. What a reading
//   thread wants to write it hands over with AfterRead.
#pragma once

#include <atomic>

#include "common/CallContext.h"
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
    // How others see it.
    enum Shown { kNested, kInPlace, kCounted } shown = kNested;
};

// Thread safety: every operation on any thread.
// Invariants: a thread that reads is shown by its place, or, while that shows another gate, counted
// in counted_. It becomes so without the mutex only while there is no writer.
class CAPABILITY("gate") RegistryGate {
  public:
    RegistryGate() = default;
    RegistryGate(const RegistryGate&) = delete;
    RegistryGate& operator=(const RegistryGate&) = delete;

    // Whether the calling thread reads.
    bool ReadsHere() const;
    // Runs the task at the end of the calling thread's outermost read; it must read. Tasks run
    // in the order in which they were handed over.
    void AfterRead(GateTask* task);

    // The threads that read, and whether any does.
    int32_t Readers() const;
    bool HasReaders() const;
    // Writers that are in, or wait.
    int32_t Writers() const { return attention_.load() / kWriter; }

  private:
    friend class GatePass;
    friend class GateRead;
    friend struct RegistryGateAccess;  // tests look at the counts

    void Read(ThreadState& thread, GateHold& hold);
    void EndRead(ThreadState& thread, GateHold& hold);
    void Push(ThreadState& thread, GateHold& hold);
    void EnterAsWriter();
    void LeaveReadersATurn();
    void WaitForReaders();
    bool SeesReadersLeave() const;
    void ExitAsWriter();
    GateHold::Shown Downgrade(ThreadState& thread);
    GateHold::Shown EnterAsReader(ThreadState& thread);
    VESSA_COLD GateHold::Shown EnterBehindMutex(ThreadState& thread);
    GateHold::Shown Show(ThreadState& thread);
    bool IsLetIn(ThreadState& thread);
    VESSA_COLD bool IsLetInStrictly(ThreadState& thread);
    VESSA_COLD GateHold::Shown EnterBesideWriters(ThreadState& thread);
    void ExitAsReader(ThreadState& thread, GateHold::Shown shown);
    GateHold* FindHold(const ThreadState* thread) const;

    // What readers look at: kWriter for each writer, and kStrict while readers run their own fence.
    static constexpr int32_t kStrict = 1;
    static constexpr int32_t kWriter = 2;
    static constexpr int32_t kStrictReads = 4096;

    std::atomic<int32_t> attention_{0};
    std::atomic<int32_t> sleepers_{0};  // writers that wait for a post
    std::atomic<int32_t> counted_{0};
    std::atomic<bool> turned_away_{false};  // a reader, since a writer last came
    TOVA_Mutex mutex_ ACQUIRED_AFTER(lock_order::registry) ACQUIRED_BEFORE(lock_order::instances);
    TOVA_Sema drained_;
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
    ThreadScope scope_;
    RegistryGate& gate_;
    GateHold hold_;
    bool writing_;
};

// One read on a thread whose state is at hand, for the lifetime of the object. The context's view
// of the log is renewed when something put off has run.
class SCOPED_CAPABILITY GateRead {
  public:
    GateRead(RegistryGate& gate, const CallContext& context) ACQUIRE_SHARED(gate)
        : gate_(gate), context_(context) {
        gate_.Read(context_.thread, hold_);
    }
    ~GateRead() noexcept(false) RELEASE_GENERIC();
    GateRead(const GateRead&) = delete;
    GateRead& operator=(const GateRead&) = delete;

  private:
    RegistryGate& gate_;
    const CallContext& context_;
    GateHold hold_;
};
