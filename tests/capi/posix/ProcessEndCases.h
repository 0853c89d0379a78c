// ProcessEndCases.h: ends of a process that only this system has. Each system has a folder with a
// header of this name.
#ifndef VESSA_TESTS_CAPI_PROCESSENDCASES_H
#define VESSA_TESTS_CAPI_PROCESSENDCASES_H

#include "capi/ProcessEndWay.h"

namespace vessa_test {

inline void AddSystemsWays(std::vector<Way>& ways) {
    ways.push_back({"InAForkedChild", {"fork"}, true});
    for (const char* operation : {"Init", "CreateInstance_V2", "Uninit"}) {
        const std::string name = operation;
        ways.push_back(
            {"InAForkedChildWhileAnotherThreadIsIn" + name, {"fork_while_held", name}, true});
    }
}

}  // namespace vessa_test

#endif
