#include "common/ThreadScope.h"

#include <new>

#include "process/Process.h"

namespace {

// Gives the slot back when the outermost frame ends, however it ends.
struct SlotReset {
    ~SlotReset() { process::ThreadSlotSet(nullptr); }
};

}  // namespace

ThreadScope::ThreadScope() : state_(Current()) {
    if (state_ == nullptr) {
        state_ = &own_;
        if (!process::ThreadSlotSet(state_)) throw std::bad_alloc();
    }
    ++state_->frames;
}

ThreadScope::~ThreadScope() noexcept(false) {
    if (state_->frames > 1) {
        --state_->frames;
        return;
    }
    // What runs here is still inside the frame and may ask for another run.
    const SlotReset reset;
    while (state_->at_end != nullptr) {
        void (*const at_end)() = state_->at_end;
        state_->at_end = nullptr;
        at_end();
    }
}

ThreadState* ThreadScope::Current() {
    return static_cast<ThreadState*>(process::ThreadSlotGet());
}

bool ThreadScope::InPluginCall() {
    const ThreadState* const state = Current();
    return state != nullptr && state->plugin_calls > 0;
}
