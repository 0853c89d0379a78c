// The library through its public functions: everything but what needs its inside.
#include "common/CreateRows.h"
#include "common/LoadRow.h"
#include "ours/Library.h"
#include "ours/StartRows.h"

namespace bench {
namespace {

class CreateHost {
  public:
    explicit CreateHost(size_t keys) : keys_(Keys(keys)) {
        library_.DeclareOnOneModule(keys);
        started_ = std::make_unique<StartedLibrary>(library_);
    }
    void* Create(size_t key) {
        void* instance = nullptr;
        library_.CreateInstance(keys_[key].c_str(), &instance, nullptr);
        return instance;
    }
    void Destroy(size_t, void* instance) { library_.DestroyInstance(instance, nullptr); }
    Library& library() { return library_; }

  private:
    Library library_;
    std::vector<std::string> keys_;
    std::unique_ptr<StartedLibrary> started_;
};

// Live instances that all threads ask.
struct QueryWorld {
    explicit QueryWorld(size_t live) : host(1), order(live) {
        while (instances.size() < live) instances.push_back(host.Create(0));
    }
    ~QueryWorld() {
        for (void* const instance : instances) host.Destroy(0, instance);
    }
    CreateHost host;
    RandomSequence order;
    std::vector<void*> instances;
};
std::unique_ptr<QueryWorld> query_world;

void PrepareQuery(const benchmark::State& state) {
    const auto live = static_cast<size_t>(state.range(0));
    if (query_world != nullptr && query_world->instances.size() == live) return;
    query_world.reset();
    query_world = std::make_unique<QueryWorld>(live);
}

void RunQuery(benchmark::State& state) {
    const QueryWorld& world = *query_world;
    Library& library = query_world->host.library();
    size_t at = static_cast<size_t>(state.thread_index()) * 4099;
    for (auto _ : state) {
        void* iface = nullptr;
        library.QueryInterface(world.instances[world.order.at(at++)], "bench.iface.decode", &iface,
                               nullptr);
        if (iface == nullptr) state.SkipWithError("no interface");
        benchmark::DoNotOptimize(iface);
    }
}

void RunBadQuery(benchmark::State& state) {
    PrepareQuery(state);
    Library& library = query_world->host.library();
    int not_an_instance = 0;
    for (auto _ : state) {
        void* iface = nullptr;
        const int result =
            library.QueryInterface(&not_an_instance, "bench.iface.decode", &iface, nullptr);
        if (result != VESSA_ERR_ARGUMENT) state.SkipWithError("not refused");
    }
}

void RunBadDestroy(benchmark::State& state) {
    PrepareQuery(state);
    Library& library = query_world->host.library();
    int not_an_instance = 0;
    for (auto _ : state) {
        const int result = library.DestroyInstance(&not_an_instance, nullptr);
        if (result != VESSA_ERR_ARGUMENT) state.SkipWithError("not refused");
    }
}

void RegisterQueries() {
    AtEnd([] { query_world.reset(); });
    for (const int live : {8, 100000}) {
        for (const int threads : {1, 2}) {
            benchmark::RegisterBenchmark(RowName("ours", "query").c_str(), RunQuery)
                ->ArgName("live")
                ->Arg(live)
                ->Threads(threads)
                ->UseRealTime()
                ->Setup(PrepareQuery);
        }
    }
    benchmark::RegisterBenchmark(RowName("ours", "bad_handle/query").c_str(), RunBadQuery)
        ->ArgName("live")
        ->Arg(8)
        ->UseRealTime();
    benchmark::RegisterBenchmark(RowName("ours", "bad_handle/destroy").c_str(), RunBadDestroy)
        ->ArgName("live")
        ->Arg(8)
        ->UseRealTime();
}

// Every module under a key of its own, delay-loaded.
class LoadHost {
  public:
    explicit LoadHost(const std::vector<std::string>& files) : keys_(Keys(files.size())) {
        std::string list = "<vessa>\n";
        for (size_t i = 0; i < files.size(); ++i)
            list += "<plugin fkey=\"" + keys_[i] + "\" file=\"" + files[i] +
                    "\" delayload=\"true\"/>\n";
        WriteFile(library_.MakeRoot() + "/tarnet.xml", list + "</vessa>\n");
        started_ = std::make_unique<StartedLibrary>(library_);
    }
    ~LoadHost() {
        for (void* const instance : instances_) library_.DestroyInstance(instance, nullptr);
    }
    bool FirstUse(size_t index) {
        void* instance = nullptr;
        library_.CreateInstance(keys_[index].c_str(), &instance, nullptr);
        instances_.push_back(instance);
        return instance != nullptr;
    }
    static std::string Module() { return BENCH_MODULE_FILE; }
    static const char* Symbol() { return "TARNET_GetPluginInterface_V2"; }

  private:
    Library library_;
    std::vector<std::string> keys_;
    std::vector<void*> instances_;
    std::unique_ptr<StartedLibrary> started_;
};

}  // namespace

void RegisterRows() {
    CreateRows<CreateHost>::Register("ours", CreateLimits());
    RegisterQueries();
    RegisterLoad<LoadHost>("ours");
    RegisterStartRows();
}

}  // namespace bench
