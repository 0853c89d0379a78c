// PluginWorld.h: what the tests of the plug-in classes share: a folder for module files, a
// census that nothing is left at the end of a test, and the lines that loads and unloads write.
#ifndef VESSA_TESTS_UNIT_PLUGINWORLD_H
#define VESSA_TESTS_UNIT_PLUGINWORLD_H

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "common/ThreadSafety.h"
#include "modules/TestInterface.h"
#include "support/LogCapture.h"
#include "support/ModuleHook.h"
#include "support/Modules.h"
#include "support/Runtime.h"
#include "support/Sync.h"
#include "support/TempDir.h"
#include "unit/LoggedCode.h"
#include "vessa/vessa.h"
#include "vessa2/PluginLoader.h"
#include "vessa2/PluginProvider.h"

struct PluginLoaderAccess {
    static std::map<std::string, Plugin*>& Collection(PluginLoader& loader)
        NO_THREAD_SAFETY_ANALYSIS {
        return loader.collection_;
    }
};

struct PluginProviderAccess {
    static std::map<std::string, PluginRecord*> Collection(PluginProvider& provider)
        NO_THREAD_SAFETY_ANALYSIS {
        std::map<std::string, PluginRecord*> all;
        provider.plugins_.by_key_.ForEach(
            [&](PluginRecord& record) { all.emplace(record.fkey().view(), &record); });
        for (const std::string& fkey : provider.plugins_.without_record_)
            all.emplace(fkey, nullptr);
        return all;
    }
    static InstanceTable& Instances(PluginProvider& provider) { return provider.instances_; }
    static int32_t Readers(PluginProvider& provider) { return provider.gate_.Readers(); }
    static size_t IndexedNames(PluginProvider& provider) NO_THREAD_SAFETY_ANALYSIS {
        return provider.plugins_.FileNames();
    }
    static void Clear(PluginProvider& provider) NO_THREAD_SAFETY_ANALYSIS {
        provider.plugins_.Clear();
    }
    static void AddWithoutRecord(PluginProvider& provider,
                                 const std::string& fkey) NO_THREAD_SAFETY_ANALYSIS {
        provider.plugins_.AddWithoutRecord(fkey);
    }
};

