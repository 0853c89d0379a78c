// Fault.h: what is made to fail, and where. Allocations and calls of the runtime are numbered
// while a Stretch lives, through all threads; nothing fails outside of one. System calls fail by
// another program's hand (SystemCalls.cpp), which cannot tell when.
#ifndef VESSA_TESTS_RELIABILITY_FAULTS_FAULT_H
#define VESSA_TESTS_RELIABILITY_FAULTS_FAULT_H

#include <string>

#include "Ledger.h"
#include "support/Runtime.h"

namespace faults {

enum class Kind { kAllocation, kRuntime, kSystemCall };

// What fails: the nth alone, all from it on to the end of the step in which it is, or all from it
// on to the end of the library's life.
enum class Extent { kAlone, kStep, kLife };

struct Fault {
    Kind kind = Kind::kAllocation;
    vessa_test::Tova function = vessa_test::Tova::Init;  // of kRuntime
    long nth = 0;                                        // 0: none
    Extent extent = Extent::kAlone;
};

// The functions of the runtime that can fail, and how each does it here:
//
//  what makes, opens, loads, finds or waits   does nothing and says that it failed;
//  MutexUnlock, SemPost, MutexDestroy, SemDestroy, CloseDir, Thread_Wait   do their work and say
//      that they failed: the real ones fail for a value that is none alone, and a caller
//      could do nothing about a lock that stays locked;
//  UnloadDSo   leaves the module where it is.
struct RuntimeFunction {
    vessa_test::Tova function;
    const char* name;
};
const RuntimeFunction* RuntimeFunctions(int* count);

class Tracing;

class Faults {
  public:
    // tracing for failures of system calls.
    Faults(const Fault& fault, vessa_test::Runtime& runtime, Tracing* tracing);

    class Stretch {
      public:
        explicit Stretch(Faults& faults);
        ~Stretch();
        Stretch(const Stretch&) = delete;
        Stretch& operator=(const Stretch&) = delete;

      private:
        const Watch watch_;
    };

    // How many there were to fail, and how many of them did.
    long Counted() const;
    long Failed();
    // Nothing fails any more.
    void Stop();
    const Fault& fault() const { return fault_; }

  private:
    void OnCall(vessa_test::RuntimeCall& call);

    const Fault fault_;
    vessa_test::Runtime& runtime_;
    Tracing* const tracing_;
    // Of system calls, when the tracer went.
    long failed_until_stop_ = 0;
    bool tracer_left_ = false;
};

}  // namespace faults

#endif
