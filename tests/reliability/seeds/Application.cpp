#include "reliability/seeds/Application.h"

#include <cstring>
#include <string>

#include "modules/TestInterface.h"

namespace seeds {
namespace {

using schedule::Fail;

constexpr uint32_t kMostInstances = 3;
constexpr int kMostStarts = 2;
constexpr int kMaxThreads = 512;

Application* applications[kMaxThreads];

}  // namespace

Shared* shared = nullptr;

Application* ThisApplication() {
    const int thread = schedule::ThisThread();
    return thread >= 0 ? applications[thread] : nullptr;
}

int Application::Run(void* argument) {
    auto* const application = static_cast<Application*>(argument);
    applications[schedule::ThisThread()] = application;
    for (int i = 0; i < application->steps_; ++i) application->Step();
    while (!application->instances_.empty()) Destroy(application->TakeOne());
    while (application->StopOnce()) {
    }
    applications[schedule::ThisThread()] = nullptr;
    return 0;
}

void Application::Step() {
    schedule::Point("application.step");
    if (shared->is_restless && random_.OneIn(4)) {
        if (starts_ == 0) return Start();
        StopOnce();
        return;
    }
    switch (random_.Below(20)) {
        case 0:
        case 1:
            if (starts_ < kMostStarts) return Start();
            StopOnce();
            return;
        case 2:
            StopOnce();
            return;
        case 3:
            return QueryKeys();
        case 4:
            return QueryAttribute();
        case 5:
        case 6:
            return Exchange();
        case 7:
            if (instances_.empty()) return CreateOne();
            return Query(instances_[random_.Below(static_cast<uint32_t>(instances_.size()))]);
        default:
            break;
    }
    if (!instances_.empty() && random_.Below(kMostInstances + 1) <= instances_.size())
        return Destroy(TakeOne());
    CreateOne();
}

void Application::CreateOne() {
    if (!LibraryRuns() && random_.OneIn(2)) return Start();
    const Key key = random_.OneIn(2) ? shared->wanted : static_cast<Key>(random_.Below(kKeys));
    if (void* const instance = Create(key)) instances_.push_back(instance);
}

void* Application::TakeOne() {
    const size_t at = random_.Below(static_cast<uint32_t>(instances_.size()));
    void* const instance = instances_[at];
    instances_[at] = instances_.back();
    instances_.pop_back();
    return instance;
}

void Application::Start() {
    const int result = shared->library.Init();
    if (result != VESSA_OK) Fail("Init gives %d", result);
    ++starts_;
}

bool Application::StopOnce() {
    if (starts_ == 0) return false;
    --starts_;
    shared->library.Uninit();
    return true;
}

// The instance, or null where that is allowed.
void* Application::Create(Key key) {
    const bool library_ran = LibraryRuns();
    void* instance = nullptr;
    int plugin_error = 0;
    const int result = shared->library.Create(kKeyNames[key], &instance, &plugin_error);
    if (result == VESSA_OK) {
        if (instance == nullptr) Fail("a create of %s gives no instance", kKeyNames[key]);
        return instance;
    }
    if (instance != nullptr) Fail("a failed create of %s leaves an instance", kKeyNames[key]);
    const bool must_succeed = key == kStable && library_ran && LibraryRuns();
    const bool may_fail = result == VESSA_ERR_NOT_REGISTERED ||
                          (result == VESSA_ERR_MODULE_INIT && kModuleOf[key] == kModuleE);
    if (must_succeed || !may_fail) Fail("a create of %s gives %d", kKeyNames[key], result);
    return nullptr;
}

void Application::Destroy(void* instance) {
    int plugin_error = 0;
    const int result = shared->library.Destroy(instance, &plugin_error);
    if (result != VESSA_OK) Fail("the destroy of a live instance gives %d", result);
}

void Application::Query(void* instance) {
    void* iface = nullptr;
    int plugin_error = 0;
    const int result = shared->library.Query(instance, TEST_MODULE_IKEY, &iface, &plugin_error);
    if (result != VESSA_OK) Fail("a query of a live instance gives %d", result);
    if (iface != instance) Fail("a query gives another interface");
}

void Application::QueryKeys() {
    char** keys = nullptr;
    unsigned count = 0;
    const int result = shared->library.QueryKeys(&keys, &count);
    if (result != VESSA_OK) Fail("the question for all keys gives %d", result);
    bool has_stable = false;
    for (unsigned i = 0; i < count; ++i) {
        bool is_known = false;
        for (const char* const name : kKeyNames) is_known |= std::strcmp(keys[i], name) == 0;
        if (!is_known) Fail("there is a key '%s'", keys[i]);
        has_stable |= std::strcmp(keys[i], kKeyNames[kStable]) == 0;
    }
    if (LibraryRuns() && !has_stable) Fail("the key 'stable' is not listed");
    if (shared->library.ReleaseKeys(keys, count) != VESSA_OK) Fail("the keys are not taken back");
}

void Application::QueryAttribute() {
    const Key key = static_cast<Key>(random_.Below(kKeys));
    char value[4096];
    unsigned length = sizeof value - 1;
    const int result = shared->library.QueryAttribute(kKeyNames[key], "file", value, &length);
    if (result == VESSA_OK) {
        if (std::string(value, length) != shared->world->ModulePath(kModuleOf[key]))
            Fail("an attribute of %s has another value", kKeyNames[key]);
        return;
    }
    if (result != VESSA_FAILED || (key == kStable && LibraryRuns()))
        Fail("an attribute of %s gives %d", kKeyNames[key], result);
}

// Hands an instance over, or takes what another thread has handed over.
void Application::Exchange() {
    Slot& slot = shared->slots[random_.Below(static_cast<uint32_t>(shared->slots.size()))];
    void* const own = instances_.empty() ? nullptr : TakeOne();
    if (void* const other = slot.instance.exchange(own)) instances_.push_back(other);
}

int Mover::Run(void* argument) {
    auto* const mover = static_cast<Mover*>(argument);
    for (int i = 0; i < mover->steps; ++i) {
        const auto folder = static_cast<Folder>(mover->random.Below(kFolders));
        shared->world->Switch(folder, mover->random.Below(kVariants[folder]));
        schedule::Pause(mover->pause);
    }
    return 0;
}

}  // namespace seeds
