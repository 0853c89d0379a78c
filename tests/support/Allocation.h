// Allocation.h: allocations that fail on request, on one thread.
//
// The program must link the object library vessa_test_allocation, which replaces the global
// operators new and delete for itself and for every library it loads; on Windows for what is
// linked into it alone. Unless a failure is armed on the calling thread they behave as usual.
#ifndef VESSA_TESTS_SUPPORT_ALLOCATION_H
#define VESSA_TESTS_SUPPORT_ALLOCATION_H

namespace vessa_test {

// While it lives, allocations of its own thread are counted and the chosen ones fail: the
// throwing forms with std::bad_alloc, the others with null. One at a time on a thread, and
// destroyed on the thread that made it.
//
// Make no assertions while one is armed: they allocate. The usual round:
//
//     for (int n = 1;; ++n) {
//         World world;
//         int result, failed;
//         {
//             AllocationFailure failure(n);
//             result = world.Operation();
//             failed = failure.Failed();
//         }
//         if (failed == 0) break;
//         EXPECT_EQ(result, VESSA_ERR_OUT_OF_MEMORY) << n;
//     }
class AllocationFailure {
  public:
    enum class Mode { kNth, kFromNth };

    // The nth allocation from here on fails, or all from it on; 0 fails none and only counts.
    // Throws std::logic_error if the operators are not linked or another one is alive here.
    explicit AllocationFailure(long nth, Mode mode = Mode::kNth);
    ~AllocationFailure();
    AllocationFailure(const AllocationFailure&) = delete;
    AllocationFailure& operator=(const AllocationFailure&) = delete;

    // Allocations seen, and how many of them failed.
    long Count() const;
    long Failed() const;
};

// Keeps the thread's armed failure away from the test's own code in between: neither counted
// nor failed. May be nested. What this library runs by itself is always inside one.
class AllocationPause {
  public:
    AllocationPause();
    ~AllocationPause();
    AllocationPause(const AllocationPause&) = delete;
    AllocationPause& operator=(const AllocationPause&) = delete;
};

// Blocks that these operators new gave out and that were not deleted yet, for a census before
// and after. 0 if the operators are not linked.
long LiveBlocks();

namespace detail {
// For the replaced operators: whether this allocation is to fail.
bool AllocationMustFail() noexcept;
// For an allocator of a program's own: whether the thread is inside an AllocationPause.
bool AllocationsArePaused() noexcept;
void CountBlock(long delta) noexcept;
void SetOperatorsLinked() noexcept;
}  // namespace detail

}  // namespace vessa_test

#endif
