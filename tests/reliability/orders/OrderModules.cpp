#include "reliability/orders/OrderModules.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>

#include "TestPlatform.h"
#include "modules/TestInterface.h"
#include "reliability/orders/Order.h"
#include "skrib.h"

namespace vessa_test {
namespace {

constexpr int kLines = 256;

// Lines are a thread's own until it has ended: no lock and no order between threads.
struct State {
    std::atomic<int> lines{0};
    char journal[kLines][64] = {};
    std::map<std::string, OrderModules::Handler> handlers;
};

std::atomic<State*> state{nullptr};

struct Point {
    const char* operation;
    const char* plain;
    const char* point;  // null: no point
};

constexpr Point kPoints[] = {
    {"Load", "Load", nullptr},
    {"Unload", "Unload", nullptr},
    {"Entry", "Entry", "in.Entry"},
    {"Init", "Init", "in.Init"},
    {"Uninit", "Uninit", "in.Uninit"},
    {"CreateInstance", "CreateInstance", "in.CreateInstance"},
    {"CreateInstance_V2", "CreateInstance", "in.CreateInstance"},
    {"DestroyInstance", "DestroyInstance", "in.DestroyInstance"},
    {"QueryInterface", "QueryInterface", "in.QueryInterface"},
};

void Enter(State& in, const char* module, const Point& point, void* about) {
    const int at = in.lines.fetch_add(1, std::memory_order_relaxed);
    if (at < kLines)
        std::snprintf(in.journal[at], sizeof in.journal[at], "%s %s", point.plain, module);
    if (point.point != nullptr) At(point.point);
    const auto handler = in.handlers.find(std::string(point.plain) + " " + module);
    if (handler != in.handlers.end()) handler->second(about);
}

}  // namespace

OrderModules::OrderModules() {
    SKRIB_SetThreshold("vessa", SKRIB_LEVEL_OFF);
    state.store(new State);
}

OrderModules::~OrderModules() {
    delete state.exchange(nullptr);
}

void OrderModules::On(const std::string& module, const std::string& operation, Handler handler) {
    state.load()->handlers[operation + " " + module] = std::move(handler);
}

std::vector<std::string> OrderModules::Journal() const {
    const State& kept = *state.load();
    return {kept.journal, kept.journal + std::min(kept.lines.load(), kLines)};
}

int OrderModules::Count(const std::string& line) const {
    const std::vector<std::string> journal = Journal();
    return static_cast<int>(std::count(journal.begin(), journal.end(), line));
}

}  // namespace vessa_test

extern "C" PROGRAM_EXPORT int TestModule_Hook(const char* module, const char* operation, void* a,
                                              void*, int*) {
    using namespace vessa_test;
    State* const in = state.load(std::memory_order_relaxed);
    if (in == nullptr) return 0;
    for (const Point& point : kPoints)
        if (std::strcmp(point.operation, operation) == 0) Enter(*in, module, point, a);
    return 0;
}
