#include "host/report.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdio>

namespace host {
namespace {

constexpr std::size_t kMaxFailuresShown = 10;
constexpr std::size_t kColumns = 8;
constexpr std::size_t kTextColumns = 2;  // aligned left, the numbers right

using Row = std::array<std::string, kColumns>;

Row RowOf(const Outcome& outcome) {
    return {
        outcome.key.fkey,
        outcome.key.module,
        fmt::format("{}", outcome.files),
        fmt::format("{}", outcome.plain_bytes),
        fmt::format("{:.2f}", outcome.Ratio()),
        fmt::format("{:.1f}", outcome.CompressMegabytesPerSecond()),
        fmt::format("{:.1f}", outcome.DecompressMegabytesPerSecond()),
        outcome.failures.empty() ? "yes" : fmt::format("NO, {} failed", outcome.failures.size())};
}

}  // namespace

void PrintTable(const std::vector<Outcome>& outcomes) {
    std::vector<Row> rows = {
        {"codec", "module", "files", "bytes", "ratio", "MB/s in", "MB/s out", "verified"}};
    for (const Outcome& outcome : outcomes) rows.push_back(RowOf(outcome));
    std::array<std::size_t, kColumns> widths{};
    for (const Row& row : rows) {
        for (std::size_t i = 0; i < kColumns; ++i) widths[i] = std::max(widths[i], row[i].size());
    }
    for (const Row& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < kColumns; ++i) {
            line += i < kTextColumns ? fmt::format("{:<{}}  ", row[i], widths[i])
                                     : fmt::format("{:>{}}  ", row[i], widths[i]);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        fmt::print("{}\n", line);
    }
    fmt::print(
        "MB/s in: compressing, out: decompressing; of plain data, 1 MB is 1,000,000 bytes.\n");
    std::fflush(stdout);
}

void PrintFailures(const Outcome& outcome) {
    const std::size_t shown = std::min(outcome.failures.size(), kMaxFailuresShown);
    for (std::size_t i = 0; i < shown; ++i) {
        fmt::print(stderr, "{}: {}\n", outcome.key.fkey, outcome.failures[i]);
    }
    if (shown < outcome.failures.size()) {
        fmt::print(stderr, "{}: and {} more\n", outcome.key.fkey, outcome.failures.size() - shown);
    }
}

}  // namespace host
