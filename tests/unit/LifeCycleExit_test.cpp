// Ends of the process that need the scanning thread at a known point: each in a child of its
// own, in which this very test runs on to its exit.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>

#include "capi/SanitizerOptions.h"
#include "support/Child.h"
#include "support/ModuleHook.h"
#include "support/Runtime.h"
#include "support/Sync.h"
#include "unit/LifeCycleWorld.h"

namespace vessa_test {
namespace {

constexpr int kEnd = 7;
constexpr int kEndedTooEarly = 9;

// Asked at the very end of the process, after every exit handler and every destructor of a
// global object: whether the exit did what the test expects of it.
std::function<bool()>* at_the_end = nullptr;

__attribute__((destructor)) void AskAtTheEnd() {
    if (at_the_end != nullptr && !(*at_the_end)()) _exit(kEndedTooEarly);
}

void ExpectAtTheEnd(std::function<bool()> holds) {
    at_the_end = new std::function<bool()>(std::move(holds));
}

// What the child uses until its very end: exit unwinds no stack, so nothing of it goes.
struct Life {
    World world;
    Gate entered;
    Gate released;
    std::atomic<bool> over{false};
    Runtime runtime;
    LogCapture log{1};
    ModuleHook hook;
};

Life& NewLife() {
    static Life& life = *new Life;
    return life;
}

void ExpectCleanChild(bool forks = false) {
    ChildOptions options = ThisTestAsChild();
    LookForNoUnjoinedThreads(options);
    if (forks) LookForNoLeaks(options);
    const ChildResult result = RunChild(options);
    EXPECT_TRUE(result.Exited(kEnd)) << result;
}

// The scanning thread on its way to a new list file.
void StartScanWithNewPlugin(Life& life) {
    if (VESSA_Init() != VESSA_OK) _exit(1);
    life.world.Add("m", "map_two", {{"loadfkeys", "true"}});
    life.runtime.StartTick();
}

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
    if (VESSA_Init() != VESSA_OK) _exit(1);
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
    if (waitpid(child, &status, 0) != child) _exit(1);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != kEnd) _exit(2);
    life.released.Open();
    VESSA_Uninit();
    std::exit(kEnd);
}

TEST(ExitAfterAStopOnTheScanningThread, IsClean) {
    if (!IsChild()) return ExpectCleanChild();
    Life& life = NewLife();
    life.hook.On("m", "Init", [](ModuleCall&) { VESSA_Uninit(); });
    if (VESSA_Init() != VESSA_OK) _exit(1);
    life.world.Add("m");
    if (life.runtime.Tick()) _exit(2);
    std::exit(kEnd);
}

TEST(ExitWhileStarted, AsksTheScanningThreadToEnd) {
    if (!IsChild()) return ExpectCleanChild();
    Life& life = NewLife();
    if (VESSA_Init() != VESSA_OK) _exit(1);
    life.runtime.AwaitWaiters(1);
    // Nobody ticks: only a post ends the thread's wait, and the exit waits for that.
    ExpectAtTheEnd([&life] { return life.runtime.Waiters().empty(); });
    std::exit(kEnd);
}

}  // namespace
}  // namespace vessa_test
