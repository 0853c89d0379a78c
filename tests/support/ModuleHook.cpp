#include "support/ModuleHook.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "TestPlatform.h"
#include "modules/TestInterface.h"
#include "support/Allocation.h"
#include "support/Sync.h"

namespace vessa_test {
namespace {

using Operation = std::pair<std::string, std::string>;

struct Registry {
    std::mutex mutex;
    std::condition_variable changed;
    bool active = false;
    int handlers_running = 0;
    std::map<Operation, std::shared_ptr<ModuleHook::Handler>> handlers;
    std::map<Operation, int> counts;
    std::vector<std::string> journal;
};

// Never destroyed: modules come as late as the end of the process.
Registry& TheRegistry() {
    static Registry& registry = *new Registry;
    return registry;
}

ModuleCall Describe(const char* module, const char* operation, void* a, void* b) {
    ModuleCall call;
    call.module = module;
    call.operation = operation;
    if (call.operation == "CreateInstance" || call.operation == "CreateInstance_V2") {
        call.key = static_cast<const char*>(a);
        call.out = static_cast<void**>(b);
    } else if (call.operation == "DestroyInstance") {
        call.instance = a;
    } else if (call.operation == "QueryInterface") {
        const auto* const query = static_cast<const test_module_query*>(b);
        call.instance = a;
        call.key = query->ikey;
        call.out = query->iface;
    } else if (call.operation == "GetPluginMapFkeys") {
        call.fkeys = static_cast<char(*)[256]>(a);
        call.count = static_cast<int*>(b);
    }
    return call;
}

std::string Line(const ModuleCall& call) {
    std::string line = call.operation + " " + call.module;
    if (call.key != nullptr) line += std::string(" key=") + call.key;
    if (call.fkeys != nullptr) line += " fill";
    return line;
}

// Keeps the call in the journal and finds its handler.
std::shared_ptr<ModuleHook::Handler> Enter(ModuleCall& call) {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    if (!registry.active) return nullptr;
    registry.journal.push_back(Line(call));
    call.index = ++registry.counts[{call.module, call.operation}];
    registry.changed.notify_all();
    auto found = registry.handlers.find({call.module, call.operation});
    if (found == registry.handlers.end()) found = registry.handlers.find({"*", call.operation});
    if (found == registry.handlers.end()) return nullptr;
    ++registry.handlers_running;
    return found->second;
}

struct RunningHandler {
    ~RunningHandler() {
        Registry& registry = TheRegistry();
        std::lock_guard<std::mutex> lock(registry.mutex);
        --registry.handlers_running;
        registry.changed.notify_all();
    }
};

}  // namespace

ModuleHook::ModuleHook() {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    if (registry.active) throw std::logic_error("one ModuleHook at a time");
    registry.active = true;
}

ModuleHook::~ModuleHook() {
    Registry& registry = TheRegistry();
    std::unique_lock<std::mutex> lock(registry.mutex);
    registry.active = false;
    registry.handlers.clear();
    registry.counts.clear();
    registry.journal.clear();
    if (registry.changed.wait_for(lock, kLongWait, [&] { return registry.handlers_running == 0; }))
        return;
    std::fprintf(stderr, "a handler of a module's operation does not end\n");
    std::abort();
}

void ModuleHook::On(const std::string& module, const std::string& operation, Handler handler) {
    auto kept = std::make_shared<Handler>(std::move(handler));
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    registry.handlers[{module, operation}] = std::move(kept);
}

void ModuleHook::Off(const std::string& module, const std::string& operation) {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    registry.handlers.erase({module, operation});
}

std::vector<std::string> ModuleHook::Journal() const {
    const AllocationPause pause;
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    return registry.journal;
}

int ModuleHook::Count(const std::string& module, const std::string& operation) const {
    const AllocationPause pause;
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    const auto found = registry.counts.find({module, operation});
    return found == registry.counts.end() ? 0 : found->second;
}

void ModuleHook::Clear() {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    registry.counts.clear();
    registry.journal.clear();
}

void ModuleHook::WaitFor(const std::string& line, int count) const {
    Registry& registry = TheRegistry();
    std::unique_lock<std::mutex> lock(registry.mutex);
    WaitBounded(
        registry.changed, lock,
        [&] { return std::count(registry.journal.begin(), registry.journal.end(), line) >= count; },
        "the journal's line \"" + line + "\"");
}

}  // namespace vessa_test

extern "C" PROGRAM_EXPORT int TestModule_Hook(const char* module, const char* operation, void* a,
                                              void* b, int* result) {
    using namespace vessa_test;
    const AllocationPause pause;
    ModuleCall call = Describe(module, operation, a, b);
    const std::shared_ptr<ModuleHook::Handler> handler = Enter(call);
    if (!handler) return 0;
    const RunningHandler running;
    (*handler)(call);
    *result = call.result;
    return call.replaced ? 1 : 0;
}
