// libpeas: an extension of the plug-in with a name, all plug-ins loaded.
#include <dlfcn.h>
#include <libpeas/peas.h>

#include <filesystem>
#include <stdexcept>

#include "common/CreateRows.h"
#include "common/Folder.h"
#include "common/Lists.h"

namespace bench {
namespace {

class CreateHost {
  public:
    explicit CreateHost(size_t keys) : keys_(Keys(keys)), engine_(peas_engine_new()) {
        const std::string module = folder_.Copy(BENCH_PEER_MODULE, "libbenchpeas.so");
        // Its type stays for the life of the process, so must its code.
        if (dlopen(module.c_str(), RTLD_NOW | RTLD_LOCAL) == nullptr)
            throw std::runtime_error(dlerror());
        for (const std::string& key : keys_) {
            folder_.Write(key + ".plugin", "[Plugin]\nModule=" + key + "\nName=" + key + "\n");
            std::filesystem::create_symlink("libbenchpeas.so",
                                            folder_.Path() + "/lib" + key + ".so");
        }
        peas_engine_add_search_path(engine_, folder_.Path().c_str(), nullptr);
        for (const std::string& key : keys_) {
            PeasPluginInfo* const info = peas_engine_get_plugin_info(engine_, key.c_str());
            if (info == nullptr || !peas_engine_load_plugin(engine_, info))
                throw std::runtime_error("libpeas does not load " + key);
        }
    }
    ~CreateHost() { g_object_unref(engine_); }
    CreateHost(const CreateHost&) = delete;
    CreateHost& operator=(const CreateHost&) = delete;

    void* Create(size_t key) {
        PeasPluginInfo* const info = peas_engine_get_plugin_info(engine_, keys_[key].c_str());
        return peas_engine_create_extension(engine_, info, PEAS_TYPE_ACTIVATABLE, nullptr);
    }
    void Destroy(size_t, void* instance) { g_object_unref(instance); }

  private:
    TempFolder folder_;
    std::vector<std::string> keys_;
    PeasEngine* engine_;
};

// As the rows of list files have it: a description for each plug-in, in a folder of its own; the
// modules do not exist.
std::string DescriptionsOf(size_t plugins) {
    return KeptFolder("libpeas-" + std::to_string(plugins), [plugins](const std::string& folder) {
        for (const std::string& key : Keys(plugins)) {
            std::filesystem::create_directory(folder + "/" + key);
            WriteFile(folder + "/" + key + "/" + key + ".plugin",
                      "[Plugin]\nModule=" + key + "\nName=" + key + "\n");
        }
    });
}

bool HasAll(PeasEngine* engine, size_t plugins) {
    return g_list_length(const_cast<GList*>(peas_engine_get_plugin_list(engine))) == plugins;
}

void RunStart(benchmark::State& state) {
    const auto plugins = static_cast<size_t>(state.range(0));
    const std::string folder = DescriptionsOf(plugins);
    WarmUp(folder);
    for (auto _ : state) {
        const auto start = Clock::now();
        PeasEngine* const engine = peas_engine_new();
        peas_engine_add_search_path(engine, folder.c_str(), nullptr);
        state.SetIterationTime(SecondsSince(start));
        if (!HasAll(engine, plugins)) state.SkipWithError("not all found");
        g_object_unref(engine);
    }
}

void RunRescan(benchmark::State& state) {
    const auto plugins = static_cast<size_t>(state.range(0));
    const std::string folder = DescriptionsOf(plugins);
    PeasEngine* const engine = peas_engine_new();
    peas_engine_add_search_path(engine, folder.c_str(), nullptr);
    peas_engine_rescan_plugins(engine);
    for (auto _ : state) {
        const auto start = Clock::now();
        peas_engine_rescan_plugins(engine);
        state.SetIterationTime(SecondsSince(start));
    }
    if (!HasAll(engine, plugins)) state.SkipWithError("not all found");
    g_object_unref(engine);
}

void RegisterScan(const char* row, void (*run)(benchmark::State&), int plugins) {
    benchmark::RegisterBenchmark(RowName("libpeas", row).c_str(), run)
        ->ArgName("plugins")
        ->Arg(plugins)
        ->Iterations(1)
        ->UseManualTime();
}

}  // namespace

void RegisterRows() {
    CreateLimits limits;
    // Each key is a file and a loaded module: 100,000 would take minutes to set up. An engine is
    // for one thread.
    limits.keys = {1, 100, 10000};
    limits.threads = {1};
    CreateRows<CreateHost>::Register("libpeas", limits);
    for (const int plugins : {1000, 10000}) RegisterScan("start/each", RunStart, plugins);
    RegisterScan("rescan/each", RunRescan, 10000);
}

}  // namespace bench
