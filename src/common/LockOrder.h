// The order of the library's locks, outermost first, written once. Each lock names the rank
// that it follows; clang's analysis refuses a function that takes two of them in the wrong
// order. docs/design/locks.md says why it is this order.
#pragma once

#include "common/ThreadSafety.h"

namespace lock_order {

class CAPABILITY("rank") Rank {};

extern Rank leaf;
extern Rank module ACQUIRED_BEFORE(leaf);
extern Rank loader ACQUIRED_BEFORE(module);
extern Rank record ACQUIRED_BEFORE(loader);
extern Rank instances ACQUIRED_BEFORE(record);
extern Rank registry ACQUIRED_BEFORE(instances);
extern Rank timer ACQUIRED_BEFORE(registry);
extern Rank coordinator ACQUIRED_BEFORE(timer);
extern Rank run ACQUIRED_BEFORE(coordinator);
extern Rank global ACQUIRED_BEFORE(run);

}  // namespace lock_order
