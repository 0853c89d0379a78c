// RegistryWorld.h: threads that call a registry, and the modules that they come to.
#ifndef VESSA_TESTS_RELIABILITY_ORDERS_REGISTRYWORLD_H
#define VESSA_TESTS_RELIABILITY_ORDERS_REGISTRYWORLD_H

#include <string>

#include "TestPlatform.h"
#include "reliability/orders/Order.h"
#include "reliability/orders/OrderModules.h"
#include "unit/PluginWorld.h"

namespace vessa_test {

// One call of one thread, to be looked at when the order has been carried out.
struct Call {
    int result = 12345;
    void* out = nullptr;
};

// The plug-in "x" is module x, registered and not loaded. At the end of a test nothing is
// registered or loaded (ProviderTest).
class RegistryOrders : public ProviderTest {
  protected:
    void SetUp() override { Declare("x", Module("good_v2", "x" MODULE_SUFFIX)); }

    void Declare(const std::string& fkey, const std::string& path) {
        ASSERT_EQ(provider.RegisterPlugin(fkey, path, true), VESSA_OK);
    }
    // A plug-in whose every create does that besides.
    void DeclareOuter(const std::string& fkey, std::function<void()> in_create) {
        Declare(fkey, Module("good_v2", fkey + MODULE_SUFFIX));
        modules.On(fkey, "CreateInstance", [in_create](void*) { in_create(); });
    }
    void* Create(const std::string& fkey = "x") {
        Call call;
        MakeCreate(call, fkey);
        EXPECT_EQ(call.result, VESSA_OK) << fkey;
        return call.out;
    }
    int Destroy(void* instance) {
        int error = 0;
        return provider.DestroyInstance(instance, error);
    }
    int Unregister(const std::string& fkey = "x") { return provider.UnregisterPlugin(fkey); }
    int Register(const std::string& fkey = "x", bool delay = true) {
        return provider.RegisterPlugin(fkey, dir.Path(fkey + MODULE_SUFFIX), delay);
    }
    void MakeCreate(Call& call, const std::string& fkey) {
        int error = 0;
        call.result = provider.CreateInstance(TextRef(fkey), call.out, error);
    }
    void MakeQuery(Call& call, void* instance) {
        int error = 0;
        call.result = provider.QueryInterface(instance, TEST_MODULE_IKEY, call.out, error);
    }

    OrderThread Creates(const char* name, Call& call, const char* fkey = "x") {
        return {name, [this, &call, fkey] { MakeCreate(call, fkey); }};
    }
    OrderThread Destroys(const char* name, Call& call, void* instance) {
        return {name, [this, &call, instance] { call.result = Destroy(instance); }};
    }
    OrderThread Queries(const char* name, Call& call, void* instance) {
        return {name, [this, &call, instance] { MakeQuery(call, instance); }};
    }
    OrderThread Registers(const char* name, Call& call, bool delay = true) {
        return {name, [this, &call, delay] { call.result = Register("x", delay); }};
    }
    OrderThread Unregisters(const char* name, Call& call, const char* fkey = "x") {
        return {name, [this, &call, fkey] { call.result = Unregister(fkey); }};
    }

    bool IsRegistered(const std::string& fkey = "x") {
        return PluginProviderAccess::Collection(provider).count(fkey) != 0;
    }
    bool IsLoaded(const std::string& name = "x") {
        return PluginLoaderAccess::Collection(loader).count(name + MODULE_SUFFIX) != 0;
    }
    int Inits(const std::string& name = "x") { return modules.Count("Init " + name); }
    int Uninits(const std::string& name = "x") { return modules.Count("Uninit " + name); }
    // What every order on a single plug-in comes to at last.
    void ExpectGone(int loads) {
        EXPECT_FALSE(IsRegistered());
        EXPECT_FALSE(IsLoaded());
        EXPECT_EQ(Inits(), loads);
        EXPECT_EQ(Uninits(), loads);
        EXPECT_EQ(modules.Count("CreateInstance x"), modules.Count("DestroyInstance x"));
    }

    OrderModules modules;
};

}  // namespace vessa_test

#endif
