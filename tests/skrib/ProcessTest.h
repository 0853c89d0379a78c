// The child program of the tests about the whole process, and how its lines are read.
#pragma once

#include <string>
#include <vector>

#include "Support.h"

namespace skrib_test {

using Words = std::vector<std::string>;

inline Outcome Child(const Words& commands, const Words& environment = {},
                     const std::string& err_path = "") {
    return Run(SKRIB_CHILD, commands, environment, err_path);
}

// The command that writes one record without saying where it comes from.
inline Words Writing(const std::string& text, const std::string& level = "4",
                     const std::string& logger = "vessa") {
    return {"write", logger, level, text, "-", "-", "0"};
}

inline Words operator+(Words first, const Words& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

constexpr char kTime[] = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}";

// The lines without time and thread.
inline Words WithoutTime(const std::string& text) {
    const std::string start = std::string("^") + kTime + "[+-][0-9]{2}:[0-9]{2} [0-9]+ ";
    Words lines = Lines(text);
    for (std::string& line : lines) {
        const Words match = Match(start, line);
        if (!match.empty()) line.erase(0, match[0].size());
    }
    return lines;
}

inline std::string FileSetting(const std::string& path) {
    return "SKRIB_FILE=" + path;
}

}  // namespace skrib_test
