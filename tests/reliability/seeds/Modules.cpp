// What the modules of a run do: each of their operations comes here (modules/TestInterface.h).
#include <cstring>

#include "modules/TestInterface.h"
#include "reliability/seeds/Application.h"
#include "reliability/seeds/Ledger.h"

namespace seeds {
namespace {

using schedule::Fail;
using schedule::Point;

// Written by Init and Uninit and read by every operation, without a lock: the thread sanitizer
// tells if the library does not keep them in order.
int generation[kModules];

// What the module that uses others keeps from its Init to its Uninit.
void* kept = nullptr;

bool Throw(uint32_t times) {
    Application* const application = ThisApplication();
    return application != nullptr && !shared->modules_behave && application->random().OneIn(times);
}

void* CreateNested(Key key) {
    void* instance = nullptr;
    const int result = shared->library.Create(kKeyNames[key], &instance, nullptr);
    if (result != VESSA_OK && result != VESSA_ERR_NOT_REGISTERED)
        Fail("a nested create of %s gives %d", kKeyNames[key], result);
    return instance;
}

void StartAndStopNested() {
    if (shared->library.Init() != VESSA_OK) return;
    Point("nested.started");
    shared->library.Uninit();
}

// What a create of the module that uses others does inside.
void UseOthers() {
    if (shared->modules_behave) return;
    if (Throw(3)) {
        for (const Key key : {kStable, kD}) {
            void* const instance = CreateNested(key);
            if (instance == nullptr) continue;
            Application::Query(instance);
            Application::Destroy(instance);
        }
    }
    if (Throw(4)) StartAndStopNested();
    if (Throw(4)) ThisApplication()->StopOnce();
}

int Init(Module module) {
    ledger::InitBegins(module);
    generation[module] += 1;
    Point("module.init");
    bool succeeds = true;
    if (module == kModuleE) {
        if (!shared->modules_behave) kept = CreateNested(kA);
        succeeds = !Throw(5);
        if (!succeeds && kept != nullptr) {
            Application::Destroy(kept);
            kept = nullptr;
        }
    }
    ledger::InitEnds(module, succeeds);
    return succeeds ? 0 : TEST_MODULE_ERR_INIT;
}

int Uninit(Module module) {
    ledger::UninitBegins(module);
    Point("module.uninit");
    if (module == kModuleE && kept != nullptr) {
        void* const instance = kept;
        kept = nullptr;
        Application::Destroy(instance);
    }
    generation[module] += 1;
    ledger::UninitEnds(module);
    return 0;
}

void TouchGeneration(Module module) {
    if (generation[module] == 0) Fail("%s is not initialised", kModuleNames[module]);
}

int Create(Module module, void** instance) {
    ledger::Enter(module, "create");
    TouchGeneration(module);
    Point("module.create");
    if (module == kModuleE) UseOthers();
    if (shared->is_restless && Throw(6)) ThisApplication()->StopOnce();
    *instance = ledger::MakeInstance(module);
    Point("module.created");
    ledger::Leave(module);
    return 0;
}

int Destroy(Module module, void* instance) {
    ledger::Enter(module, "destroy");
    TouchGeneration(module);
    Point("module.destroy");
    ledger::DropInstance(module, instance);
    Point("module.destroyed");
    ledger::Leave(module);
    return 0;
}

int Query(Module module, void* instance, void** iface) {
    ledger::Enter(module, "query");
    TouchGeneration(module);
    Point("module.query");
    ledger::CheckInstance(module, instance);
    *iface = instance;
    ledger::Leave(module);
    return 0;
}

// The result of the operation in place of the module's own; false: the module goes on itself.
bool Operate(Module module, const char* operation, void* a, void* b, int& result) {
    if (std::strcmp(operation, "Init") == 0) {
        result = Init(module);
    } else if (std::strcmp(operation, "Uninit") == 0) {
        result = Uninit(module);
    } else if (std::strcmp(operation, "CreateInstance_V2") == 0) {
        result = Create(module, static_cast<void**>(b));
    } else if (std::strcmp(operation, "DestroyInstance") == 0) {
        result = Destroy(module, a);
    } else if (std::strcmp(operation, "QueryInterface") == 0) {
        result = Query(module, a, static_cast<test_module_query*>(b)->iface);
    } else {
        Point("module.other");
        return false;
    }
    return true;
}

}  // namespace
}  // namespace seeds

extern "C" __attribute__((visibility("default"))) int TestModule_Hook(const char* name,
                                                                      const char* operation,
                                                                      void* a, void* b,
                                                                      int* result) {
    using namespace seeds;
    const Module module = ledger::FindModule(name);
    if (module == kModules) schedule::Fail("there is a module '%s'", name);
    // These two run under the system loader's lock: no place to pass the processor on.
    if (std::strcmp(operation, "Load") == 0) return ledger::Loaded(module), 0;
    if (std::strcmp(operation, "Unload") == 0) return ledger::Unloaded(module), 0;
    return Operate(module, operation, a, b, *result) ? 1 : 0;
}
