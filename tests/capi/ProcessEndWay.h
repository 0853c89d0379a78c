// ProcessEndWay.h: how a process ends in a test.
#ifndef VESSA_TESTS_CAPI_PROCESSENDWAY_H
#define VESSA_TESTS_CAPI_PROCESSENDWAY_H

#include <ostream>
#include <string>
#include <vector>

namespace vessa_test {

struct Way {
    std::string name;
    std::vector<std::string> arguments;
    bool forks = false;
    int status = 0;  // of the exit
};

inline std::ostream& operator<<(std::ostream& out, const Way& way) {
    return out << way.name;
}

}  // namespace vessa_test

#endif