namespace vessa_test {

using Lines = std::vector<std::string>;

inline Lines operator+(Lines lines, const Lines& more) {
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

// Every test begins and ends with no module in the process's loader, and with as many modules,
// mutexes and semaphores after it as before.
class PluginTest : public testing::Test {
  protected:
    PluginTest() : loader(PluginLoader::Instance()), before_(Runtime::Census()) {}

    void TearDown() override {
        EXPECT_TRUE(PluginLoaderAccess::Collection(loader).empty()) << "a module is still held";
        EXPECT_EQ(Runtime::Census(), before_);
    }

    std::string Module(const std::string& module, const std::string& relative) {
        return Install(dir, module, relative);
    }

    // The folder and the file name of a path in the form in which they are logged.
    static std::string Folder(const std::string& path) { return path.substr(0, path.rfind('/')); }
    static std::string Name(const std::string& path) { return path.substr(path.rfind('/') + 1); }

    // Forgets a module whose file name is taken for good, which other tests must not meet.
    void Forget(const std::string& path) {
        auto& collection = PluginLoaderAccess::Collection(loader);
        const auto found = collection.find(Name(path));
        ASSERT_NE(found, collection.end());
        delete found->second;
        collection.erase(found);
    }

    // What Plugin::LoadPlugin writes for a well-behaved module: up to Init, and after it.
    static Lines BeforeInit(const std::string& path, const std::string& handle = "{*h}") {
        return {"3 param filename = " + Name(path) + ", folder_path = " + Folder(path),
                "3 plugin file path " + path, "3 load plugin rlt 0/0, plugin dso handle " + handle,
                "3 param plugin_handle = " + handle,
                "3 tarnet_handle " + handle +
                    ",Init {*}, Unint {*}, CreateInstance {*}, CreateInstance_V2 {*},"
                    "DestroyInstance {*}, QueryInterface {*}, GetAllInterfaceIkeys {*}, "
                    "GetFileVersion {*},"};
    }
    static Lines AfterInit(const std::string& path, const std::string& handle = "{*h}") {
        return {"3 load plugin succeeded, plugin handle " + handle + ", plugin folder " +
                Folder(path) + ", plugin filename " + Name(path) +
                ", plugin file version 1.2.3 test, interface ikeys [iface]"};
    }
    static Lines ModuleLoad(const std::string& path) { return BeforeInit(path) + AfterInit(path); }

    // The loader's entry lines for a module that it does not hold yet.
    static Lines NewModule(const std::string& path) {
        return {"3 param file_path = " + path, "3 param file_path = " + path,
                "3 filename_ = " + Name(path) + ", folder_path_ = " + Folder(path) +
                    ", file_path_ = " + path};
    }
    static Lines LoaderDone(const std::string& path, int references) {
        return {"3 load plugin succeeded, plugin filename " + Name(path) + ", reference counter " +
                std::to_string(references) + ", plugin path " + path};
    }
    static Lines RecordLoaded(const std::string& path, const std::string& plugin = "{*p}") {
        return {"3 load plugin succeeded, plugin " + plugin + ", plugin file path " + path};
    }
    // A record's first load of a module that nobody else has loaded.
    static Lines RecordLoad(const std::string& path) {
        return NewModule(path) + ModuleLoad(path) + LoaderDone(path, 1) + RecordLoaded(path);
    }

    static Lines LoaderUnloaded(const std::string& path, int references,
                                const std::string& plugin = "{*p}") {
        return {"3 unload plugin succeeded, plugin " + plugin + ", plugin reference " +
                std::to_string(references) + ", plugin filename " + Name(path) +
                ", plugin file path " + path};
    }
    static Lines RecordUnloaded(const std::string& path, const std::string& plugin = "{*p}") {
        return {"3 unload plugin succeeded, plugin " + plugin + ", plugin file path " + path};
    }
    static Lines StillCounted(int counter) {
        return {"3 plugin will not be unloaded, load_counter_value = " + std::to_string(counter)};
    }
    // A record's unload of a module that nobody else uses.
    static Lines RecordUnload(const std::string& path, const std::string& handle = "{*h}",
                              const std::string& plugin = "{*p}") {
        return Lines{"3 param dso_handle = " + handle} + LoaderUnloaded(path, 0, plugin) +
               RecordUnloaded(path, plugin);
    }

    TempDir dir;
    PluginLoader& loader;

  private:
    const RuntimeCensus before_;
};

// With a registry of the test's own, which must be free, with nothing registered and no
// instance alive, at the end.
class ProviderTest : public PluginTest {
  protected:
    void TearDown() override {
        EXPECT_EQ(PluginProviderAccess::Readers(provider), 0);
        EXPECT_TRUE(PluginProviderAccess::Collection(provider).empty());
        EXPECT_EQ(PluginProviderAccess::Instances(provider).Size(), 0u);
        EXPECT_EQ(PluginProviderAccess::IndexedNames(provider), 0u);
        owned_.reset();
        PluginTest::TearDown();
    }

    PluginRecord* Record(const std::string& fkey) {
        return PluginProviderAccess::Collection(provider).at(fkey);
    }
    int32_t References(const std::string& name) {
        return PluginLoaderAccess::Collection(loader).at(name)->reference_counter().Get();
    }

    static Lines Registered(const std::string& fkey, const std::string& path, bool delay_load) {
        return {"3 register plugin succeeded, fkey " + fkey + ", file path " + path +
                ", delay load " + (delay_load ? "true" : "false")};
    }
    static Lines Unregistered(const std::string& fkey, const std::string& path, bool delay_load) {
        return {"3 unregister plugin succeeded, fkey " + fkey + ", file path " + path +
                ", delay load " + (delay_load ? "true" : "false")};
    }
    static Lines Registering(const std::string& fkey, const std::string& path, bool delay_load) {
        return {"3 param fkey " + fkey + ", file_path " + path + ", delay_load " +
                (delay_load ? "true" : "false")};
    }

  private:
    std::unique_ptr<PluginProvider> owned_ = std::make_unique<PluginProvider>();

  protected:
    PluginProvider& provider = *owned_;
};

}  // namespace vessa_test

#endif
