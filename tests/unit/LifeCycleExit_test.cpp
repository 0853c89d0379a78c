// Ends of the process that need the scanning thread at a known point: each in a child of its
// own, in which this very test runs on to its exit.
#include <cstdlib>
#include <string>

#include "unit/ExitingChild.h"

namespace vessa_test {
namespace {

class ExitOnTheScanningThread : public testing::TestWithParam<std::string> {};

TEST_P(ExitOnTheScanningThread, InsideAnOperationIsClean) {
    if (!IsChild()) return ExpectCleanChild();
    Life& life = NewLife();
    life.hook.On("m", GetParam(), [](ModuleCall&) { std::exit(kEnd); });
    StartScanWithNewPlugin(life);
    // The process ends meanwhile.
    life.released.Wait();
}

INSTANTIATE_TEST_SUITE_P(Operations, ExitOnTheScanningThread,
                         testing::Values("Entry", "Init", "GetFileVersion", "GetAllInterfaceIkeys",
                                         "GetPluginMapFkeys"),
                         [](const auto& operation) { return operation.param; });

TEST(ExitDuringAScan, WaitsForTheScanToEnd) {
    if (!IsChild()) return ExpectCleanChild();
    Life& life = NewLife();
    life.hook.On("m", "Init", [&](ModuleCall&) {
        life.entered.Open();
        life.released.Wait();
    });
    life.log.OnLine("1 config file changed end", [&life] { life.over = true; });
    StartScanWithNewPlugin(life);
    life.entered.Wait();
    // Only when the exit waits for the thread may the scan go on.
    ExpectAtTheEnd([&life] { return life.over.load(); });
    static JoiningThread& releaser = *new JoiningThread([&life] {
        life.runtime.AwaitWaiters(1);
        life.released.Open();
    });
    static_cast<void>(releaser);
    std::exit(kEnd);
}

TEST(ExitDuringAScan, LeavesAThreadAloneThatDoesNotEndInTime) {
    if (!IsChild()) return ExpectCleanChild();
    Life& life = NewLife();
    life.hook.On("m", "Init", [&](ModuleCall&) {
        life.entered.Open();
        life.released.Wait();
    });
    StartScanWithNewPlugin(life);
    life.entered.Wait();
    ExpectAtTheEnd([&life] { return life.over.load(); });
    static JoiningThread& ticker = *new JoiningThread([&life] {
        const RuntimeWaiter exit = life.runtime.AwaitWaiters(1).back();
        life.over = true;
        life.runtime.StartTick(exit.id);
    });
    static_cast<void>(ticker);
    std::exit(kEnd);
}

TEST(ExitDuringAScan, OfTheFoldersIsClean) {
    if (!IsChild()) return ExpectCleanChild();
    Life& life = NewLife();
    if (VESSA_Init() != VESSA_OK) std::_Exit(1);
    life.runtime.Before(Tova::OpenDir, [&](RuntimeCall&) {
        life.entered.Open();
        life.released.Wait();
    });
    life.runtime.StartTick();
    life.entered.Wait();
    ExpectAtTheEnd([&life] { return life.over.load(); });
    static JoiningThread& releaser = *new JoiningThread([&life] {
        life.runtime.AwaitWaiters(1);
        life.over = true;
        life.released.Open();
    });
    static_cast<void>(releaser);
    std::exit(kEnd);
}

TEST(ExitAfterAStopOnTheScanningThread, IsClean) {
    if (!IsChild()) return ExpectCleanChild();
    Life& life = NewLife();
    life.hook.On("m", "Init", [](ModuleCall&) { VESSA_Uninit(); });
    if (VESSA_Init() != VESSA_OK) std::_Exit(1);
    life.world.Add("m");
    if (life.runtime.Tick()) std::_Exit(2);
    std::exit(kEnd);
}

TEST(ExitWhileStarted, AsksTheScanningThreadToEnd) {
    if (!IsChild()) return ExpectCleanChild();
    Life& life = NewLife();
    if (VESSA_Init() != VESSA_OK) std::_Exit(1);
    life.runtime.AwaitWaiters(1);
    // Nobody ticks: only a post ends the thread's wait, and the exit waits for that.
    ExpectAtTheEnd([&life] { return life.runtime.Waiters().empty(); });
    std::exit(kEnd);
}

}  // namespace
}  // namespace vessa_test
