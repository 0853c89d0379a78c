// Every call into a module goes through here: it is counted as a plug-in call of the thread,
// and an exception ends with it. The cancellation of a thread passes through.
#pragma once

#include "common/CallContext.h"
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

// The same on a thread whose state is at hand; the log is looked at afresh after the call.
template <class Result, class Call>
Result CallModule(const CallContext& context, Result fallback, Call&& call) {
    struct Counted {
        const CallContext& context;
        ~Counted() {
            --context.thread.plugin_calls;
            context.log.Renew();
        }
    } const counted{context};
    ++context.thread.plugin_calls;
    try {
        return call();  // calls out
    } catch (...) {
        LetForcedUnwindingPass();
        return fallback;
    }
}
