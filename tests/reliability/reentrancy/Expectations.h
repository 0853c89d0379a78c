// Expectations.h: what vessa.h and tarnet.h say about each cell.
#ifndef VESSA_TESTS_RELIABILITY_REENTRANCY_EXPECTATIONS_H
#define VESSA_TESTS_RELIABILITY_REENTRANCY_EXPECTATIONS_H

#include <string>
#include <vector>

#include "reentrancy/Cells.h"

namespace reentrancy {

// A sentence of the headers, under the letter by which the printed matrix refers to it.
struct Rule {
    char letter;
    const char* name;
    const char* source;
    const char* text;
};
const std::vector<Rule>& AllRules();

struct Expectation {
    enum Kind {
        kDocumented,  // comes back with the outcome
        kExcluded,    // a module must not do it; it does not come back, or does so all the same
        kNoSuchCell   // there is nothing to call it with
    };
    Kind kind = kNoSuchCell;
    std::string outcome;  // "OK", "FAILED", ..., "put off", "nothing", "stops"; kHung, kCrashed
    char rule = '-';
};
extern const char kHung[];
extern const char kCrashed[];

Expectation Expected(const Cell& cell);
// Whether the cell takes its process with it.
bool EndsItsProcess(const Expectation& expectation);

}  // namespace reentrancy

#endif
