// CellRun.h: one cell, carried out in this process.
#ifndef VESSA_TESTS_RELIABILITY_REENTRANCY_CELLRUN_H
#define VESSA_TESTS_RELIABILITY_REENTRANCY_CELLRUN_H

#include <string>

#include "reentrancy/Cells.h"

namespace reentrancy {

// Times in milliseconds that the watchdog allows.
struct CellTimes {
    int setup;  // to reach the slot
    int call;   // the call
    int rest;   // to leave the slot and to stop
};

// A fault in the cell itself, to see the checks bite: the module waits for ever instead of making
// the call, or leaves a user of the library behind.
enum class Planted { kNothing, kEndless, kUser };

// The outcome, as Expectation has it; with "; " and what went wrong on the way where something
// did. A cell that does not end ends the process (Watchdog.h).
std::string RunCell(const Cell& cell, const CellTimes& times, Planted planted);

// Beside the cells: two modules that use each other in their Init, loaded by one thread or by two
// at once. "OK" if it comes back.
std::string RunCross(bool on_two_threads, int milliseconds);

}  // namespace reentrancy

#endif
