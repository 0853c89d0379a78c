// Rounds at the registry: register, create, destroy, unregister, in all the ways that differ in
// what they make and give back.
#include <string>
#include <vector>

#include "Leftovers.h"
#include "TestPlatform.h"
#include "support/Modules.h"
#include "support/TempDir.h"
#include "vessa/vessa.h"
#include "vessa2/PluginProvider.h"

namespace vessa_test {
namespace {

class ProviderRounds {
  public:
    ProviderRounds() {
        for (const char* const module :
             {"good_v1", "good_v2", "init_fails", "create_fails", "same_instance", "no_entry"})
            Install(dir_, module, std::string(module) + MODULE_SUFFIX);
        Install(dir_, "good_v2", "other/good_v2" MODULE_SUFFIX);
        dir_.Write("garbage" MODULE_SUFFIX, "no module");
    }

    std::string Round(long number) {
        wrong_.clear();
        switch (number % 10) {
            case 0:
                return WithInstances("good_v2", true, 1);
            case 1:
                return WithInstances("good_v2", false, 3);
            case 2:
                return WithInstances("good_v1", true, 2);
            case 3:
                return PutOff();
            case 4:
                return AgainBeforeTheLast();
            case 5:
                return Refused("missing", VESSA_ERR_NO_MODULE_FILE);
            case 6:
                return Refused("init_fails", VESSA_ERR_MODULE_INIT);
            case 7:
                return Refused("garbage", VESSA_ERR_MODULE_LOAD);
            case 8:
                return Refused(number % 20 == 8 ? "create_fails" : "no_entry",
                               number % 20 == 8 ? VESSA_FAILED : VESSA_ERR_NO_INTERFACE);
            default:
                return Conflicts();
        }
    }

    // Many instances at once, so that every stripe of the instance table has its room.
    std::string Fill() {
        wrong_.clear();
        Register("key", "good_v2", true);
        std::vector<void*> instances;
        for (int i = 0; i < 20000; ++i) instances.push_back(Create("key", VESSA_OK));
        for (void* const instance : instances) Destroy(instance);
        Unregister("key");
        return wrong_;
    }

    bool IsEmpty() { return provider_.IsEmpty(); }

  private:
    std::string WithInstances(const std::string& module, bool delayed, int count) {
        Register("key", module, delayed);
        std::vector<void*> instances;
        for (int i = 0; i < count; ++i) {
            instances.push_back(Create("key", VESSA_OK));
            Query(instances.back());
        }
        for (void* const instance : instances) Destroy(instance);
        Unregister("key");
        return wrong_;
    }

    // The module goes with the last instance, after its unregistration.
    std::string PutOff() {
        Register("key", "good_v2", true);
        void* const instance = Create("key", VESSA_OK);
        Unregister("key");
        Create("key", VESSA_ERR_NOT_REGISTERED);
        Query(instance);
        Destroy(instance);
        return wrong_;
    }

    std::string AgainBeforeTheLast() {
        Register("key", "good_v2", true);
        void* const instance = Create("key", VESSA_OK);
        Unregister("key");
        Register("key", "good_v2", true);
        Destroy(Create("key", VESSA_OK));
        Destroy(instance);
        Unregister("key");
        return wrong_;
    }

    std::string Refused(const std::string& module, int expected) {
        Register("key", module, true);
        Create("key", expected);
        Unregister("key");
        return wrong_;
    }

    // The same key with another file, the same file name from another folder, and a module that
    // hands out a pointer twice.
    std::string Conflicts() {
        Register("key", "good_v2", true);
        Register("key", "good_v1", true, VESSA_ERR_PLUGIN_CONFLICT);
        Register("second", "other/good_v2", true, VESSA_ERR_PLUGIN_CONFLICT);
        Register("third", "same_instance", false);
        void* const instance = Create("third", VESSA_OK);
        void* again = nullptr;
        int error = 0;
        Expect("create", provider_.CreateInstance("third", again, error),
               VESSA_ERR_INSTANCE_CONFLICT);
        Destroy(instance);
        Unregister("third");
        Unregister("key");
        return wrong_;
    }

    void Register(const std::string& key, const std::string& module, bool delayed,
                  int expected = VESSA_OK) {
        const std::string path = dir_.Path(module + MODULE_SUFFIX);
        Expect("register " + key, provider_.RegisterPlugin(key, path, delayed), expected);
    }
    void Unregister(const std::string& key) {
        Expect("unregister " + key, provider_.UnregisterPlugin(key), VESSA_OK);
    }
    void* Create(const std::string& key, int expected) {
        void* instance = nullptr;
        int error = 0;
        Expect("create " + key, provider_.CreateInstance(key.c_str(), instance, error), expected);
        return instance;
    }
    void Query(void* instance) {
        void* found = nullptr;
        int error = 0;
        Expect("query", provider_.QueryInterface(instance, "iface", found, error), VESSA_OK);
        Expect("query", provider_.QueryInterface(instance, "none", found, error), VESSA_FAILED);
    }
    void Destroy(void* instance) {
        int error = 0;
        Expect("destroy", provider_.DestroyInstance(instance, error), VESSA_OK);
        Expect("destroy again", provider_.DestroyInstance(instance, error), VESSA_ERR_ARGUMENT);
    }
    void Expect(const std::string& what, int result, int expected) {
        if (result != expected)
            wrong_ +=
                what + ": " + std::to_string(result) + " for " + std::to_string(expected) + "; ";
    }

    TempDir dir_;
    PluginProvider provider_;
    std::string wrong_;
};

int Main(int argc, char** argv) {
    const LeftoverOptions options = ReadOptions(argc, argv, 1);
    ProviderRounds rounds;
    const std::string wrong = rounds.Fill();
    if (!wrong.empty()) {
        std::printf("provider: %s\n", wrong.substr(0, 200).c_str());
        return 1;
    }
    const bool same = RunRounds("provider", options.counts[0], options.plant,
                                [&](long number) { return rounds.Round(number); });
    if (!same) return 1;
    if (rounds.IsEmpty()) return 0;
    std::printf("provider: something is still registered\n");
    return 1;
}

}  // namespace
}  // namespace vessa_test

int main(int argc, char** argv) {
    return vessa_test::Main(argc, argv);
}
