// vessa_reentrancy: runs the re-entrancy matrix and compares every cell with what is documented.
//
//   vessa_reentrancy                        all cells; the last line has the figures
//   vessa_reentrancy --print                and the matrix, as docs/reentrancy.md has it
//   vessa_reentrancy --write <file>         the same into a file
//   vessa_reentrancy --compare <file>       and it must be what the file has
//   vessa_reentrancy --only <text>          the cells whose name contains the text, as
//                                           "Init in a start / thread of the slot / no writer /
//                                           Init"
//   vessa_reentrancy --within <ms>          how long a call may take, and the way back; without it
//                                           a minute, for machines that have other things to do
//   vessa_reentrancy --for-ever <ms>        how long what is said to wait for ever is waited for
//   vessa_reentrancy --cross one|two        two modules that use each other in their Init, on one
//                                           thread or on two: the second must not come back
//   vessa_reentrancy --plant wrong|endless|user
//                                           to see that the check bites: in every cell a wrong
//                                           expectation, a module that waits for ever, or one that
//                                           leaves a user of the library behind
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "reentrancy/CellRun.h"
#include "reentrancy/Expectations.h"
#include "reentrancy/Matrix.h"
#include "reentrancy/Watchdog.h"

namespace {

using reentrancy::CellResult;
using reentrancy::Expectation;

struct Arguments {
    reentrancy::Plan plan;
    bool print = false;
    std::string write;
    std::string compare;
};

bool Read(int count, char** values, Arguments& arguments) {
    for (int i = 1; i < count; ++i) {
        const std::string name = values[i];
        if (name == "--print") {
            arguments.print = true;
            continue;
        }
        if (i + 1 == count) return false;
        const std::string value = values[++i];
        if (name == "--only")
            arguments.plan.only = value;
        else if (name == "--plant")
            arguments.plan.plant = value;
        else if (name == "--write")
            arguments.write = value;
        else if (name == "--compare")
            arguments.compare = value;
        else if (name == "--within")
            arguments.plan.within_ms = std::stoi(value);
        else if (name == "--for-ever")
            arguments.plan.for_ever_ms = std::stoi(value);
        else if (name == "--workers")
            arguments.plan.workers = std::stoi(value);
        else
            return false;
    }
    return true;
}

// Of those that are as expected.
int CountKind(const std::vector<CellResult>& results, Expectation::Kind kind, bool ends_process) {
    int count = 0;
    for (const CellResult& result : results) {
        const Expectation expectation = reentrancy::Expected(result.cell);
        if (result.as_expected && expectation.kind == kind &&
            reentrancy::EndsItsProcess(expectation) == ends_process)
            ++count;
    }
    return count;
}

// How many cells are not as documented.
int Report(const std::vector<CellResult>& results) {
    int wrong = 0;
    for (const CellResult& result : results) {
        if (result.as_expected) continue;
        ++wrong;
        const Expectation expectation = reentrancy::Expected(result.cell);
        std::printf("%s: %s, not %s (rule %c)\n", result.cell.Name().c_str(),
                    result.outcome.c_str(), expectation.outcome.c_str(), expectation.rule);
    }
    std::printf(
        "%d cells as documented, %d excluded ones that do not come back, %d excluded ones that "
        "do, %d not as expected\n",
        CountKind(results, Expectation::kDocumented, false),
        CountKind(results, Expectation::kExcluded, true),
        CountKind(results, Expectation::kExcluded, false), wrong);
    return wrong;
}

bool IsText(const std::string& file, const std::string& text) {
    std::ifstream in(file);
    return std::string(std::istreambuf_iterator<char>(in), {}) == text;
}

}  // namespace

int main(int count, char** values) {
    Arguments arguments;
    if (count > 5 && values[1] == std::string("--cells")) {
        reentrancy::SetUpWatchdog();
        arguments.plan.plant = values[2];
        arguments.plan.for_ever_ms = std::stoi(values[3]);
        arguments.plan.within_ms = std::stoi(values[4]);
        std::vector<int> numbers;
        for (int i = 5; i < count; ++i) numbers.push_back(std::stoi(values[i]));
        reentrancy::RunCells(numbers, arguments.plan);
        return 0;
    }
    if (count == 3 && values[1] == std::string("--cross")) {
        reentrancy::SetUpWatchdog();
        // Two threads never come back; one does, however long it is kept from running.
        const bool on_two = values[2] == std::string("two");
        const std::string outcome = reentrancy::RunCross(on_two, on_two ? 2000 : 60000);
        std::printf("%s\n", outcome.c_str());
        return 0;
    }
    if (!Read(count, values, arguments)) {
        std::fprintf(stderr, "vessa_reentrancy: see the comment at the top of Main.cpp\n");
        return 2;
    }
    const std::vector<CellResult> results = reentrancy::RunMatrix(arguments.plan);
    int wrong = Report(results);
    const std::string document = reentrancy::Document(results);
    if (arguments.print) std::printf("%s", document.c_str());
    if (!arguments.write.empty()) std::ofstream(arguments.write) << document;
    if (!arguments.compare.empty() && !IsText(arguments.compare, document)) {
        std::printf("%s is not the matrix that was found; --write makes it so\n",
                    arguments.compare.c_str());
        ++wrong;
    }
    return wrong == 0 ? 0 : 1;
}
