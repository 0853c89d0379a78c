// What the tests of the logging library have to know about the system. Each system has a folder
// with a header of this name.
#pragma once

#include <string>
#include <vector>

namespace skrib_test {

constexpr char kLineEnd[] = "\n";
// Takes everything and keeps nothing.
constexpr char kNowhere[] = "/dev/null";

// A time zone for a child, by its environment, and how a line shows it.
inline std::vector<std::string> ZoneSetting() {
    return {"TZ=XXX-05:30"};
}
inline std::string ZoneShown() {
    return "+05:30";
}

}  // namespace skrib_test
