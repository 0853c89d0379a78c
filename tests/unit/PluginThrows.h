// PluginThrows.h: one plug-in "k" whose operations end in other ways than by a return.
#ifndef VESSA_TESTS_UNIT_PLUGINTHROWS_H
#define VESSA_TESTS_UNIT_PLUGINTHROWS_H

#include <string>

#include "TestPlatform.h"
#include "unit/PluginWorld.h"

namespace vessa_test {

class PluginThrows : public ProviderTest {
  protected:
    std::string Declare(const std::string& module) {
        const std::string path = Module(module, module + MODULE_SUFFIX);
        EXPECT_EQ(provider.RegisterPlugin("k", path, true), VESSA_OK);
        return path;
    }
    // Takes out what counts as live for good.
    void Abandon() {
        for (const auto& entry : PluginProviderAccess::Collection(provider)) entry.second->Unload();
        PluginProviderAccess::Clear(provider);
    }

    int error = 77;
    void* instance = nullptr;
    void* iface = nullptr;
};

}  // namespace vessa_test

#endif
