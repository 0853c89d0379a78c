#include "reentrancy/Matrix.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include "reentrancy/CellRun.h"
#include "reentrancy/Expectations.h"
#include "reentrancy/Watchdog.h"
#include "support/Child.h"
#include "support/TempDir.h"

namespace reentrancy {
namespace {

// No machine stands still for so long: what takes longer waits for ever. What is said to do so is
// waited for long enough to tell it from what comes back, under a sanitizer several times as long.
constexpr int kPatienceMs = 60000;
#if defined(VESSA_SANITIZED)
constexpr int kForEverMs = 3000;
#else
constexpr int kForEverMs = 400;
#endif
constexpr std::size_t kCellsInOneChild = 24;

void Say(const std::string& text) {
    const ssize_t ignored = write(STDOUT_FILENO, text.data(), text.size());
    (void)ignored;
}

int WithinMs(const Plan& plan) {
    return plan.within_ms != 0 ? plan.within_ms : kPatienceMs;
}

bool IsRun(const Expectation& expectation) {
    return expectation.kind == Expectation::kDocumented ||
           expectation.kind == Expectation::kExcluded;
}

// Numbers of cells, in portions for one child each. One that is expected to end its child has a
// portion of its own.
std::vector<std::vector<int>> Portions(const std::vector<CellResult>& results) {
    std::vector<std::vector<int>> portions;
    std::vector<int> portion;
    for (const CellResult& result : results) {
        const Expectation expectation = Expected(result.cell);
        if (!IsRun(expectation)) continue;
        if (EndsItsProcess(expectation)) {
            portions.push_back({result.number});
            continue;
        }
        portion.push_back(result.number);
        if (portion.size() < kCellsInOneChild) continue;
        portions.push_back(portion);
        portion.clear();
    }
    if (!portion.empty()) portions.push_back(portion);
    return portions;
}

// Runs portions in children until all cells have an outcome.
class Runner {
  public:
    explicit Runner(const Plan& plan) : plan_(plan) {}

    std::map<int, std::string> Run(std::vector<std::vector<int>> portions) {
        portions_ = std::move(portions);
        std::vector<std::thread> workers;
        for (int i = 0; i < plan_.workers; ++i) workers.emplace_back([this] { Work(); });
        for (std::thread& worker : workers) worker.join();
        return outcomes_;
    }

  private:
    void Work() {
        std::vector<int> portion;
        while (Take(portion)) {
            while (!portion.empty()) portion = RunSome(portion);
        }
    }

    bool Take(std::vector<int>& portion) {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (portions_.empty()) return false;
        portion = portions_.back();
        portions_.pop_back();
        return true;
    }

    // One child; what is left to do after it.
    std::vector<int> RunSome(const std::vector<int>& portion) {
        vessa_test::ChildOptions child;
        child.program = vessa_test::OwnProgram();
        child.arguments = {"--cells", plan_.plant, std::to_string(plan_.for_ever_ms),
                           std::to_string(plan_.within_ms)};
        for (const int number : portion) child.arguments.push_back(std::to_string(number));
        // What a cell that was ended leaves behind goes with this folder.
        child.environment["TMPDIR"] = folder_.Path();
        child.environment["SKRIB_LEVEL"] = "off";
        child.watchdog =
            std::chrono::milliseconds(kPatienceMs + WithinMs(plan_) * 2 + plan_.for_ever_ms) *
            portion.size();
        const vessa_test::ChildResult result = vessa_test::RunChild(child);
        return Read(portion, result);
    }

    // Lines "12 OK"; the line of a cell that did not end has no outcome or the watchdog's.
    std::vector<int> Read(const std::vector<int>& portion, const vessa_test::ChildResult& result) {
        std::istringstream lines(result.out);
        std::string line;
        std::size_t done = 0;
        bool ended = false;  // with a cell
        const std::lock_guard<std::mutex> lock(mutex_);
        for (; done < portion.size() && std::getline(lines, line); ++done) {
            const std::size_t blank = line.find(' ');
            std::string outcome = blank == std::string::npos ? "" : line.substr(blank + 1);
            ended |= outcome.empty() || result.Exited(kHungStatus);
            if (outcome.empty()) outcome = result.hung ? kHung : kCrashed;
            outcomes_[portion[done]] = outcome;
        }
        if (done == 0) outcomes_[portion[done++]] = "did not start: " + result.Describe();
        // What a complete run says at its end, a sanitizer's report of leaks, is of its last cell.
        if (!ended && !result.Exited(0))
            outcomes_[portion[done - 1]] += "; " + result.End() + ": " + result.err;
        return std::vector<int>(portion.begin() + static_cast<std::ptrdiff_t>(done), portion.end());
    }

    const Plan plan_;
    const vessa_test::TempDir folder_;
    std::mutex mutex_;
    std::vector<std::vector<int>> portions_;
    std::map<int, std::string> outcomes_;
};

std::string ExpectedOutcome(const Plan& plan, const CellResult& result) {
    if (plan.plant == "wrong") return "BUFFER_TOO_SMALL";
    return Expected(result.cell).outcome;
}

}  // namespace

void RunCells(const std::vector<int>& numbers, const Plan& plan) {
    Planted planted = Planted::kNothing;
    if (plan.plant == "endless") planted = Planted::kEndless;
    if (plan.plant == "user") planted = Planted::kUser;
    const int for_ever_ms = plan.for_ever_ms != 0 ? plan.for_ever_ms : kForEverMs;
    const std::vector<Cell> cells = AllCells();
    for (const int number : numbers) {
        const Cell& cell = cells.at(static_cast<std::size_t>(number));
        const int within_ms = WithinMs(plan);
        const int call_ms = Expected(cell).outcome == kHung ? for_ever_ms : within_ms;
        Say(std::to_string(number));
        Say(" " + RunCell(cell, {kPatienceMs, call_ms, within_ms}, planted) + "\n");
    }
}

std::vector<CellResult> RunMatrix(const Plan& plan) {
    std::vector<CellResult> results;
    const std::vector<Cell> cells = AllCells();
    for (std::size_t i = 0; i < cells.size(); ++i) {
        if (cells[i].Name().find(plan.only) == std::string::npos) continue;
        results.push_back({static_cast<int>(i), cells[i], "", true});
    }
    const std::map<int, std::string> outcomes = Runner(plan).Run(Portions(results));
    for (CellResult& result : results) {
        if (!IsRun(Expected(result.cell))) continue;
        const auto found = outcomes.find(result.number);
        result.outcome = found == outcomes.end() ? "not run" : found->second;
        result.as_expected = result.outcome == ExpectedOutcome(plan, result);
    }
    return results;
}

}  // namespace reentrancy
