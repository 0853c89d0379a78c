// Every call into a module goes through here: it is counted as a plug-in call of the thread,
// and an exception ends with it. The cancellation of a thread passes through.
#pragma once

#include "common/Contain.h"
#include "common/ThreadScope.h"

// What the module returned, or fallback if it threw.
template <class Result, class Call>
Result CallModule(Result fallback, Call&& call) {
    try {
        PluginCallScope scope;
        return call();  // calls out
    } catch (...) {
        LetForcedUnwindingPass();
        return fallback;
    }
}
