// Matrix.h: all cells, carried out in children, and what came of them.
#ifndef VESSA_TESTS_RELIABILITY_REENTRANCY_MATRIX_H
#define VESSA_TESTS_RELIABILITY_REENTRANCY_MATRIX_H

#include <string>
#include <vector>

#include "reentrancy/Cells.h"

namespace reentrancy {

struct Plan {
    std::string only;   // a part of the cells' names; empty: all
    std::string plant;  // a fault in the check itself: "wrong", "endless" or "user"
    int workers = 8;
    // How long a cell may take; 0: so long that a machine which stands still for a while makes no
    // cell fail.
    int within_ms = 0;
    // How long a cell that is said to wait for ever is waited for; 0: long enough to tell it from
    // one that comes back.
    int for_ever_ms = 0;
};

struct CellResult {
    int number = 0;
    Cell cell;
    std::string outcome;  // empty: not to be run
    bool as_expected = true;
};

// Runs the cells of the plan, each where a hang or a crash ends nothing but itself.
std::vector<CellResult> RunMatrix(const Plan& plan);

// For a child: the cells of these numbers, one after the other, told on standard output.
void RunCells(const std::vector<int>& numbers, const Plan& plan);

// The matrix as the document docs/reentrancy.md.
std::string Document(const std::vector<CellResult>& results);

}  // namespace reentrancy

#endif
