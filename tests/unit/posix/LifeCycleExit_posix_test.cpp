// The end of a forked process: in a child of its own, in which this very test runs on to its exit.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "unit/ExitingChild.h"

namespace vessa_test {
namespace {

TEST(ExitInAForkedChild, DoesNotTouchTheScanInProgress) {
    if (!IsChild()) return ExpectCleanChild(true);
    Life& life = NewLife();
    life.hook.On("m", "Init", [&](ModuleCall&) {
        life.entered.Open();
        life.released.Wait();
    });
    StartScanWithNewPlugin(life);
    life.entered.Wait();
    const pid_t child = fork();
    if (child == 0) std::exit(kEnd);
    int status = 0;
    if (waitpid(child, &status, 0) != child) std::_Exit(1);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != kEnd) std::_Exit(2);
    life.released.Open();
    VESSA_Uninit();
    std::exit(kEnd);
}

}  // namespace
}  // namespace vessa_test
