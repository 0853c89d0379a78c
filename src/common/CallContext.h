// What one call from outside carries through the library's layers: the thread's state, looked up
// once, and its view of the log's threshold, read once for each stretch between calls out.
#pragma once

#include "common/LogView.h"
#include "common/ThreadScope.h"

struct CallContext {
    ThreadState& thread;  // inside a library frame
    LogView& log;
};

// For an operation that is called without one.
class OwnContext {
  public:
    template <class Operation>
    auto Run(Operation&& operation) {
        return operation(CallContext{scope_.State(), log_});
    }

  private:
    LogView log_;
    ThreadScope scope_;
};
