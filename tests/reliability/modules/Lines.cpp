#include <sstream>

#include "modules/Row.h"
#include "vessa/vessa.h"

namespace hostile {
namespace {

std::string Numbers(const Answer& answer) {
    return ResultName(answer.result) + " " + std::to_string(answer.error);
}

std::string Given(int result, bool is_null) {
    return result != VESSA_OK || is_null ? " null" : " given";
}

void AppendUse(const Row& row, std::vector<std::string>& lines) {
    const Answer create = row.load.result != VESSA_OK ? row.load : row.create;
    lines.push_back("create: " + Numbers(create) + Given(create.result, row.gives_null));
    if (create.result != VESSA_OK) return;
    // Nobody can do anything with an instance that is null.
    const Answer refused{VESSA_ERR_ARGUMENT, 0};
    const Answer query = row.gives_null ? refused : row.query;
    const Answer destroy = row.gives_null ? refused : row.destroy;
    lines.push_back("query: " + Numbers(query) + Given(query.result, row.finds_null));
    lines.push_back("second: " + ResultName(row.second));
    lines.push_back("destroy: " + Numbers(destroy));
    lines.push_back("twice: " + ResultName(row.twice));
}

void AppendLife(const Row& row, bool delay_load, std::vector<std::string>& lines) {
    lines.push_back("start: VESSA_OK");
    lines.push_back("load: " + ResultName(delay_load ? 0 : row.load.result));
    lines.push_back("good: served");
    AppendUse(row, lines);
    for (const auto& [key, result] : row.keys) {
        // A module that is loaded on demand is not asked.
        const bool is_own = key == "m" || key == "good";
        const int unknown = key.empty() ? VESSA_ERR_ARGUMENT : VESSA_ERR_NOT_REGISTERED;
        lines.push_back("key " + key.substr(0, 8) + ": " +
                        ResultName(delay_load && !is_own ? unknown : result));
    }
    lines.push_back(std::string("mapped: ") + (row.load.result == VESSA_OK ? "yes" : "no"));
    lines.push_back("good: served");
    std::string left = row.stays ? " mapped m.so" : "";
    left += row.left;
    lines.push_back("left:" + (left.empty() ? " nothing" : left));
}

}  // namespace

std::string ResultName(int result) {
    switch (result) {
#define HOSTILE_RESULT(name, number, meaning) \
  case number:                                \
    return #name;
        VESSA_RESULT_LIST(HOSTILE_RESULT)
#undef HOSTILE_RESULT
        default:
            return std::to_string(result);
    }
}

std::vector<std::string> ExpectedLines(const Row& row, bool delay_load) {
    std::vector<std::string> lines = {"start: VESSA_OK", "good: served"};
    AppendLife(row, delay_load, lines);
    AppendLife(row, delay_load, lines);
    lines.emplace_back("end");
    return lines;
}

std::string Differences(const std::vector<std::string>& expected, const std::string& told) {
    std::istringstream lines(told);
    std::string text;
    bool differs = false;
    std::size_t i = 0;
    for (std::string line; std::getline(lines, line); ++i) {
        const std::string wanted = i < expected.size() ? expected[i] : "the end";
        const bool same = line == wanted;
        differs |= !same;
        text += (same ? "  " : "! ") + line + (same ? "" : "   instead of   " + wanted) + "\n";
    }
    for (; i < expected.size(); ++i) {
        differs = true;
        text += "! nothing   instead of   " + expected[i] + "\n";
    }
    return differs ? text : std::string();
}

}  // namespace hostile
