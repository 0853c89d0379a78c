// Ends of the process that run no exit handler: each in a child of its own, in which this very
// test runs on to its end.
#include <windows.h>

#include <cstdlib>
#include <string>

#include "unit/ExitingChild.h"

namespace vessa_test {
namespace {

using EndOfProcess = void (*)();

void Exit() {
    ExitProcess(kEnd);
}
void Terminate() {
    TerminateProcess(GetCurrentProcess(), kEnd);
}

class EndWithoutHandlers : public testing::TestWithParam<EndOfProcess> {};

TEST_P(EndWithoutHandlers, InsideAnOperationOnTheScanningThreadIsClean) {
    if (!IsChild()) return ExpectCleanChild();
    Life& life = NewLife();
    const EndOfProcess end = GetParam();
    life.hook.On("m", "Init", [end](ModuleCall&) { end(); });
    StartScanWithNewPlugin(life);
    // The process ends meanwhile.
    life.released.Wait();
}

TEST_P(EndWithoutHandlers, WaitsForNoScanInProgress) {
    if (!IsChild()) return ExpectCleanChild();
    Life& life = NewLife();
    life.hook.On("m", "Init", [&](ModuleCall&) {
        life.entered.Open();
        life.released.Wait();
    });
    StartScanWithNewPlugin(life);
    life.entered.Wait();
    GetParam()();
}

TEST_P(EndWithoutHandlers, WithAnInstanceAliveIsClean) {
    if (!IsChild()) return ExpectCleanChild();
    Life& life = NewLife();
    life.world.Add("m");
    void* instance = nullptr;
    if (VESSA_Init() != VESSA_OK) std::_Exit(1);
    if (VESSA_CreateInstance("m", &instance, nullptr) != VESSA_OK) std::_Exit(2);
    GetParam()();
}

INSTANTIATE_TEST_SUITE_P(By, EndWithoutHandlers, testing::Values(&Exit, &Terminate),
                         [](const auto& end) {
                             return end.param == &Exit ? "Exit" : "Termination";
                         });

}  // namespace
}  // namespace vessa_test
