// Watchdog.h: ends this process when a cell does not end. Works whatever its threads wait for.
#ifndef VESSA_TESTS_RELIABILITY_REENTRANCY_WATCHDOG_H
#define VESSA_TESTS_RELIABILITY_REENTRANCY_WATCHDOG_H

namespace reentrancy {

// The exit status of a process that the watchdog ended.
constexpr int kHungStatus = 99;

void SetUpWatchdog();
// Afresh from now on; 0 takes it away. in_call: what is timed is the call itself, which the
// process's last words tell.
void Watch(int milliseconds, bool in_call);

}  // namespace reentrancy

#endif
