// ProcessEndCases.h: ends of a process that only this system has. Each system has a folder with a
// header of this name.
#ifndef VESSA_TESTS_CAPI_PROCESSENDCASES_H
#define VESSA_TESTS_CAPI_PROCESSENDCASES_H

#include "capi/ProcessEndWay.h"

namespace vessa_test {

// The program's own exit handlers do not run, the libraries' do.
inline void AddSystemsWays(std::vector<Way>& ways) {
    ways.push_back({"ByExitWithAStatus", {"exit_with_7"}, false, 7});
    ways.push_back({"ByExitProcess", {"exit_process"}, false, 7});
    ways.push_back({"ByExitProcessWithALiveInstance", {"exit_process_with_instance"}, false, 7});
    for (const char* operation : {"Init", "CreateInstance_V2", "Uninit"}) {
        const std::string name = operation;
        ways.push_back({"ByExitProcessInside" + name, {"exit_process_inside", name}, false, 7});
        ways.push_back({"ByExitProcessWhileAnotherThreadIsIn" + name,
                        {"exit_process_while_held", name},
                        false,
                        7});
    }
}

}  // namespace vessa_test

#endif
