// Where exceptions stop: one failing step must not take the others with it, and none may reach
// a caller in C. The cancellation of a thread passes through.
#pragma once

#include "common/Compiler.h"

// Runs step; false if it threw.
template <class Step>
bool Contain(Step&& step) {
    try {
        step();
        return true;
    }
    VESSA_LET_FORCED_UNWINDING_PASS
    catch (...) {
        return false;
    }
}
