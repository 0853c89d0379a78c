// ExitingChild.h: a child in which a test runs on to the exit of its process. Included by one
// source file of a program, as LifeCycleWorld.h.
#ifndef VESSA_TESTS_UNIT_EXITINGCHILD_H
#define VESSA_TESTS_UNIT_EXITINGCHILD_H

#include <atomic>
#include <cstdlib>
#include <functional>
#include <utility>

#include "capi/SanitizerOptions.h"
#include "support/Child.h"
#include "support/ModuleHook.h"
#include "support/Runtime.h"
#include "support/Sync.h"
#include "unit/LifeCycleWorld.h"

namespace vessa_test {

constexpr int kEnd = 7;
constexpr int kEndedTooEarly = 9;

// Asked at the very end of the process, after every exit handler and every destructor of a
// global object: whether the exit did what the test expects of it.
inline std::function<bool()>* at_the_end = nullptr;

// Made before every other one, so that it goes after them.
struct AskAtTheEnd {
    ~AskAtTheEnd() {
        if (at_the_end != nullptr && !(*at_the_end)()) std::_Exit(kEndedTooEarly);
    }
};
__attribute__((init_priority(101))) static AskAtTheEnd ask_at_the_end;

inline void ExpectAtTheEnd(std::function<bool()> holds) {
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

inline Life& NewLife() {
    static Life& life = *new Life;
    return life;
}

inline void ExpectCleanChild(bool forks = false) {
    ChildOptions options = ThisTestAsChild();
    LookForNoUnjoinedThreads(options);
    if (forks) LookForNoLeaks(options);
    const ChildResult result = RunChild(options);
    EXPECT_TRUE(result.Exited(kEnd)) << result;
}

// The scanning thread on its way to a new list file.
inline void StartScanWithNewPlugin(Life& life) {
    if (VESSA_Init() != VESSA_OK) std::_Exit(1);
    life.world.Add("m", "map_two", {{"loadfkeys", "true"}});
    life.runtime.StartTick();
}

}  // namespace vessa_test

#endif
