#include "support/Allocation.h"

#include <atomic>
#include <stdexcept>

namespace vessa_test {
namespace {

struct ThreadState {
    bool armed;
    AllocationFailure::Mode mode;
    int paused;
    long nth;
    long count;
    long failed;
};

thread_local ThreadState state = {false, AllocationFailure::Mode::kNth, 0, 0, 0, 0};
std::atomic<long> live_blocks{0};
std::atomic<bool> operators_linked{false};

}  // namespace

AllocationFailure::AllocationFailure(long nth, Mode mode) {
    if (!operators_linked) throw std::logic_error("link vessa_test_allocation");
    if (state.armed) throw std::logic_error("one AllocationFailure at a time on a thread");
    state = {true, mode, state.paused, nth, 0, 0};
}

AllocationFailure::~AllocationFailure() {
    state.armed = false;
}

long AllocationFailure::Count() const {
    return state.count;
}

long AllocationFailure::Failed() const {
    return state.failed;
}

AllocationPause::AllocationPause() {
    ++state.paused;
}

AllocationPause::~AllocationPause() {
    --state.paused;
}

long LiveBlocks() {
    return live_blocks.load(std::memory_order_relaxed);
}

namespace detail {

bool AllocationMustFail() noexcept {
    if (!state.armed || state.paused > 0) return false;
    ++state.count;
    if (state.nth <= 0 || state.count < state.nth) return false;
    if (state.mode == AllocationFailure::Mode::kNth && state.count > state.nth) return false;
    ++state.failed;
    return true;
}

bool AllocationsArePaused() noexcept {
    return state.paused > 0;
}

void CountBlock(long delta) noexcept {
    live_blocks.fetch_add(delta, std::memory_order_relaxed);
}

void SetOperatorsLinked() noexcept {
    operators_linked = true;
}

}  // namespace detail
}  // namespace vessa_test
