// The printed matrix.
#include <sstream>

#include "reentrancy/Expectations.h"
#include "reentrancy/Matrix.h"

namespace reentrancy {
namespace {

const char kIntroduction[] = R"(# Re-entrancy

What each export answers when a module calls it from inside each of its operations. Printed by
`vessa_reentrancy --print`; a test runs every cell and compares this file.

A row is an operation and the way on which the library came to it. It has two threads: the
operation's own, and one that the module starts there and waits for. Every cell is run twice, alone
and while another thread waits at the registry's gate as a writer; where the two differ they stand
as "alone / with the writer". Every cell ends within two seconds, and nothing is left of it: no
module, no thread, no user, no registration.

Calls are about another plug-in; "own" ones are about the module that makes the call, and the
instance for which it was called; "last" is about the last instance of a plug-in that was
unregistered. Of `VESSA_Uninit`, "put off" is a stop that takes place when the
outermost call into the library on that thread ends, "stops" one that took place in the call.

A letter names the rule, below. **hung** and **crashed** mark calls that a module must not make
there, because they wait for ever or unload the module under itself; every one of them was made, and
did. A result in parentheses is of a call that the same rule excludes, and that comes back all the
same: modules must not rely on it. "-" has nothing to be called with.

)";

std::string Text(const CellResult& result) {
    const Expectation expectation = Expected(result.cell);
    const std::string letter = std::string(" ") + expectation.rule;
    if (expectation.kind == Expectation::kNoSuchCell) return "-";
    if (!result.as_expected) return "UNEXPECTED: " + result.outcome;
    if (expectation.kind == Expectation::kDocumented) return result.outcome + letter;
    return (EndsItsProcess(expectation) ? "**" + result.outcome + "**"
                                        : "(" + result.outcome + ")") +
           letter;
}

// The two cells of a call: alone, and beside a writer.
std::string Pair(const CellResult& alone, const CellResult& beside) {
    const std::string first = Text(alone);
    const std::string second = Text(beside);
    if (first == second || second == "-") return first;
    return first + " / " + second;
}

}  // namespace

std::string Document(const std::vector<CellResult>& results) {
    std::ostringstream out;
    out << kIntroduction << "| Operation | Reached by | Thread |";
    for (int call = 0; call < kExports; ++call)
        out << " " << ExportName(static_cast<Export>(call)) << " |";
    out << "\n|---|---|---|";
    for (int call = 0; call < kExports; ++call) out << "---|";
    out << "\n";
    // In the order of AllCells: first the cells without a writer, then those with one.
    for (std::size_t row = 0; row + 2 * kExports <= results.size(); row += 2 * kExports) {
        const Cell& cell = results[row].cell;
        out << "| " << cell.slot.Operation() << " | " << ReachedName(cell.slot.reached) << " | "
            << (cell.on_own_thread ? "module's" : "operation's") << " |";
        for (std::size_t call = 0; call < kExports; ++call)
            out << " " << Pair(results[row + call], results[row + kExports + call]) << " |";
        out << "\n";
    }
    out << "\n## Rules\n\n| | Rule | Where | What it says |\n|---|---|---|---|\n";
    for (const Rule& rule : AllRules())
        out << "| " << rule.letter << " | " << rule.name << " | " << rule.source << " | "
            << rule.text << " |\n";
    return out.str();
}

}  // namespace reentrancy
