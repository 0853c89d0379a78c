// Ledger.h: the program's own allocator. It keeps a list of the blocks that the library, its
// runtime, its log, the system's loader and the modules have taken, and lets chosen allocations
// fail. malloc, its relatives and the operators new all come here, from every library.
//
// It looks only while a Watch lives, and then at every thread, except at one inside an
// AllocationPause (support/Allocation.h): a thread of the test that waits, and the stand-in of the
// runtime.
#ifndef VESSA_TESTS_RELIABILITY_FAULTS_LEDGER_H
#define VESSA_TESTS_RELIABILITY_FAULTS_LEDGER_H

namespace faults {

// While it lives, allocations are entered, and those of a counting one are numbered too.
class Watch {
  public:
    explicit Watch(bool counting);
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

  private:
    const bool counting_;
};

// The nth numbered allocation from the program's start on fails, or all from it on; 0: none.
void FailAllocation(long nth, bool and_later);
void FailNoAllocation();

struct Numbers {
    long counted = 0;
    long failed = 0;
    // Documents in which one failed while the XML parser ran, which loses what it has in its
    // hands then.
    long failed_documents = 0;
};
Numbers AllocationNumbers();

// Blocks that were entered and not given back.
struct Census {
    long blocks = 0;
    long bytes = 0;
    // Of the XML parser, apart from the others.
    long parser_blocks = 0;
    long parser_bytes = 0;
};
Census TakeCensus();

// What the largest document had taken when the parser returned.
Census LargestDocument();

// Every block that is not given back, on standard error, with the callers of its allocation.
// Only blocks entered after KeepCallers have any.
void KeepCallers();
void PrintBlocks();

}  // namespace faults

// The marked library says here when its parser runs, and when it does not any more.
extern "C" __attribute__((visibility("default"))) void Faults_Parser(int enters);

#endif
