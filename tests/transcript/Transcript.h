// Transcript.h: the log of whole operations, put together from the sequences that each layer
// writes. A test states an operation's transcript as the sum of its steps and compares it with
// everything that was written.
#ifndef VESSA_TESTS_TRANSCRIPT_TRANSCRIPT_H
#define VESSA_TESTS_TRANSCRIPT_TRANSCRIPT_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/ListFile.h"
#include "support/LogCapture.h"
#include "support/Modules.h"
#include "support/Runtime.h"
#include "support/TempDir.h"
#include "vessa2/PluginCoordinator.h"

namespace transcript {

using Lines = std::vector<std::string>;

inline Lines operator+(Lines left, const Lines& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

inline std::string Folder(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}
inline std::string Name(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}
inline std::string Text(bool value) {
    return value ? "true" : "false";
}

// The module's handle and its object in the loader, the same wherever they occur.
inline std::string Handle(const std::string& path) {
    return "{*handle of " + Name(path) + "}";
}
inline std::string Object(const std::string& path) {
    return "{*object of " + Name(path) + "}";
}

// One plug-in as a list file declares it.
struct Declared {
    std::string fkey;
    std::string path;  // of its module, absolute
    std::string list;  // the list file's path
    bool delay_load = false;
};

// A list file is read; resolved are the module paths of the items that were relative to it.
inline Lines ListIsRead(const std::string& list, const std::string& text,
                        const Lines& resolved = {}) {
    Lines lines = {"2 param config_file_path = " + list, "3 param file_path = " + list,
                   "2 file path " + list + ", config " + text, "2 param xml = " + text};
    for (const std::string& path : resolved)
        lines.push_back("1 Absolute_path=" + path + ", current_path=" + Folder(list) + "/");
    lines.push_back("2 read plugin list succeeded");
    return lines;
}

// The loader makes its object for a file and looks at the file.
inline Lines ModuleIsLookedAt(const std::string& path) {
    return {"3 param file_path = " + path, "3 param file_path = " + path,
            "3 filename_ = " + Name(path) + ", folder_path_ = " + Folder(path) +
                ", file_path_ = " + path,
            "3 param filename = " + Name(path) + ", folder_path = " + Folder(path),
            "3 plugin file path " + path};
}

inline Lines ModuleIsMapped(const std::string& path) {
    return ModuleIsLookedAt(path) +
           Lines{"3 load plugin rlt 0/0, plugin dso handle " + Handle(path),
                 "3 param plugin_handle = " + Handle(path)};
}

// The table of a version-2 module, in the log's own order: the last value is its create.
inline Lines TableIsRead(const std::string& path) {
    return {"3 tarnet_handle " + Handle(path) +
            ",Init {*}, Unint {*}, CreateInstance 0, CreateInstance_V2 {*},DestroyInstance {*}, "
            "QueryInterface {*}, GetAllInterfaceIkeys {*}, GetFileVersion {*},"};
}

// A record, the first of its file, gets its module.
inline Lines ModuleIsLoaded(const std::string& path, const std::string& version = "1.2.3 test",
                            const std::string& ikeys = "[iface]", const Lines& warnings = {}) {
    return ModuleIsMapped(path) + warnings + TableIsRead(path) +
           Lines{"3 load plugin succeeded, plugin handle " + Handle(path) + ", plugin folder " +
                     Folder(path) + ", plugin filename " + Name(path) + ", plugin file version " +
                     version + ", interface ikeys " + ikeys,
                 "3 load plugin succeeded, plugin filename " + Name(path) +
                     ", reference counter 1, plugin path " + path,
                 "3 load plugin succeeded, plugin " + Object(path) + ", plugin file path " + path};
}

// A further record of a file that is loaded already, which makes it so many.
inline Lines ModuleIsShared(const std::string& path, int users) {
    const std::string count = std::to_string(users);
    return {"3 param file_path = " + path, "3 plugin already loaded, load_counter_value = " + count,
            "3 load plugin succeeded, plugin filename " + Name(path) + ", reference counter " +
                count + ", plugin path " + path,
            "3 load plugin succeeded, plugin " + Object(path) + ", plugin file path " + path};
}

inline Lines ModuleIsUnloaded(const std::string& path) {
    return {"3 param dso_handle = " + Handle(path),
            "3 unload plugin succeeded, plugin " + Object(path) +
                ", plugin reference 0, plugin filename " + Name(path) + ", plugin file path " +
                path,
            "3 unload plugin succeeded, plugin " + Object(path) + ", plugin file path " + path};
}

// A record gives a module back that others still use.
inline Lines ModuleIsKept(const std::string& path, int users) {
    const std::string count = std::to_string(users);
    return {"3 plugin will not be unloaded, load_counter_value = " + count,
            "3 unload plugin succeeded, plugin " + Object(path) + ", plugin reference " + count +
                ", plugin filename " + Name(path) + ", plugin file path " + path,
            "3 unload plugin succeeded, plugin " + Object(path) + ", plugin file path " + path};
}

// The end of a load that failed with this code, seen by the module's object, the loader and
// the record.
inline Lines LoadFails(const std::string& path, const std::string& code) {
    return {"5 load plugin failed, error " + code + ", plugin filename " + Name(path) +
                ", plugin folder path " + Folder(path),
            "5 load plugin failed " + code + ", plugin file path " + path,
            "5 load plugin failed " + code + ", plugin file path " + path};
}

inline std::string Described(const Declared& plugin) {
    return "fkey " + plugin.fkey + ", file path " + plugin.path + ", delay load " +
           Text(plugin.delay_load);
}

inline std::string RegistrationBegins(const Declared& plugin) {
    return "3 param fkey " + plugin.fkey + ", file_path " + plugin.path + ", delay_load " +
           Text(plugin.delay_load);
}

// A registration; steps are what the registry has to say and the load of the module.
inline Lines IsRegistered(const Declared& plugin, const Lines& steps) {
    return Lines{RegistrationBegins(plugin)} + steps +
           Lines{"3 register plugin succeeded, " + Described(plugin),
                 "3 register plugin succeeded, " + Described(plugin) + ", config file path " +
                     plugin.list};
}

inline Lines IsRefused(const Declared& plugin, const std::string& code, const Lines& reason) {
    return Lines{RegistrationBegins(plugin)} + reason +
           Lines{"5 register plugin failed " + code + ", " + Described(plugin) +
                 ", config file path " + plugin.list};
}

// An unregistration because of a list file, with the unload of the module.
inline Lines IsUnregistered(const Declared& plugin, const Lines& steps) {
    return Lines{"3 param fkey = " + plugin.fkey} + steps +
           Lines{"3 unregister plugin succeeded, " + Described(plugin),
                 "3 unregister plugin succeeded, " + Described(plugin) + ", config file path " +
                     plugin.list};
}

// The same because the library stops.
inline Lines IsUnregisteredAtStop(const Declared& plugin, const Lines& steps) {
    return Lines{"3 param fkey = " + plugin.fkey} + steps +
           Lines{"3 unregister plugin succeeded, " + Described(plugin),
                 "3 unregister plugin succeeded, " + Described(plugin)};
}

inline std::string UnloadIsPutOff(const Declared& plugin) {
    return "4 unexpected, some plugin not destroyed, unload pluin later, fkey " + plugin.fkey +
           ", file path " + plugin.path;
}

inline Lines Round(const Lines& steps) {
    return Lines{"1 config file changed begin"} + steps + Lines{"1 config file changed end"};
}

inline Lines Starts(const std::string& root, const Lines& first_scan) {
    return Lines{"3 invode Run func",
                 "3 [{*monitor}]param plugin_root = " + root + ", config_filename = tarnet.xml"} +
           first_scan +
           Lines{"3 start config monitor succeeded",
                 "3 run PluginCoordinator succeeded, plugin root " + root +
                     ", config filename tarnet.xml"};
}

inline Lines Stops(const std::string& root, const Lines& unregistrations) {
    return Lines{"3 invoke Shutdown func", "3 stop config monitor succeeded"} + unregistrations +
           Lines{"3 shutdown PluginCoordinator succeeded, plugin root " + root +
                 ", config filename tarnet.xml"};
}

inline Lines InstanceIsCreated(const Declared& plugin, int instances, const Lines& load = {}) {
    return Lines{"2 param fkey = " + plugin.fkey} + load +
           Lines{"2 create tarnet instance succeeded, instance {*instance}, plugin " +
                     Object(plugin.path) + ", instance counter " + std::to_string(instances) +
                     ", plugin file path " + plugin.path,
                 "2 create plugin instance succeeded, instance {*instance}, fkey " + plugin.fkey +
                     ", plugin file path " + plugin.path};
}

// Up to where the registry looks whether an unload is due.
inline Lines InstanceGoes(const Declared& plugin, int instances) {
    return {"2 param instance = {*instance}", "2 param instance = {*instance}",
            "2 destroy tarnet instance succeeded, instance {*instance}, plugin " +
                Object(plugin.path) + ", instance counter " + std::to_string(instances) +
                ", plugin file path " + plugin.path};
}

inline Lines InstanceIsDestroyed(const Declared& plugin, int instances) {
    return InstanceGoes(plugin, instances) +
           Lines{"2 destroy instance succeeded, instance {*instance}, fkey " + plugin.fkey +
                 ", plugin file path " + plugin.path};
}

// A plug-in root, the log, and the coordinator that works on it.
class World {
  public:
    World() {
        coordinator.SetPluginRoot(dir.Path());
        coordinator.SetConfigFilename("tarnet.xml");
    }
    // What a module leaves in the loader would meet the next test.
    ~World() { coordinator.Shutdown(); }
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    std::string Root() const { return dir.Path(); }
    PluginProvider& provider() { return coordinator.provider(); }

    // Starts, and forgets what was written.
    void Start() {
        ASSERT_TRUE(coordinator.Run());
        log.Clear();
    }
    // One more scan.
    void Scan() {
        log.Clear();
        ASSERT_TRUE(runtime.Tick());
    }
    void* Create(const std::string& fkey) {
        void* instance = nullptr;
        int plugin_error = 0;
        EXPECT_EQ(provider().CreateInstance(fkey, instance, plugin_error), 0) << fkey;
        return instance;
    }
    int Destroy(void* instance) {
        int plugin_error = 0;
        return provider().DestroyInstance(instance, plugin_error);
    }

    vessa_test::TempDir dir;
    vessa_test::Runtime runtime;
    vessa_test::LogCapture log;
    PluginCoordinator coordinator;
};

}  // namespace transcript

#endif
