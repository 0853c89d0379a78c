// Where exceptions stop: one failing step must not take the others with it, and none may reach
// a caller in C. The cancellation of a thread passes through.
#pragma once

#include <exception>

// The first statement of every handler of all exceptions: a cancelled thread unwinds by
// something that such a handler catches, that is no exception, and that must go on.
inline void LetForcedUnwindingPass() {
    if (std::current_exception() == nullptr) throw;
}

// Runs step; false if it threw.
template <class Step>
bool Contain(Step&& step) {
    try {
        step();
        return true;
    } catch (...) {
        LetForcedUnwindingPass();
        return false;
    }
}
